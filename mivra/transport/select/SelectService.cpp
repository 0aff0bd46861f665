// What a worker does with one context: accept, receive, send.

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/platform/System.h"
#include "mivra/transport/NetNotitications.h"
#include "mivra/transport/NotificationScope.h"
#include "mivra/transport/select/DatagramBatch.h"
#include "mivra/transport/select/SelectTransport.h"
#include "mivra/transport/select/SelectWorker.h"

namespace Mivra::Transport {

using Common::FileLog;
using Common::LogLine;
using Common::PacketBuffer;
using Common::Reference;
using Platform::System;

namespace {

// How much of one context is done before the others have their turn.
constexpr int kAccepts = 16;
constexpr int kStreamReceives = 8;
constexpr int kDatagramReceives = 32;
constexpr int kSends = 16;
// Packets that go in one call.
constexpr int kPieces = 128;
constexpr int kDatagramFailures = 10;

bool isNotReady(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ENOBUFS;
}

bool isDatagram(const SelectClientContext& context) {
    return context.Protocol() == IPPROTO_UDP;
}

}  // namespace

/// While handlers of one context run, and its queue is looked at afterwards: what they queue for it need not
/// be looked up nor noted.
class SelectWorker::NotedScope {
public:
    NotedScope(SelectWorker& worker_, const ContextPointer& context_)
        : worker(worker_),
          context(*context_),
          noted(context.sendPosted.exchange(true)),
          outer(std::exchange(worker.serving, &context_)) {}
    ~NotedScope() {
        worker.serving = outer;
        if (!noted) context.sendPosted.exchange(false);
    }
    NotedScope(const NotedScope&) = delete;
    NotedScope& operator=(const NotedScope&) = delete;

private:
    SelectWorker& worker;
    SelectClientContext& context;
    const bool noted;
    const ContextPointer* const outer;
};

void SelectWorker::serve(const ContextPointer& context, unsigned readiness) {
    if (!context->tryTurn()) return;  // somebody is about to disconnect it
    const SelectClientContext::TurnGuard turn(*context);
    if (!context->disconnecting) serveInTurn(context, readiness);
}

void SelectWorker::serveInTurn(const ContextPointer& context, unsigned readiness) {
    if (readiness == SelectClientContext::Unknown) readiness = context->look(context->Socket());
    const auto id = static_cast<int>(context->ClientId());
    if ((readiness & SelectClientContext::Failed) != 0) {
        LogLine(FileLog::Error, "SelectTransport::workerRoutine: client %d select() error: %d", id, errno);
        engine.disconnectClient(context, false, true);
        return;
    }
    if ((readiness & SelectClientContext::Excepted) != 0) {
        LogLine(FileLog::Error, "SelectTransport::workerRoutine: client %d exceptfds error: %d", id, errno);
        engine.disconnectClient(context, false, true);
        return;
    }
    if ((readiness & SelectClientContext::Readable) != 0) {
        if (context->isListener) {
            acceptFrom(*context);
        } else {
            const NotedScope noted(*this, context);
            receiveFrom(context);
        }
    }
    if (context->disconnecting || context->isListener) return;
    if ((readiness & SelectClientContext::Writable) != 0) block(*context, false);
    if (!context->sendBlocked) send(context);
}

// When it alone is ready, to ask the set again costs less than an accept that finds nobody.
void SelectWorker::acceptFrom(SelectClientContext& listener) {
    const int most = readyCount == 1 ? 1 : kAccepts;
    for (int i = 0; i < most; ++i) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        errno = 0;
        const int descriptor =
            System().acceptSocket(listener.Socket(), reinterpret_cast<sockaddr*>(&peer), &size);
        if (descriptor == -1) {
            acceptFailed(listener, errno);
            return;
        }
        accepted(listener, descriptor, peer);
    }
}

void SelectWorker::accepted(SelectClientContext& listener, int descriptor, sockaddr_in peer) {
    busy = true;
    sockaddr_in named{};
    socklen_t size = sizeof named;
    if (System().peerName(descriptor, reinterpret_cast<sockaddr*>(&named), &size) == 0) peer = named;
    NetConnectionParameters parameters;
    parameters.protocol = IPPROTO_TCP;
    parameters.notifications = listener.notifications;
    if (parameters.notifications != nullptr) parameters.notifications->AddRef();
    parameters.remoteAddress = peer;
    engine.createContext(descriptor, parameters, nullptr);
}

void SelectWorker::acceptFailed(SelectClientContext& listener, int error) {
    if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ECONNABORTED) return;
    const auto id = static_cast<int>(listener.ClientId());
    if ((error == EMFILE || error == ENFILE) && spare) {
        spare.Reset();
        const int refused = System().acceptSocket(listener.Socket(), nullptr, nullptr);
        if (refused != -1) {
            const linger atOnce{.l_onoff = 1, .l_linger = 0};
            System().setSocketOption(refused, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
            System().close(refused);
            LogLine(FileLog::Warning,
                    "SelectTransport::workerRoutine: listener %d out of descriptors: %d, new connection "
                    "rejected",
                    id, error);
        }
    } else {
        LogLine(FileLog::Error, "SelectTransport::workerRoutine: listener %d accept error: %d", id, error);
    }
    if (!spare) spare.Reset(System().open("/dev/null", O_RDONLY, 0));
    mute(listener);  // the connection may still wait, and the set would tell of it at once
}

void SelectWorker::receiveFrom(const ContextPointer& context) {
    const int most = isDatagram(*context) ? kDatagramReceives : kStreamReceives;
    for (int i = 0; i < most; ++i) {
        if (!receiveOnce(context)) return;
    }
}

/// Whether there may be more.
bool SelectWorker::receiveOnce(const ContextPointer& context) {
    Reference<PacketBuffer> packet =
        Reference<PacketBuffer>::Adopt(engine.allocator->LockBuffer(!context->starved));
    context->starved = !packet;
    if (!packet) {
        mute(*context);  // what came waits in the socket
        return false;
    }
    const auto capacity = static_cast<std::size_t>(packet->Size());
    const bool datagram = isDatagram(*context);
    ssize_t count;
    errno = 0;
    if (datagram) {
        auto addressSize = static_cast<socklen_t>(sizeof(sockaddr_in));
        count = System().receiveFrom(context->Socket(), packet->Buffer(), capacity, 0,
                                     reinterpret_cast<sockaddr*>(&packet->RemoteAddr()), &addressSize);
        packet->RemoteAddrLen() = static_cast<int>(addressSize);
        packet->LocalAddr() = context->localAddress;
    } else {
        count = System().receive(context->Socket(), packet->Buffer(), capacity, 0);
    }
    if (count <= 0) {
        const int error = errno;
        packet = {};
        return receiveFailed(context, error);
    }
    busy = true;
    if (context->receiveErrorCount.load(std::memory_order_relaxed) != 0) context->receiveErrorCount = 0;
    packet->ActualSize() = static_cast<int>(count);
    if (context->lockUnlessClosing()) {
        if (NetNotitications* const receiver = context->dataReceiver()) {
            Notify(context->ClientId(), [&] { receiver->OnDataReceived(context.get(), packet.get()); });
        }
        context->unlock();
    }
    return !context->disconnecting && (datagram || static_cast<std::size_t>(count) == capacity);
}

/// What a receive without data means: the end of a stream, and the tenth failure of datagrams in a row, of
/// which an empty datagram is one. Whether there may be more.
bool SelectWorker::receiveFailed(const ContextPointer& context, int error) {
    if (isNotReady(error)) {
        if (error == ENOBUFS) mute(*context);
        return false;
    }
    if (isDatagram(*context) && ++context->receiveErrorCount < kDatagramFailures) return true;
    LogLine(FileLog::Error, "SelectTransport::workerRoutine: client %d receive error: %d",
            static_cast<int>(context->ClientId()), error);
    engine.disconnectClient(context, false, true);
    return false;
}

void SelectWorker::send(const ContextPointer& context) {
    for (int i = 0; i < kSends; ++i) {
        if (!sendOnce(context)) return;
    }
    sendAgain(context);
}

/// Whether there may be more to send, and room for it.
bool SelectWorker::sendOnce(const ContextPointer& context) {
    iovec pieces[kPieces];
    const bool datagram = isDatagram(*context);
    const int count = context->sendQueue.Gather(pieces, datagram ? DatagramBatch::Capacity : kPieces);
    if (count == 0) return false;
    errno = 0;
    Progress progress;
    {
        const NotedScope noted(*this, context);
        progress = datagram ? sendDatagrams(*context, pieces, count) : sendStream(*context, pieces, count);
    }
    if (context->disconnecting) return false;  // by a handler
    switch (progress) {
        case Progress::Some:
            busy = true;
            return true;
        case Progress::Blocked:
            block(*context, true);
            return false;
        case Progress::Later:
            if (!context->sendPosted.exchange(true)) later.push_back(context);
            return false;
        case Progress::Failed:
            break;
    }
    LogLine(FileLog::Error, "SelectTransport::workerRoutine: client %d send error: %d",
            static_cast<int>(context->ClientId()), errno);
    engine.disconnectClient(context, false, true);
    return false;
}

namespace {

/// What a failed send means.
template <typename Progress>
Progress progressOf(int error) {
    if (error == EAGAIN || error == EWOULDBLOCK) return Progress::Blocked;
    if (error == EINTR) return Progress::Some;
    return error == ENOBUFS ? Progress::Later : Progress::Failed;
}

}  // namespace

SelectWorker::Progress SelectWorker::sendStream(SelectClientContext& context, iovec* pieces, int count) {
    ssize_t sent;
    if (count == 1) {
        sent = System().send(context.Socket(), pieces->iov_base, pieces->iov_len, 0);
    } else {
        msghdr message{};
        message.msg_iov = pieces;
        message.msg_iovlen = static_cast<std::size_t>(count);
        sent = System().sendMessage(context.Socket(), &message, 0);
    }
    if (sent < 0) return progressOf<Progress>(errno);
    std::size_t wanted = 0;
    for (int i = 0; i < count; ++i)
        wanted += pieces[i].iov_len;
    if (context.sendQueue.Advance(static_cast<std::size_t>(sent))) context.completeSent();
    return static_cast<std::size_t>(sent) < wanted ? Progress::Blocked : Progress::Some;
}

SelectWorker::Progress SelectWorker::sendDatagrams(SelectClientContext& context, iovec* pieces, int count) {
    DatagramBatch batch(context.RemoteAddress());
    const auto attempt = [&] {
        batch.Fill(pieces, count, context.segmentsDatagrams);
        return System().sendMessages(context.Socket(), batch.Messages(), static_cast<unsigned>(batch.Count()),
                                     0);
    };
    int sent = attempt();
    if (sent < 0 && batch.IsSegmented() && progressOf<Progress>(errno) >= Progress::Later) {
        context.segmentsDatagrams = false;  // the way there, or the socket's buffer, takes no long messages
        sent = attempt();
    }
    if (sent < 0) return progressOf<Progress>(errno);
    if (context.sendQueue.AdvancePackets(batch.PacketsOf(sent))) context.completeSent();
    return Progress::Some;
}

void SelectWorker::sendAgain(const ContextPointer& context) {
    if (!context->sendPosted.exchange(true)) toSend.push_back(context);
}

}  // namespace Mivra::Transport
