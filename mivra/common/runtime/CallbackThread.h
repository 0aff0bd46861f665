#pragma once

// Threads for one notification or one final release, handed to ThreadHelper.

#include <functional>

namespace Mivra::Common {

/// Runs the body on a fresh thread and returns at once. The thread begins its work without delay, but
/// reports its end (ThreadHelper::FinishThread) only after it has been queued, so the next hand-over joins
/// it; the body and what it captured are gone by then. An exception out of the body is logged.
/// std::system_error (resource_unavailable_try_again) when no thread or memory is to be had: then nothing
/// has happened, and the body never runs.
void StartCallbackThread(std::function<void()> body);

}  // namespace Mivra::Common
