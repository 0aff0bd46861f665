// How sockets become clients: connecting, listening, creating contexts.

#include <arpa/inet.h>

#include <cerrno>
#include <new>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/platform/System.h"
#include "mivra/transport/NetNotitications.h"
#include "mivra/transport/SocketGuard.h"
#include "mivra/transport/select/SelectTransport.h"
#include "mivra/transport/select/SelectWorker.h"

namespace Mivra::Transport {

using Common::AutoLock;
using Common::FileLog;
using Common::LogLine;
using Platform::System;

namespace {

constexpr int kBacklog = 10;
constexpr int kConnectMilliseconds = 3000;
constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;
// The test of a multicast group looks at the last number of the address, not at the first.
constexpr unsigned kGroupFirst = 224;
constexpr unsigned kGroupLast = 239;

const sockaddr* generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

template <typename Value>
bool setOption(int socket, int level, int name, const Value& value) {
    return System().setSocketOption(socket, level, name, &value, sizeof value) == 0;
}

bool bindTo(int socket, const sockaddr_in& address) {
    return System().bindSocket(socket, generic(address), sizeof address) == 0;
}

bool isJoined(const sockaddr_in& address) {
    const unsigned last = ntohl(address.sin_addr.s_addr) & 0xFFU;
    return last >= kGroupFirst && last <= kGroupLast;
}

/// Waits for the outcome of a connect under way; what has none yet counts as none. False with errno.
bool awaitConnection(int socket) {
    const std::int64_t end = System().monotonicTime() + kConnectMilliseconds * kNanosecondsPerMillisecond;
    pollfd one{.fd = socket, .events = POLLOUT, .revents = 0};
    int ready = -1;
    for (std::int64_t left = kConnectMilliseconds; left > 0;
         left = (end - System().monotonicTime()) / kNanosecondsPerMillisecond) {
        ready = System().pollSockets(&one, 1, static_cast<int>(left));
        if (ready != -1 || errno != EINTR) break;
    }
    if (ready <= 0) return true;
    int outcome = 0;
    socklen_t size = sizeof outcome;
    if (System().getSocketOption(socket, SOL_SOCKET, SO_ERROR, &outcome, &size) != 0) return false;
    errno = outcome;
    return outcome == 0;
}

bool connectTo(int socket, const sockaddr_in& address) {
    if (address.sin_family != AF_INET) {
        errno = EAFNOSUPPORT;  // to connect to no family would undo a connection
        return false;
    }
    if (System().connectSocket(socket, generic(address), sizeof address) == 0) return true;
    return (errno == EINPROGRESS || errno == EINTR) && awaitConnection(socket);
}

/// Makes a datagram socket a member of the group; false with a line.
bool joinGroup(int socket, const NetConnectionParameters& parameters, const ip_mreq& membership) {
    const int off = 0;
    const int one = 1;
    if (parameters.disableMulticastLoop && !setOption(socket, IPPROTO_IP, IP_MULTICAST_LOOP, off)) {
        LogLine(FileLog::Error, "SelectTransport::Connect: setsockopt(IP_MULTICAST_LOOP) failed: %d", errno);
        return false;
    }
    if (!setOption(socket, IPPROTO_IP, IP_MULTICAST_TTL, one)) {
        LogLine(FileLog::Error, "SelectTransport::Connect: setsockopt(IP_MULTICAST_TTL) failed: %d", errno);
        return false;
    }
    // What is sent to the group leaves by the same interface; a failure shows in the join.
    setOption(socket, IPPROTO_IP, IP_MULTICAST_IF, membership.imr_interface);
    if (!setOption(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership)) {
        LogLine(FileLog::Error, "SelectTransport::Connect: setsockopt(IP_ADD_MEMBERSHIP) failed: %d", errno);
        return false;
    }
    return true;
}

/// A socket bound to one address of this machine would get nothing that is sent to a group, so one that joins
/// a group takes its port on all of them; only groups that it has joined reach it (IP_MULTICAST_ALL).
sockaddr_in bindingOf(const NetConnectionParameters& parameters) {
    sockaddr_in address = parameters.localAddress;
    if (isJoined(parameters.remoteAddress) && IN_MULTICAST(ntohl(parameters.remoteAddress.sin_addr.s_addr))) {
        address.sin_addr.s_addr = htonl(INADDR_ANY);
    }
    return address;
}

void closeWithReset(SocketGuard& socket) {
    setOption(socket.get(), SOL_SOCKET, SO_LINGER, linger{.l_onoff = 1, .l_linger = 0});
    socket.Reset();
}

}  // namespace

bool SelectTransport::Connect(const char* address, int port, NetNotitications* notifications) {
    return NetTransport::Connect(address, port, notifications);
}

bool SelectTransport::Connect(NetConnectionParameters& parameters) {
    if (!started) return false;
    switch (parameters.protocol) {
        case IPPROTO_TCP:
            return connectTcp(parameters);
        case IPPROTO_UDP:
            return connectUdp(parameters);
        default:
            LogLine(FileLog::Error, "SelectTransport::Connect: unsupported protocol %d", parameters.protocol);
            return false;
    }
}

bool SelectTransport::connectTcp(const NetConnectionParameters& parameters) {
    SocketGuard socket(System().createSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    if (!socket) {
        LogLine(FileLog::Error, "SelectTransport::Connect: could not create socket: %d", errno);
        return false;
    }
    if (parameters.hasLocalAddress && !bindTo(socket.get(), parameters.localAddress)) {
        LogLine(FileLog::Error, "SelectTransport::Connect: bind failed: %d", errno);
        return false;
    }
    if (!connectTo(socket.get(), parameters.remoteAddress)) {
        LogLine(FileLog::Debug, "SelectTransport::Connect: connect failed: %d", errno);
        return false;
    }
    return createContext(socket.Detach(), parameters, nullptr);
}

bool SelectTransport::connectUdp(const NetConnectionParameters& parameters) {
    if (!parameters.hasLocalAddress) {
        LogLine(FileLog::Error, "SelectTransport::Connect: local address is not specified");
        return false;
    }
    SocketGuard socket(System().createSocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
    if (!socket) {
        LogLine(FileLog::Error, "SelectTransport::Connect: could not create socket: %d", errno);
        return false;
    }
    setOption(socket.get(), IPPROTO_IP, IP_MULTICAST_ALL, 0);
    if (parameters.reuseAddress && !setOption(socket.get(), SOL_SOCKET, SO_REUSEADDR, 1)) {
        LogLine(FileLog::Error, "SelectTransport::Connect: setsockopt(SO_REUSEADDR) failed: %d", errno);
        return false;
    }
    if (!bindTo(socket.get(), bindingOf(parameters))) return false;
    if (!isJoined(parameters.remoteAddress)) return createContext(socket.Detach(), parameters, nullptr);
    const ip_mreq membership{.imr_multiaddr = parameters.remoteAddress.sin_addr,
                             .imr_interface = parameters.localAddress.sin_addr};
    return joinGroup(socket.get(), parameters, membership) &&
           createContext(socket.Detach(), parameters, &membership);
}

void SelectTransport::setBufferSizes(int socket, const NetConnectionParameters& parameters,
                                     const char* operation) {
    const auto set = [&](int name, const char* text, int size) {
        if (size <= 0) return;
        const int result = System().setSocketOption(socket, SOL_SOCKET, name, &size, sizeof size);
        if (result != 0) {
            LogLine(FileLog::Warning, "SelectTransport::%s: setting of %s failed %d, last error %d",
                    operation, text, result, errno);
        }
    };
    set(SO_RCVBUF, "SO_RCVBUF", parameters.receiveBufferSize);
    set(SO_SNDBUF, "SO_SNDBUF", parameters.sendBufferSize);
}

bool SelectTransport::createContext(int descriptor, const NetConnectionParameters& parameters,
                                    const ip_mreq* membership) {
    SocketGuard socket(descriptor);
    if (!socket || !started) return false;
    ContextPointer context;
    bool assigned = false;
    try {
        AutoLock guard(engineLock);
        if (ending) return false;
        if (maxConnections <= static_cast<std::int64_t>(clients.size())) {
            closeWithReset(socket);
            LogLine(FileLog::Warning,
                    "SelectTransport::createContext: maximum number of connections is reached, new "
                    "connection rejected");
            return false;
        }
        setBufferSizes(socket.get(), parameters, "createContext");
        context = std::make_shared<SelectClientContext>();
        context->adopt(parameters);
        context->joined = membership != nullptr;
        if (membership != nullptr) context->membership = *membership;
        enter(context);
        context->socket = socket.Detach();
        assigned = assign(context);
        if (!assigned) {
            LogLine(FileLog::Error, "SelectTransport::createContext: no suitable thread found");
        }
    } catch (const std::bad_alloc&) {
        LogLine(FileLog::Error, "SelectTransport::createContext: out of memory");
        return false;
    }
    if (!assigned) disconnectClient(context, true, true);
    return assigned;
}

void SelectTransport::enter(const ContextPointer& context) {
    clients.emplace(nextClientId, context);
    context->clientId = nextClientId++;
}

bool SelectTransport::assign(const ContextPointer& context) {
    SelectWorker* best = nullptr;
    for (const auto& worker : workers) {
        if (best != nullptr && worker->ClientCount() >= best->ClientCount()) continue;
        best = worker.get();
        context->worker = worker;
    }
    if (best == nullptr) return false;
    context->workerIndex = best->Index();
    best->Expect();
    try {
        best->Post(SelectWorker::Kind::Take, context->ClientId());
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

int SelectTransport::openListener(const char* address, int port) {
    SocketGuard socket(System().createSocket(AF_INET, SOCK_STREAM, 0));
    if (!socket) {
        LogLine(FileLog::Error, "SelectTransport::Listen: could not create listen socket: %d", errno);
        return NetClientContext::InvalidSocket;
    }
    // A failure shows in bind(), when the port is still in its after-life.
    setOption(socket.get(), SOL_SOCKET, SO_REUSEADDR, 1);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<std::uint16_t>(port));
    const bool valid = port >= 0 && port <= UINT16_MAX &&
                       (address == nullptr || ::inet_pton(AF_INET, address, &local.sin_addr) == 1);
    if (!valid) errno = EINVAL;
    if (!valid || !bindTo(socket.get(), local)) {
        LogLine(FileLog::Error, "SelectTransport::Listen: bind() error: %d", errno);
        return NetClientContext::InvalidSocket;
    }
    if (System().listenSocket(socket.get(), kBacklog) != 0) {
        LogLine(FileLog::Error, "SelectTransport::Listen: listen() error: %d", errno);
        return NetClientContext::InvalidSocket;
    }
    return socket.Detach();
}

bool SelectTransport::Listen(const char* address, int port, NetNotitications* notifications,
                             NetConnectionParameters* parameters) {
    if (!started) return false;
    ContextPointer context;
    try {
        AutoLock guard(engineLock);
        if (ending) return false;
        if (listeners.count(port) != 0) {
            LogLine(FileLog::Error, "SelectTransport::Listen: port %d already opened", port);
            return false;
        }
        SocketGuard socket(openListener(address, port));
        if (!socket) return false;
        context = makeListener(address, port, notifications, parameters);
        listeners.emplace(port, context);
        try {
            enter(context);
        } catch (const std::bad_alloc&) {
            listeners.erase(port);
            throw;
        }
        context->socket = socket.Detach();
        if (assign(context)) return true;
        LogLine(FileLog::Error, "SelectTransport::Listen: no suitable thread found");
    } catch (const std::bad_alloc&) {
        LogLine(FileLog::Error, "SelectTransport::Listen: out of memory");
        return false;
    }
    disconnectClient(context, true, true);
    return false;
}

SelectTransport::ContextPointer SelectTransport::makeListener(const char* address, int port,
                                                              NetNotitications* notifications,
                                                              const NetConnectionParameters* parameters) {
    auto context = std::make_shared<SelectClientContext>();
    if (parameters != nullptr) context->adopt(*parameters);
    context->protocol = IPPROTO_TCP;
    if (notifications != nullptr) notifications->AddRef();
    if (context->notifications != nullptr) context->notifications->Release();
    context->notifications = notifications;
    context->listenAddress = address == nullptr ? "0.0.0.0" : address;
    context->listenPort = port;
    context->isListener = true;
    return context;
}

std::string SelectTransport::Resolve(std::string name) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int result = System().resolveName(name.c_str(), nullptr, &hints, &found);
    if (result != 0) {
        LogLine(FileLog::Debug, "SelectTransport::Resolve: getaddrinfo() failed %d", result);
        return {};
    }
    char text[INET_ADDRSTRLEN] = {};
    for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_family != AF_INET) continue;
        const auto* const address = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
        ::inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
        break;
    }
    System().freeResolved(found);
    return text;
}

}  // namespace Mivra::Transport
