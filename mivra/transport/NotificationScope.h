#pragma once

// How an engine calls the application: the thread is marked as being in a handler, where it waits for no lock
// of another context (two workers whose handlers turn to each other's clients would wait for ever), and an
// exception ends here.

#include <exception>

#include "mivra/common/runtime/GlobalLog.h"

namespace Mivra::Transport {

class NotificationScope {
public:
    NotificationScope() noexcept { ++s_depth; }
    ~NotificationScope() { --s_depth; }
    NotificationScope(const NotificationScope&) = delete;
    NotificationScope& operator=(const NotificationScope&) = delete;

    /// Whether the calling thread is in a handler.
    static bool Active() noexcept { return s_depth != 0; }

private:
    static inline constinit thread_local int s_depth = 0;
};

template <typename Call>
void Notify(unsigned int clientId, Call call) noexcept {
    const NotificationScope scope;
    try {
        call();
    } catch (const std::exception& error) {
        Common::LogLine(Common::FileLog::Error, "NetNotitications: client %u: exception out of a handler: %s",
                        clientId, error.what());
    } catch (...) {
        Common::LogLine(Common::FileLog::Error, "NetNotitications: client %u: exception out of a handler",
                        clientId);
    }
}

}  // namespace Mivra::Transport
