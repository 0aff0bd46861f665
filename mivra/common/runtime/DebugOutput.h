#pragma once

// The debugger's text channel. It goes nowhere, unless the environment variable MIVRA_DEBUG_OUTPUT is 1 when
// it is first used: then to standard error. Tests take it with a hook.

#include <string_view>

namespace Mivra::Common {

using DebugOutputHook = void (*)(std::string_view text);

/// Sends text that ends in a line ending.
void WriteDebugOutput(std::string_view text) noexcept;

/// Sends all further output to the hook instead; null ends that. The hook is called under the log's lock.
void SetDebugOutputHook(DebugOutputHook hook) noexcept;

}  // namespace Mivra::Common
