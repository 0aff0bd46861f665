#include "tools/mivra/MediaFile.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>

namespace Mivra::Tool {
namespace {

constexpr int kReadBuffer = 64 << 10;
constexpr int kWriteBuffer = 256 << 10;
constexpr mode_t kFileMode = 0666;
// To open or to write never waits by itself: where a reader lets the file wait, the wait can be ended.
constexpr int kOutputFlags = O_WRONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
constexpr int kReaderLookMilliseconds = 20;

template <typename Call>
auto retried(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

std::int64_t seekIn(int descriptor, std::int64_t offset, int whence) {
    if ((whence & AVSEEK_SIZE) != 0) {
        struct stat status {};
        return ::fstat(descriptor, &status) == 0 ? status.st_size : AVERROR(errno);
    }
    const off_t position = ::lseek(descriptor, offset, whence & ~AVSEEK_FORCE);
    return position < 0 ? AVERROR(errno) : position;
}

}  // namespace

InputFile::InputFile(const std::string& path) {
    const bool standard = path == kStandardStream;
    // Opening a named pipe does not wait for its writer; reading does.
    descriptor = retried([&] {
        return standard ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                        : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    });
    if (descriptor < 0) {
        fail(path);
    }
    struct stat status {};
    const bool regular = ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    if (S_ISDIR(status.st_mode)) {
        ::close(descriptor);
        errno = EISDIR;
        fail(path);
    }
    if (regular) {
        size = status.st_size;
        ::posix_fadvise(descriptor, 0, 0, POSIX_FADV_SEQUENTIAL);
    } else {
        wakeDescriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    try {
        context = makeAvio(kReadBuffer, false, this, read, nullptr, regular ? seek : nullptr);
    } catch (...) {
        ::close(descriptor);
        throw;
    }
}

InputFile::~InputFile() {
    ::close(descriptor);
    if (wakeDescriptor >= 0) {
        ::close(wakeDescriptor);
    }
}

void InputFile::Interrupt() {
    interrupted.store(true);
    if (wakeDescriptor >= 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(wakeDescriptor, &one, sizeof(one));
    }
}

bool InputFile::waitReadable() {
    pollfd wanted[] = {{descriptor, POLLIN, 0}, {wakeDescriptor, POLLIN, 0}};
    retried([&] { return ::poll(wanted, 2, -1); });
    return !interrupted.load();
}

int InputFile::read(void* self, std::uint8_t* data, int size) {
    auto& file = *static_cast<InputFile*>(self);
    ssize_t got = -1;
    do {
        if (file.interrupted.load() || (file.wakeDescriptor >= 0 && !file.waitReadable())) {
            return AVERROR_EXIT;
        }
        got = retried([&] { return ::read(file.descriptor, data, static_cast<std::size_t>(size)); });
    } while (got < 0 && errno == EAGAIN && file.wakeDescriptor >= 0);
    if (got < 0) {
        return AVERROR(errno);
    }
    file.bytesRead.fetch_add(got, std::memory_order_relaxed);
    return got == 0 ? AVERROR_EOF : static_cast<int>(got);
}

std::int64_t InputFile::seek(void* self, std::int64_t offset, int whence) {
    return seekIn(static_cast<InputFile*>(self)->descriptor, offset, whence);
}

OutputFile::OutputFile(const std::string& name, const StopSignal& signal)
    : path(name), stop(signal), standard(name == kStandardStream) {
    if (standard) {
        openStandard();
    } else {
        openNamed();
    }
    if (descriptor < 0) {
        fail(path);
    }
    struct stat status {};
    regular = ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    try {
        context = makeAvio(kWriteBuffer, true, this, nullptr, write, regular && !standard ? seek : nullptr);
    } catch (...) {
        ::close(descriptor);
        throw;
    }
    context->min_packet_size = regular ? kWriteBuffer : 0;
}

OutputFile::~OutputFile() {
    Close();
}

void OutputFile::openStandard() {
    struct stat status {};
    if (::fstat(STDOUT_FILENO, &status) == 0 && S_ISFIFO(status.st_mode)) {
        // A view of the pipe that is ours alone, so that not to block is nobody else's matter.
        descriptor = retried([] { return ::open("/proc/self/fd/1", kOutputFlags); });
    }
    if (descriptor < 0) {
        descriptor = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
        mayBlock = true;
    }
}

void OutputFile::openNamed() {
    // Made anew or opened as it is: what is there is lost only when there is something to write.
    descriptor = retried([&] { return ::open(path.c_str(), kOutputFlags | O_CREAT | O_EXCL, kFileMode); });
    created = descriptor >= 0;
    if (created || errno != EEXIST) {
        return;
    }
    do {
        descriptor = retried([&] { return ::open(path.c_str(), kOutputFlags | O_CREAT, kFileMode); });
    } while (descriptor < 0 && errno == ENXIO && awaitReader());
}

/// Whether to try once more to open a named pipe that has no reader.
bool OutputFile::awaitReader() {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) {
        errno = ENXIO;
        return false;
    }
    const bool stopped = stop.Wait(kReaderLookMilliseconds);
    errno = stopped ? ECANCELED : ENXIO;
    return !stopped;
}

bool OutputFile::Begin() {
    return standard || !regular || retried([&] { return ::ftruncate(descriptor, 0); }) == 0;
}

void OutputFile::Discard() {
    if (created) {
        ::unlink(path.c_str());
    }
}

void OutputFile::Close() {
    if (behind != nullptr) {
        noteError(behind->Drain());
    }
    if (descriptor >= 0 && ::close(descriptor) != 0 && writeError == 0 && errno != EINTR) {
        writeError = errno;
    }
    descriptor = -1;
}

/// False, with errno, when the reader is not to be waited for any longer.
bool OutputFile::waitWritable() {
    while (true) {
        pollfd wanted[] = {{descriptor, POLLOUT, 0}, {stop.Descriptor(), POLLIN, 0}};
        const bool stopped = stop.IsRaised();
        const int ready =
            retried([&] { return ::poll(wanted, stopped ? 1 : 2, stopped ? kGraceMilliseconds : -1); });
        if (wanted[0].revents != 0 || ready < 0) {
            return true;  // or an error, which the write tells
        }
        if (stopped) {
            errno = ECANCELED;
            return false;
        }
    }
}

/// For libavformat: 0, or its number of the error, which is kept when it is the first.
int OutputFile::noteError(int error) {
    writeError = writeError == 0 ? error : writeError;
    return error == 0 ? 0 : AVERROR(error);
}

int OutputFile::write(void* self, std::uint8_t* data, int size) {
    auto& file = *static_cast<OutputFile*>(self);
    const int error = file.regular ? file.writeRegular(data, size) : file.writeOther(data, size);
    file.sent += 1;
    return error == 0 ? size : file.noteError(error);
}

int OutputFile::writeRegular(const std::uint8_t* data, int size) {
    const std::int64_t offset = standard ? WriteBehind::kWhereItStands : position;
    position += size;
    if (behind == nullptr && sent == 0) {
        try {
            behind = std::make_unique<WriteBehind>(descriptor);
        } catch (const std::system_error&) {  // no thread to be had: it is done here
        }
    }
    if (behind == nullptr) {
        return writeAll(descriptor, data, static_cast<std::size_t>(size), offset);
    }
    return behind->Write(data, size, offset);
}

int OutputFile::writeOther(const std::uint8_t* data, int size) {
    for (int done = 0; done < size;) {
        if (mayBlock && !waitWritable()) {
            return errno;
        }
        const int most = mayBlock ? PIPE_BUF : INT_MAX;  // so much does not block a pipe that has room
        const auto part = static_cast<std::size_t>(std::min(size - done, most));
        const ssize_t put = ::write(descriptor, data + done, part);
        if (put >= 0) {
            done += static_cast<int>(put);
        } else if (errno == EAGAIN ? !waitWritable() : errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

std::int64_t OutputFile::currentSize() {
    if (behind != nullptr) {
        behind->Drain();
    }
    return seekIn(descriptor, 0, AVSEEK_SIZE);
}

std::int64_t OutputFile::seek(void* self, std::int64_t offset, int whence) {
    auto& file = *static_cast<OutputFile*>(self);
    std::int64_t from = 0;
    switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE:
            return file.currentSize();
        case SEEK_CUR:
            from = file.position;
            break;
        case SEEK_END:
            from = file.currentSize();
            break;
        default:
            break;
    }
    if (from < 0 || from + offset < 0) {
        return AVERROR(EINVAL);
    }
    return file.position = from + offset;
}

}  // namespace Mivra::Tool
