#include "mivra/platform/ThreadId.h"

#include <pthread.h>
#include <unistd.h>

namespace Mivra::Platform {
namespace {

constinit thread_local int t_id = 0;

int lookUp() noexcept {
    // The one thread of a forked child has a new id.
    static const int registered = ::pthread_atfork(nullptr, nullptr, [] { t_id = 0; });
    static_cast<void>(registered);
    return t_id = ::gettid();
}

}  // namespace

int CurrentThreadId() noexcept {
    return t_id != 0 ? t_id : lookUp();
}

}  // namespace Mivra::Platform
