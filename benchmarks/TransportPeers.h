#pragma once

// The servers that the socket engine is measured against: libuv, Asio, and plain loops around epoll and
// select, each on one thread of its own in this process, on a free port of loopback.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// What a server does with a connection: sends back what comes; sends so many packets as a 32-bit number of
/// the client's byte order asks for; closes it as soon as it is there.
enum class Service { Echo, Stream, Close };

/// Packets of a stream that a server which queues may have on their way to one client.
constexpr int kStreamWindow = 256;

class Server {
public:
    virtual ~Server() = default;
    virtual int Port() const = 0;
};

/// Packets of a stream have packetSize bytes.
std::unique_ptr<Server> MakeUvServer(Service service, int packetSize);
std::unique_ptr<Server> MakeAsioServer(Service service, int packetSize);
std::unique_ptr<Server> MakeEpollServer(Service service, int packetSize);
std::unique_ptr<Server> MakeSelectServer(Service service, int packetSize);
