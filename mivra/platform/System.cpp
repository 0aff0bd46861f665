#include "mivra/platform/System.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <linux/futex.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace Mivra::Platform {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

std::int64_t readClock(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<std::int64_t>(now.tv_sec) * kNanosecondsPerSecond + now.tv_nsec;
}

timespec toTimespec(std::int64_t nanoseconds) {
    return {static_cast<time_t>(nanoseconds / kNanosecondsPerSecond),
            static_cast<long>(nanoseconds % kNanosecondsPerSecond)};
}

int openFile(const char* path, int flags, mode_t mode) {
    return ::open(path, flags | O_CLOEXEC, mode);
}

int lockFileRange(int descriptor, RangeLock operation, off_t start, off_t length) {
    struct flock range {};
    range.l_type = operation == RangeLock::Unlock ? F_UNLCK : F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = start;
    range.l_len = length;
    return ::fcntl(descriptor, operation == RangeLock::TryExclusive ? F_OFD_SETLK : F_OFD_SETLKW, &range);
}

int listEntries(const char* path, void (*visit)(const char* name, void* context), void* context) {
    // A visit may throw.
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(path), ::closedir);
    if (folder == nullptr) {
        return -1;
    }
    // readdir is safe where every thread has a stream of its own.
    while (const dirent* const entry = ::readdir(folder.get())) {  // NOLINT(concurrency-mt-unsafe)
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            visit(entry->d_name, context);
        }
    }
    return 0;
}

// dlerror keeps its text for each thread.
const char* readLoadError() {
    return ::dlerror();  // NOLINT(concurrency-mt-unsafe)
}

const char* findLoadedPath(void* library) {
    link_map* map = nullptr;
    return ::dlinfo(library, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr ? map->l_name : nullptr;
}

ssize_t readExecutablePath(char* path, std::size_t size) {
    return ::readlink("/proc/self/exe", path, size);
}

void sleepFor(std::int64_t nanoseconds) {
    if (nanoseconds <= 0) {
        return;
    }
    timespec left = toTimespec(nanoseconds);
    while (::nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

void waitOnWord(const std::atomic<std::uint32_t>* word, std::uint32_t expected, std::int64_t nanoseconds) {
    const timespec limit = toTimespec(nanoseconds < 0 ? 0 : nanoseconds);
    ::syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, expected, nanoseconds < 0 ? nullptr : &limit, nullptr, 0);
}

void wakeOnWord(const std::atomic<std::uint32_t>* word, int count) {
    ::syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

int createQuietSocket(int domain, int type, int protocol) {
    return ::socket(domain, type | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol);
}

int acceptQuietSocket(int socket, sockaddr* address, socklen_t* size) {
    return ::accept4(socket, address, size, SOCK_NONBLOCK | SOCK_CLOEXEC);
}

ssize_t sendQuietly(int socket, const void* data, std::size_t size, int flags) {
    return ::send(socket, data, size, flags | MSG_NOSIGNAL);
}

ssize_t sendQuietMessage(int socket, const msghdr* message, int flags) {
    return ::sendmsg(socket, message, flags | MSG_NOSIGNAL);
}

int sendQuietMessages(int socket, mmsghdr* messages, unsigned int count, int flags) {
    return ::sendmmsg(socket, messages, count, flags | MSG_NOSIGNAL);
}

std::thread* startStdThread(std::function<void()> body) {
    return new std::thread(std::move(body));
}

}  // namespace

constinit SystemTable g_system = {
    .open = openFile,
    .close = ::close,
    .read = ::read,
    .write = ::write,
    .readAt = ::pread,
    .readPairAt = [](int descriptor, const iovec* pair,
                     off_t offset) { return ::preadv(descriptor, pair, 2, offset); },
    .writeAt = ::pwrite,
    .seek = ::lseek,
    .truncate = ::ftruncate,
    .sync = ::fsync,
    .descriptorStatus = ::fstat,
    .pathStatus = ::stat,
    .rename = ::rename,
    .unlink = ::unlink,
    .makeDirectory = ::mkdir,
    .listDirectory = listEntries,
    .lockRange = lockFileRange,
    .createSocket = createQuietSocket,
    .bindSocket = ::bind,
    .connectSocket = ::connect,
    .listenSocket = ::listen,
    .acceptSocket = acceptQuietSocket,
    .receive = ::recv,
    .receiveFrom = ::recvfrom,
    .send = sendQuietly,
    .sendMessage = sendQuietMessage,
    .sendMessages = sendQuietMessages,
    .setSocketOption = ::setsockopt,
    .getSocketOption = ::getsockopt,
    .socketName = ::getsockname,
    .peerName = ::getpeername,
    .pollSockets = ::poll,
    .selectSockets = ::select,
    .createWatchSet = [] { return ::epoll_create1(EPOLL_CLOEXEC); },
    .changeWatchSet = ::epoll_ctl,
    .awaitWatchSet = ::epoll_wait,
    .createWakeDescriptor = [] { return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); },
    .resolveName = ::getaddrinfo,
    .freeResolved = ::freeaddrinfo,
    .openLibrary = ::dlopen,
    .findSymbol = ::dlsym,
    .closeLibrary = ::dlclose,
    .loadError = readLoadError,
    .loadedPath = findLoadedPath,
    .executablePath = readExecutablePath,
    .monotonicTime = [] { return readClock(CLOCK_MONOTONIC); },
    .coarseTime = [] { return readClock(CLOCK_MONOTONIC_COARSE); },
    .wallTime = [] { return readClock(CLOCK_REALTIME); },
    .sleep = sleepFor,
    .waitWord = waitOnWord,
    .wakeWord = wakeOnWord,
    .startThread = startStdThread,
    .allocate = std::malloc,
    .allocateZeroed = [](std::size_t size) { return std::calloc(1, size); },
    .free = std::free,
};

}  // namespace Mivra::Platform
