#pragma once

namespace Mivra::Platform {

/// Between two looks of a short spin: leaves the core to its other thread. No system call.
inline void Relax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

}  // namespace Mivra::Platform
