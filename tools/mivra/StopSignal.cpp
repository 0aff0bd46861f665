#include "tools/mivra/StopSignal.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Tool {

StopSignal::StopSignal() : descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (descriptor < 0) {
        throw Common::GeneralException("cannot make a signal: %s", std::strerror(errno));
    }
}

StopSignal::~StopSignal() {
    ::close(descriptor);
}

void StopSignal::Raise() {
    raised.store(true);
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(descriptor, &one, sizeof(one));
}

bool StopSignal::Wait(int milliseconds) const {
    pollfd wanted{descriptor, POLLIN, 0};
    ::poll(&wanted, 1, milliseconds);
    return IsRaised();
}

}  // namespace Mivra::Tool
