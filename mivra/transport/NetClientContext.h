#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"
#include "mivra/transport/NetConnectionParameters.h"
#include "mivra/transport/SendQueue.h"

namespace Mivra::Common {
class PacketBuffer;
class WakeEvent;
}  // namespace Mivra::Common

namespace Mivra::Transport {

class NetNotitications;

/// One connection, or one listening port, of an engine, which owns it. Handlers get it as a pointer that is
/// valid during the call; what threads share is answered by value and may be asked by any thread then.
class MIVRA_API NetClientContext {
public:
    static constexpr int InvalidSocket = -1;

    NetClientContext();
    NetClientContext(const NetClientContext&) = delete;
    NetClientContext& operator=(const NetClientContext&) = delete;
    /// Gives back what is queued and the references on notifications.
    virtual ~NetClientContext();

    /// From 1 on, in the order of registration; never reused by an engine.
    unsigned int ClientId() const { return clientId; }
    std::int32_t Protocol() const { return protocol; }
    /// The peer; for UDP where datagrams go.
    sockaddr_in RemoteAddress() const MIVRA_EXCLUDES(socketLock);
    /// Zeros when the parameters have none.
    const sockaddr_in& LocalAddress() const { return localAddress; }
    std::int32_t& Option1() { return option1; }
    /// Receiver of all events. To be touched in a handler of this context only; who assigns one of the two
    /// adds a reference to the new and gives back the former's.
    NetNotitications*& Notifications() { return notifications; }
    /// When set, receiver of OnDataReceived and OnSendCompleted in place of the other.
    NetNotitications*& NotificationsOverride() { return notificationsOverride; }
    /// Held around OnDataReceived and OnSendCompleted; senders look for it every millisecond.
    Common::CritSec& Lock() MIVRA_NO_THREAD_SAFETY_ANALYSIS { return lock; }
    /// A look at what waits to be sent; without references.
    std::vector<Common::PacketBuffer*> SendQueue() const { return sendQueue.Packets(); }
    /// Bytes that wait; a packet counts whole until it has been sent whole.
    std::int32_t QueuedBytes() const { return sendQueue.QueuedBytes(); }
    std::int32_t AllowedQueueBytes() const { return sendQueue.AllowedBytes(); }
    /// Once true, senders no longer wait for the lock.
    bool Closing() const { return closing; }
    bool IsListener() const { return isListener; }
    /// The port as it was asked for, and the address in dotted form ("0.0.0.0" when none was given).
    std::int32_t ListenPort() const { return listenPort; }
    const std::string& ListenAddress() const { return listenAddress; }
    /// The descriptor, or InvalidSocket.
    int Socket() const { return socket; }
    /// What it was created from.
    const NetConnectionParameters& Parameters() const { return parameters; }
    const std::string& HostName() const { return hostName; }
    const std::string& ServerName() const { return serverName; }
    bool& Option3() { return option3; }
    /// Failed UDP receives in a row.
    std::int32_t ReceiveErrorCount() const { return receiveErrorCount; }

    /// Queues a packet, taking a reference, after having waited for the lock; false when the queue is too
    /// long (with a line at level 2), the packet's size is none (level 1) or the context closes. On a thread
    /// that runs a handler it does not wait.
    bool PushWritePacket(Common::PacketBuffer* packet);

protected:
    /// Takes over protocol, notifications (referenced), addresses, options and strings; a queue limit from 0
    /// up replaces the default.
    void adopt(const NetConnectionParameters& source);
    void setRemoteAddress(const sockaddr_in& address) MIVRA_EXCLUDES(socketLock);
    /// Runs a socket call that must not meet the closing of the socket; false when there is none any more.
    template <typename Call>
    bool withSocket(Call call) MIVRA_EXCLUDES(socketLock) {
        Common::AutoLock guard(socketLock);
        if (socket == InvalidSocket) return false;
        call(socket.load());
        return true;
    }
    /// Closes the socket once and marks it invalid; reset: so that the peer is told that the connection
    /// broke.
    bool closeSocket(bool reset) MIVRA_EXCLUDES(socketLock);
    /// Takes the lock with TryLock, at most 1 ms apart; false when the context closes meanwhile.
    bool lockUnlessClosing() MIVRA_TRY_ACQUIRE(true, lock);
    /// Gives the lock back and tells those who wait for it.
    void unlock() MIVRA_RELEASE(lock);
    /// Takes packets that have been written whole out of the queue and calls OnSendCompleted for each; the
    /// worker's.
    void completeSent();
    /// The receiver of OnDataReceived and OnSendCompleted.
    NetNotitications* dataReceiver() const;

    unsigned int clientId = 0;
    std::int32_t protocol = 0;
    sockaddr_in remoteAddress MIVRA_GUARDED_BY(socketLock) = {};
    sockaddr_in localAddress{};
    std::int32_t option1 = 0;
    NetNotitications* notifications = nullptr;
    NetNotitications* notificationsOverride = nullptr;
    Common::CritSec lock;
    Transport::SendQueue sendQueue;
    std::atomic<bool> closing{false};
    bool isListener = false;
    std::int32_t listenPort = 0;
    std::string listenAddress;
    std::atomic<int> socket{InvalidSocket};
    NetConnectionParameters parameters;
    std::string hostName;
    std::string serverName;
    bool option3 = false;
    std::atomic<std::int32_t> receiveErrorCount{0};

    // Guards the peer's address and the end of the socket; a leaf.
    mutable Common::CritSec socketLock;
    // The lock, or the worker's turn with this context, has become free.
    std::unique_ptr<Common::WakeEvent> freed;
};

}  // namespace Mivra::Transport
