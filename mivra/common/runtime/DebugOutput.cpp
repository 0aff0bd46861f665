#include "mivra/common/runtime/DebugOutput.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "mivra/platform/System.h"

namespace Mivra::Common {
namespace {

constinit std::atomic<DebugOutputHook> s_hook{nullptr};

bool goesToStandardError() noexcept {
    static const bool wanted = [] {
        const char* value = std::getenv("MIVRA_DEBUG_OUTPUT");
        return value != nullptr && std::strcmp(value, "1") == 0;
    }();
    return wanted;
}

}  // namespace

void WriteDebugOutput(std::string_view text) noexcept {
    if (const DebugOutputHook hook = s_hook.load(std::memory_order_acquire)) {
        hook(text);
    } else if (goesToStandardError()) {
        // Nobody to tell when it fails.
        [[maybe_unused]] const auto written =
            Platform::System().write(STDERR_FILENO, text.data(), text.size());
    }
}

void SetDebugOutputHook(DebugOutputHook hook) noexcept {
    s_hook.store(hook, std::memory_order_release);
}

}  // namespace Mivra::Common
