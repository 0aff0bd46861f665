#pragma once

namespace Mivra::Platform {

/// The kernel's id of the calling thread, as tools show it; also right in the child of a fork.
int CurrentThreadId() noexcept;

}  // namespace Mivra::Platform
