#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>

#include "mivra/common/runtime/Export.h"
#include "mivra/transport/NetConnectionParameters.h"

namespace Mivra::Common {
class PacketBuffer;
}

namespace Mivra::Transport {

class NetNotitications;

/// A socket engine: workers that carry packets between sockets and notifications. Made and destroyed by the
/// application. Every connection, accepted or outgoing, is a client with a number; ports that are listened to
/// are too. Any thread may call any operation, handlers included, but Shutdown, which waits for the workers.
/// Nothing is thrown: what fails answers false and writes one line to the log.
class MIVRA_API NetTransport {
public:
    /// What an engine may count of one connection.
    struct NetTransportStat {
        std::uint64_t bytesReceived = 0;
        std::uint64_t bytesSent = 0;
        std::int32_t queuedBytes = 0;
        std::int32_t queuedPackets = 0;
    };

    NetTransport() = default;
    NetTransport(const NetTransport&) = delete;
    NetTransport& operator=(const NetTransport&) = delete;
    virtual ~NetTransport();

    /// The pool of receive buffers: bytes of each, and how many; from the next Start on.
    virtual void SetAllocator(int bufferSize, int bufferCount) = 0;
    /// Worker threads; from the next Start on.
    virtual void SetWorkerCount(int count) = 0;
    virtual bool Start() = 0;
    /// Disconnects everybody and joins the workers; Start may follow.
    virtual void Shutdown() = 0;
    /// Makes a connection as the record says. True: it has become a client, and OnClientConnected follows.
    virtual bool Connect(NetConnectionParameters& parameters) = 0;
    /// TCP to a dotted IPv4 address, with default parameters. Engines share this implementation.
    virtual bool Connect(const char* address, int port, NetNotitications* notifications) = 0;
    /// Accepts TCP connections to a dotted IPv4 address of this machine (null: all of them). The clients get
    /// the notifications; the parameters, which may be null, stay with the listener.
    virtual bool Listen(const char* address, int port, NetNotitications* notifications,
                        NetConnectionParameters* parameters) = 0;
    /// Ends listening; accepted clients stay.
    virtual bool StopListen(int port) = 0;
    /// Queues a packet for a client, with a reference of the engine's own, and sets its Position to 0. False:
    /// not started, null or of no valid size, no such client, or its queue is full; the packet stays with
    /// the caller.
    virtual bool SendAsync(unsigned int clientId, Common::PacketBuffer* packet) = 0;
    /// Changes what can be changed of a connection: its remote address (when that has a family), the sizes of
    /// its socket's buffers (above 0), the limit of its queue (from 0 up).
    virtual void Update(unsigned int clientId, NetConnectionParameters& parameters) = 0;
    /// Ends a connection; notify false: without notifications. When it returns, the socket is closed, unless
    /// another thread is in a handler of the client and this thread is in one too: then it closes after that.
    virtual void DisconnectClient(unsigned int clientId, bool notify) = 0;
    /// The same, by the client's worker, as soon as it gets to it.
    virtual void DisconnectClientAsync(unsigned int clientId, bool notify) = 0;
    /// Ends all connections and listening ports; those in a handler of another thread soon after it returns.
    virtual void DisconnectAll() = 0;
    /// Datagrams of the client go to another address from now on. False for an unknown client.
    virtual bool SetRemoteFilter(unsigned int clientId, sockaddr_in& address) = 0;
    /// Null where the engine counts nothing.
    virtual std::shared_ptr<NetTransportStat> GetStatistics(unsigned int clientId) = 0;
};

}  // namespace Mivra::Transport
