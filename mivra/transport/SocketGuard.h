#pragma once

#include <cerrno>
#include <utility>

#include "mivra/platform/System.h"

namespace Mivra::Transport {

/// Owns a descriptor (-1: none) until Detach; closing it leaves errno as it was.
class SocketGuard {
public:
    explicit SocketGuard(int descriptor = -1) noexcept : held(descriptor) {}
    SocketGuard(const SocketGuard&) = delete;
    SocketGuard& operator=(const SocketGuard&) = delete;
    ~SocketGuard() { Reset(); }

    int get() const noexcept { return held; }
    explicit operator bool() const noexcept { return held != -1; }
    [[nodiscard]] int Detach() noexcept { return std::exchange(held, -1); }
    void Reset(int descriptor = -1) noexcept {
        if (held != -1) {
            const int error = errno;
            Platform::System().close(held);
            errno = error;
        }
        held = descriptor;
    }

private:
    int held;
};

}  // namespace Mivra::Transport
