// How a client ends, whoever ends it.

#include <cerrno>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/WakeEvent.h"
#include "mivra/platform/System.h"
#include "mivra/transport/NetNotitications.h"
#include "mivra/transport/NotificationScope.h"
#include "mivra/transport/select/SelectTransport.h"
#include "mivra/transport/select/SelectWorker.h"

namespace Mivra::Transport {

using Common::AutoLock;
using Common::FileLog;
using Common::LogLine;

namespace {

constexpr std::int64_t kLook = 1'000'000;  // nanoseconds
constexpr int kLooksForAll = 100;

}  // namespace

void SelectTransport::disconnectClient(const ContextPointer& context, bool wait, bool notify) {
    if (context == nullptr) {
        LogLine(FileLog::Warning, "SelectTransport::disconnectClient: client context is NULL");
        return;
    }
    Turn turn = Turn::Gone;
    if (context->Socket() != NetClientContext::InvalidSocket) {
        context->closing = true;
        turn = takeTurn(*context, wait && !NotificationScope::Active());
    }
    if (turn == Turn::Taken) {
        const SelectClientContext::TurnGuard guard(*context);
        // It may have ended meanwhile, or this is a handler of its end.
        if (context->Socket() != NetClientContext::InvalidSocket && !context->disconnecting.exchange(true)) {
            tearDown(context, notify);
            return;
        }
    } else if (turn == Turn::Busy) {
        using enum SelectWorker::Kind;
        if (context->worker == nullptr) return;  // who has the turn is at it
        try {
            context->worker->Post(notify ? Disconnect : DisconnectQuietly, context->ClientId());
        } catch (const std::bad_alloc&) {
            LogLine(FileLog::Error, "SelectTransport::disconnectClient: out of memory");
        }
        return;
    }
    LogLine(FileLog::Warning, "SelectTransport::disconnectClient: client %d socket is closed already",
            static_cast<int>(context->ClientId()));
}

SelectTransport::Turn SelectTransport::takeTurn(SelectClientContext& context, bool wait) {
    for (;;) {
        const std::uint32_t seen = context.freed->Sequence();
        if (context.tryTurn()) return Turn::Taken;
        if (context.Socket() == NetClientContext::InvalidSocket) return Turn::Gone;
        if (!wait) return Turn::Busy;
        context.freed->Wait(seen, kLook);
    }
}

void SelectTransport::tearDown(const ContextPointer& context, bool notify) {
    // The handlers may take long, and its worker would be told of it all the time.
    if (context->worker != nullptr) context->worker->Unwatch(*context);
    NetNotitications* const receiver = notify && !context->isListener ? context->notifications : nullptr;
    if (receiver != nullptr) {
        Notify(context->ClientId(), [&] { receiver->OnClientDisconnecting(context.get()); });
    }
    if (context->joined) {
        context->withSocket([&](int socket) {
            if (Platform::System().setSocketOption(socket, IPPROTO_IP, IP_DROP_MEMBERSHIP,
                                                   &context->membership, sizeof context->membership) != 0) {
                LogLine(FileLog::Debug,
                        "SelectTransport::disconnectClient: setsockopt(IP_DROP_MEMBERSHIP) failed: %d",
                        errno);
            }
        });
    }
    if (context->worker != nullptr) context->worker->Forget(*context);
    context->closeSocket(false);
    context->sendQueue.Close();
    if (receiver != nullptr) {
        Notify(context->ClientId(), [&] { receiver->OnClientReleased(context.get()); });
    }
    forget(context);
}

void SelectTransport::forget(const ContextPointer& context) {
    const auto id = static_cast<int>(context->ClientId());
    bool known;
    {
        AutoLock guard(engineLock);
        known = clients.erase(context->ClientId()) != 0;
        if (context->isListener) {
            const auto listener = listeners.find(context->listenPort);
            if (listener != listeners.end() && listener->second == context) listeners.erase(listener);
        }
    }
    if (known) {
        LogLine(FileLog::Debug, "SelectTransport::disconnectClient: releasing context %d, %p", id,
                static_cast<void*>(context.get()));
    } else if (context->isListener) {
        LogLine(FileLog::Debug, "SelectTransport::disconnectClient: listener %d is deleted already", id);
    } else {
        LogLine(FileLog::Debug, "SelectTransport::disconnectClient: client %d is deleted already", id);
    }
    contextGone->Notify();
}

void SelectTransport::DisconnectClient(unsigned int clientId, bool notify) {
    disconnectClient(find(clientId), true, notify);
}

void SelectTransport::DisconnectClientAsync(unsigned int clientId, bool notify) {
    const ContextPointer context = find(clientId);
    if (context == nullptr || context->worker == nullptr) {
        disconnectClient(context, false, notify);
        return;
    }
    // Otherwise the worker sees to it that nobody is told.
    if (!notify && context->tryTurn()) {
        const SelectClientContext::TurnGuard guard(*context);
        if (context->lock.TryLock()) {
            if (context->retireNotifications()) {
                LogLine(FileLog::Debug,
                        "SelectTransport::DisconnectClientAsync: client %d releasing notifications",
                        static_cast<int>(clientId));
            }
            context->unlock();
        }
    }
    try {
        context->worker->Post(notify ? SelectWorker::Kind::Disconnect : SelectWorker::Kind::DisconnectQuietly,
                              clientId);
    } catch (const std::bad_alloc&) {
        disconnectClient(context, true, notify);
    }
}

void SelectTransport::DisconnectAll() {
    std::uint32_t last = 0;
    while (const ContextPointer context = next(last)) {
        last = context->ClientId();
        disconnectClient(context, false, true);
    }
    if (NotificationScope::Active()) return;
    // Those that were being served are now their workers' to end.
    for (int look = 0; look < kLooksForAll; ++look) {
        const std::uint32_t seen = contextGone->Sequence();
        const ContextPointer first = next(0);
        if (first == nullptr || first->ClientId() > last) return;
        contextGone->Wait(seen, kLook);
    }
}

bool SelectTransport::StopListen(int port) {
    ContextPointer context;
    {
        AutoLock guard(engineLock);
        const auto listener = listeners.find(port);
        if (listener != listeners.end()) {
            context = listener->second;
            listeners.erase(listener);
        }
    }
    if (context == nullptr) {
        LogLine(FileLog::Error, "SelectTransport::StopListen: port %d not opened", port);
        return false;
    }
    disconnectClient(context, true, true);
    return true;
}

}  // namespace Mivra::Transport
