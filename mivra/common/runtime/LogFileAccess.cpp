#include "mivra/common/runtime/LogFileAccess.h"

#include <cerrno>

#include "mivra/platform/System.h"

namespace Mivra::Common {
namespace {

constexpr off_t kLockedBytes = 2;

}  // namespace

LogFileLock::LogFileLock(int descriptor) noexcept : file(descriptor) {
    int result;
    do {
        result = Platform::System().lockRange(file, Platform::RangeLock::Exclusive, 0, kLockedBytes);
    } while (result == -1 && errno == EINTR);
    held = result == 0;
}

LogFileLock::~LogFileLock() {
    if (held) {
        Platform::System().lockRange(file, Platform::RangeLock::Unlock, 0, kLockedBytes);
    }
}

void LogFileLock::Append(const char* text, std::size_t size) const noexcept {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t written = Platform::System().write(file, text + done, size - done);
        if (written == -1 && errno == EINTR) continue;
        if (written <= 0) break;
        done += static_cast<std::size_t>(written);
    }
    if (done != 0 && done != size && held) {
        dropTail(done);
    }
}

// A full disk may take a part of a line.
void LogFileLock::dropTail(std::size_t size) const noexcept {
    struct stat status;
    const auto dropped = static_cast<off_t>(size);
    if (Platform::System().descriptorStatus(file, &status) == 0 && status.st_size >= dropped) {
        Platform::System().truncate(file, status.st_size - dropped);
    }
}

}  // namespace Mivra::Common
