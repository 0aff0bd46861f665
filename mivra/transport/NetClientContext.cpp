#include "mivra/transport/NetClientContext.h"

#include <sys/socket.h>

#include <cstring>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/WakeEvent.h"
#include "mivra/platform/Relax.h"
#include "mivra/platform/System.h"
#include "mivra/transport/NetNotitications.h"
#include "mivra/transport/NotificationScope.h"

namespace Mivra::Transport {

using Common::AutoLock;
using Common::FileLog;
using Common::LogLine;
using Common::PacketBuffer;

namespace {

constexpr std::int64_t kLook = 1'000'000;  // nanoseconds
constexpr int kSpins = 64;

template <std::size_t size>
std::string textOf(const char (&field)[size]) {
    return {field, ::strnlen(field, size)};
}

bool admit(SendQueue& queue, PacketBuffer* packet) {
    switch (queue.Push(packet)) {
        case SendQueue::Admission::Queued:
            return true;
        case SendQueue::Admission::Full:
            LogLine(FileLog::Warning,
                    "NetClientContext::PushWritePacket: Send queue is too long: allowed %d current %d, "
                    "dropping packet",
                    queue.AllowedBytes(), queue.QueuedBytes());
            return false;
        case SendQueue::Admission::BadSize:
            LogLine(FileLog::Error,
                    "NetClientContext::PushWritePacket: %d bytes in a buffer of %d, dropping packet",
                    packet->ActualSize(), packet->Size());
            return false;
        case SendQueue::Admission::NoMemory:
            LogLine(FileLog::Error, "NetClientContext::PushWritePacket: out of memory, dropping packet");
            return false;
        case SendQueue::Admission::Closed:
            break;
    }
    return false;
}

}  // namespace

NetClientContext::NetClientContext() : freed(std::make_unique<Common::WakeEvent>()) {}

NetClientContext::~NetClientContext() {
    closeSocket(false);
    if (notifications != nullptr) notifications->Release();
    if (notificationsOverride != nullptr) notificationsOverride->Release();
}

void NetClientContext::adopt(const NetConnectionParameters& source) {
    parameters = source;
    protocol = source.protocol;
    if (source.notifications != nullptr) source.notifications->AddRef();
    notifications = source.notifications;
    setRemoteAddress(source.remoteAddress);
    if (source.hasLocalAddress) localAddress = source.localAddress;
    option1 = source.option1;
    option3 = source.option3;
    hostName = textOf(source.hostName);
    serverName = textOf(source.serverName);
    if (source.sendQueueLimit >= 0) sendQueue.SetAllowedBytes(source.sendQueueLimit);
}

sockaddr_in NetClientContext::RemoteAddress() const {
    AutoLock guard(socketLock);
    return remoteAddress;
}

void NetClientContext::setRemoteAddress(const sockaddr_in& address) {
    AutoLock guard(socketLock);
    remoteAddress = address;
}

bool NetClientContext::closeSocket(bool reset) {
    AutoLock guard(socketLock);
    const int descriptor = socket.exchange(InvalidSocket);
    if (descriptor == InvalidSocket) return false;
    if (reset) {
        const linger atOnce{.l_onoff = 1, .l_linger = 0};
        Platform::System().setSocketOption(descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }
    Platform::System().close(descriptor);
    return true;
}

bool NetClientContext::lockUnlessClosing() {
    for (int spin = 0; spin < kSpins; ++spin) {
        if (lock.TryLock()) return true;
        Platform::Relax();
    }
    for (;;) {
        const std::uint32_t seen = freed->Sequence();
        if (lock.TryLock()) return true;
        if (closing) return false;
        freed->Wait(seen, kLook);
    }
}

void NetClientContext::unlock() {
    lock.Unlock();
    freed->Notify();
}

// Locked or not, the queue has a lock of its own.
bool NetClientContext::PushWritePacket(PacketBuffer* packet) MIVRA_NO_THREAD_SAFETY_ANALYSIS {
    const bool inHandler = NotificationScope::Active();
    const bool locked = inHandler ? lock.TryLock() : lockUnlessClosing();
    if (!locked && (!inHandler || closing)) return false;
    // With its line: until the lock goes, the worker takes nothing out.
    const bool queued = admit(sendQueue, packet);
    if (locked) unlock();
    return queued;
}

NetNotitications* NetClientContext::dataReceiver() const {
    return notificationsOverride != nullptr ? notificationsOverride : notifications;
}

void NetClientContext::completeSent() {
    if (!lockUnlessClosing()) return;
    while (PacketBuffer* const packet = sendQueue.PopSent()) {
        // The queue's reference goes back before the call; the last one after it, or nobody could look.
        const bool last = packet->AddRef() == 2;
        packet->Release();
        if (!last) packet->Release();
        if (NetNotitications* const receiver = dataReceiver()) {
            Notify(clientId, [&] { receiver->OnSendCompleted(this, packet); });
        }
        if (last) packet->Release();
    }
    unlock();
}

}  // namespace Mivra::Transport
