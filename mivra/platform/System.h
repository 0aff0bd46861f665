#pragma once

// The one table of system calls, clocks, waits, threads and memory that the library uses. Production code
// calls through System(); tests replace single entries while no other thread runs, to make the Nth call of a
// kind fail or to let time run. Every entry keeps the contract (results, errno) of the call that it stands
// for.

#include <netdb.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <thread>

namespace Mivra::Platform {

/// What lockRange does with a range of bytes of an open file.
enum class RangeLock { Exclusive, TryExclusive, Unlock };

struct SystemTable {
    // Files. Descriptors are opened close-on-exec by the default entry.
    int (*open)(const char* path, int flags, mode_t mode);
    int (*close)(int descriptor);
    ssize_t (*read)(int descriptor, void* data, std::size_t size);
    ssize_t (*write)(int descriptor, const void* data, std::size_t size);
    ssize_t (*readAt)(int descriptor, void* data, std::size_t size, off_t offset);
    /// Into first, then into second, without a gap in the file.
    ssize_t (*readPairAt)(int descriptor, const iovec* pair, off_t offset);
    ssize_t (*writeAt)(int descriptor, const void* data, std::size_t size, off_t offset);
    off_t (*seek)(int descriptor, off_t offset, int whence);
    int (*truncate)(int descriptor, off_t length);
    int (*sync)(int descriptor);
    int (*descriptorStatus)(int descriptor, struct stat* status);
    int (*pathStatus)(const char* path, struct stat* status);
    int (*rename)(const char* from, const char* to);
    int (*unlink)(const char* path);
    int (*makeDirectory)(const char* path, mode_t mode);
    /// Calls visit(name, context) for every entry of a folder but "." and "..". 0 or -1 with errno.
    int (*listDirectory)(const char* path, void (*visit)(const char* name, void* context), void* context);
    /// An open-file-description lock; waits until the range is free, but TryExclusive, which fails with
    /// EAGAIN then. 0 or -1 with errno.
    int (*lockRange)(int descriptor, RangeLock operation, off_t start, off_t length);

    // Sockets, all of them non-blocking and close-on-exec, accepted ones too; nothing raises SIGPIPE.
    int (*createSocket)(int domain, int type, int protocol);
    int (*bindSocket)(int socket, const sockaddr* address, socklen_t size);
    int (*connectSocket)(int socket, const sockaddr* address, socklen_t size);
    int (*listenSocket)(int socket, int backlog);
    int (*acceptSocket)(int socket, sockaddr* address, socklen_t* size);
    ssize_t (*receive)(int socket, void* data, std::size_t size, int flags);
    ssize_t (*receiveFrom)(int socket, void* data, std::size_t size, int flags, sockaddr* address,
                           socklen_t* addressSize);
    ssize_t (*send)(int socket, const void* data, std::size_t size, int flags);
    ssize_t (*sendMessage)(int socket, const msghdr* message, int flags);
    /// The number of messages that went, or -1.
    int (*sendMessages)(int socket, mmsghdr* messages, unsigned int count, int flags);
    int (*setSocketOption)(int socket, int level, int name, const void* value, socklen_t size);
    int (*getSocketOption)(int socket, int level, int name, void* value, socklen_t* size);
    int (*socketName)(int socket, sockaddr* address, socklen_t* size);
    int (*peerName)(int socket, sockaddr* address, socklen_t* size);
    int (*pollSockets)(pollfd* sockets, nfds_t count, int milliseconds);
    int (*selectSockets)(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout);
    /// A set of descriptors that the system keeps (epoll): made, changed (EPOLL_CTL_ADD and so on), waited
    /// for.
    int (*createWatchSet)();
    int (*changeWatchSet)(int set, int operation, int descriptor, epoll_event* event);
    /// The number of events, at most `most`; 0 when none came in time; or -1.
    int (*awaitWatchSet)(int set, epoll_event* events, int most, int milliseconds);
    /// A descriptor that poll() finds readable after 8 bytes (an integer above 0) were written to it, until
    /// they are read.
    int (*createWakeDescriptor)();
    /// getaddrinfo and freeaddrinfo.
    int (*resolveName)(const char* name, const char* service, const addrinfo* hints, addrinfo** result);
    void (*freeResolved)(addrinfo* result);

    // Dynamic libraries.
    void* (*openLibrary)(const char* path, int flags);
    void* (*findSymbol)(void* library, const char* name);
    int (*closeLibrary)(void* library);
    /// Why the calling thread's last openLibrary or findSymbol failed; null when none did.
    const char* (*loadError)();
    /// Path of the file that an open library came from, valid while it is open; null when nobody knows.
    const char* (*loadedPath)(void* library);
    /// Path of the running executable, not terminated; its length, or -1 with errno.
    ssize_t (*executablePath)(char* path, std::size_t size);

    // Clocks, in nanoseconds: since an arbitrary start, the same at a tick's precision, and since 1970 in
    // UTC.
    std::int64_t (*monotonicTime)();
    std::int64_t (*coarseTime)();
    std::int64_t (*wallTime)();

    /// Sleeps for the given nanoseconds.
    void (*sleep)(std::int64_t nanoseconds);
    /// Waits while *word == expected, at most the given nanoseconds (negative: without limit). May return
    /// early.
    void (*waitWord)(const std::atomic<std::uint32_t>* word, std::uint32_t expected,
                     std::int64_t nanoseconds);
    /// Wakes at most count threads that wait on the word.
    void (*wakeWord)(const std::atomic<std::uint32_t>* word, int count);

    /// Starts a thread; std::system_error (resource_unavailable_try_again) when there is none to be had.
    std::thread* (*startThread)(std::function<void()> body);

    /// Memory of pools and scratch buffers: null when there is none; release with free.
    void* (*allocate)(std::size_t size);
    /// The same, zeroed: free of charge where the system hands out fresh pages.
    void* (*allocateZeroed)(std::size_t size);
    void (*free)(void* memory);
};

/// The live table. Tests assign to its entries; nothing else does.
extern SystemTable g_system;

inline const SystemTable& System() {
    return g_system;
}

}  // namespace Mivra::Platform
