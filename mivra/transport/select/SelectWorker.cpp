#include "mivra/transport/select/SelectWorker.h"

#include <fcntl.h>

#include <cerrno>
#include <exception>
#include <utility>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/platform/System.h"
#include "mivra/transport/NetNotitications.h"
#include "mivra/transport/NotificationScope.h"
#include "mivra/transport/select/SelectTransport.h"

namespace Mivra::Transport {

using Common::AutoLock;
using Common::FileLog;
using Common::LogLine;
using Platform::System;

namespace {

constexpr int kIdleMilliseconds = 10;
constexpr std::uint32_t kNoClient = 0;  // the wake descriptor's id in the set
constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;

constinit thread_local SelectWorker* s_current = nullptr;

}  // namespace

SelectWorker::SelectWorker(SelectTransport& engine_, int index_) : engine(engine_), index(index_) {}

SelectWorker::~SelectWorker() = default;

SelectWorker* SelectWorker::Current() noexcept {
    return s_current;
}

bool SelectWorker::Start() {
    wakeDescriptor.Reset(System().createWakeDescriptor());
    if (!wakeDescriptor) return false;
    spare.Reset(System().open("/dev/null", O_RDONLY, 0));
    watchSet.Reset(System().createWatchSet());
    epoll_event event{.events = EPOLLIN, .data = {.u64 = kNoClient}};
    if (watchSet &&
        System().changeWatchSet(watchSet.get(), EPOLL_CTL_ADD, wakeDescriptor.get(), &event) != 0) {
        watchSet.Reset();
    }
    thread.reset(System().startThread([this] { run(); }));
    return true;
}

void SelectWorker::Join() {
    if (thread != nullptr) {
        Wake();
        thread->join();
        thread.reset();
    }
    orders.clear();
    for (auto* list : {&toSend, &sending, &later})
        list->clear();
    std::map<std::uint32_t, ContextPointer> left;
    std::vector<ContextPointer> unsent;
    AutoLock guard(lock);
    joined = true;
    left.swap(clients);
    unsent.swap(posted);
    commands.clear();
}

void SelectWorker::Post(Kind kind, std::uint32_t clientId) {
    {
        AutoLock guard(lock);
        commands.push_back({kind, clientId});
    }
    Wake();
}

bool SelectWorker::Queue(const ContextPointer& context, Common::PacketBuffer* packet) {
    if (context->Socket() == NetClientContext::InvalidSocket || !context->PushWritePacket(packet))
        return false;
    if (SelectWorker* const worker = context->worker.get()) worker->postSend(context);
    return true;
}

void SelectWorker::postSend(const ContextPointer& context) noexcept {
    if (context->sendPosted.load() || context->sendPosted.exchange(true)) return;
    try {
        if (s_current == this) {
            toSend.push_back(context);
            return;
        }
        AutoLock guard(lock);
        if (joined) return;  // it and the context would keep each other alive
        posted.push_back(context);
    } catch (const std::bad_alloc&) {
        lookForSends = true;
    }
    Wake();
}

// Either this thread sees the worker waiting, or the worker sees before it waits that there is work.
void SelectWorker::Wake() noexcept {
    hasWork = true;
    if (waiting.load() && !woken.exchange(true)) {
        const std::uint64_t one = 1;
        // A counter that is full wakes as well.
        static_cast<void>(System().write(wakeDescriptor.get(), &one, sizeof one));
    }
}

void SelectWorker::Unwatch(SelectClientContext& context) noexcept {
    if (!context.inSet) return;
    epoll_event event{};
    System().changeWatchSet(watchSet.get(), EPOLL_CTL_DEL, context.Socket(), &event);
    context.inSet = false;
}

void SelectWorker::Forget(const SelectClientContext& context) noexcept {
    {
        // The pointer must not be the last one, which its caller has.
        AutoLock guard(lock);
        clients.erase(context.ClientId());
    }
    --clientCount;
}

void SelectWorker::run() noexcept {
    s_current = this;
    LogLine(FileLog::Debug, "SelectTransport::workerRoutine: worker thread %d started", index);
    while (engine.started) {
        try {
            pass();
        } catch (const std::exception& error) {
            LogLine(FileLog::Error, "SelectTransport::workerRoutine: worker thread %d: %s", index,
                    error.what());
            lookForSends = true;
            hasWork = true;
            System().sleep(kIdleMilliseconds * kNanosecondsPerMillisecond);
        }
    }
    LogLine(FileLog::Debug, "SelectTransport::workerRoutine: worker thread %d finished", index);
}

void SelectWorker::pass() {
    takeCommands();
    flushPosted();
    flushUnposted();
    readyCount = wait();
    if (readyCount < 0) {
        lookAtAll();
        return;
    }
    lookAtUnwatched();
    serveReady();
}

void SelectWorker::takeCommands() {
    if (!hasWork.exchange(false) && orders.empty()) return;
    {
        AutoLock guard(lock);
        orders.insert(orders.end(), commands.begin(), commands.end());
        commands.clear();
        toSend.insert(toSend.end(), posted.begin(), posted.end());
        posted.clear();
    }
    // One that throws is obeyed in the next pass.
    for (; nextOrder < orders.size(); ++nextOrder)
        obey(orders[nextOrder]);
    nextOrder = 0;
    orders.clear();
}

void SelectWorker::obey(const Command& command) {
    const ContextPointer context = engine.find(command.clientId);
    if (context == nullptr) return;
    if (!context->tryTurn()) {
        // Another thread is about to disconnect it, or has it for a moment.
        if (!context->disconnecting) Post(command.kind, command.clientId);
        return;
    }
    const SelectClientContext::TurnGuard turn(*context);
    if (context->disconnecting) return;
    if (command.kind == Kind::Take) {
        adopt(context);
    } else {
        disconnect(context, command.kind);
    }
}

void SelectWorker::adopt(const ContextPointer& context) {
    {
        AutoLock guard(lock);
        clients.emplace(context->ClientId(), context);
    }
    NetNotitications* const receiver = context->notifications;
    if (!context->isListener && receiver != nullptr) {
        Notify(context->ClientId(), [&] { receiver->OnClientConnected(context.get()); });
    }
    if (!context->disconnecting) watch(*context);
}

void SelectWorker::disconnect(const ContextPointer& context, Kind kind) {
    if (!context->sendBlocked && !context->isListener) send(context);  // what was queued before
    if (!context->disconnecting) engine.disconnectClient(context, false, kind == Kind::Disconnect);
}

void SelectWorker::flushPosted() {
    sending.swap(toSend);
    for (const ContextPointer& context : sending) {
        context->sendPosted.exchange(false);
        flush(context);
    }
    sending.clear();
}

// After memory was short: a context that could not be noted stands as noted, and would never be again.
void SelectWorker::flushUnposted() {
    if (!lookForSends.exchange(false)) return;
    for (ContextPointer context = next(0); context != nullptr; context = next(context->ClientId())) {
        context->sendPosted = false;
        flush(context);
    }
}

void SelectWorker::flush(const ContextPointer& context) {
    if (context->sendBlocked || context->isListener) return;  // what is queued to a listener stays there
    if (!context->tryTurn()) {
        if (!context->disconnecting) sendAgain(context);
        return;
    }
    const SelectClientContext::TurnGuard turn(*context);
    if (!context->disconnecting) send(context);
}

/// Events that came; -1 when there is no set, or it fails.
int SelectWorker::wait() {
    waiting = true;
    const bool idle = toSend.empty() && orders.empty() && !lookSoon && !hasWork.load();
    int ready = -1;
    if (watchSet) {
        ready = System().awaitWatchSet(watchSet.get(), events.data(), static_cast<int>(events.size()),
                                       idle ? kIdleMilliseconds : 0);
        if (ready < 0 && errno == EINTR) ready = 0;
    }
    waiting = false;
    lookSoon = false;
    toSend.insert(toSend.end(), later.begin(), later.end());
    later.clear();
    return ready;
}

void SelectWorker::serveReady() {
    for (int i = 0; i < readyCount; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        if (event.data.u64 == kNoClient) {
            std::uint64_t count;
            static_cast<void>(System().read(wakeDescriptor.get(), &count, sizeof count));
            woken = false;
            continue;
        }
        unsigned readiness = 0;
        if ((event.events & EPOLLPRI) != 0) {
            readiness = SelectClientContext::Unknown;
        } else {
            if ((event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
                readiness |= SelectClientContext::Readable;
            }
            if ((event.events & EPOLLOUT) != 0) readiness |= SelectClientContext::Writable;
        }
        // It may have gone meanwhile; ids do not come again.
        if (const ContextPointer context = find(static_cast<std::uint32_t>(event.data.u64))) {
            serve(context, readiness);
        }
    }
}

// Without the set: every socket by itself, and a sleep when there was nothing.
void SelectWorker::lookAtAll() {
    busy = false;
    for (ContextPointer context = next(0); context != nullptr; context = next(context->ClientId()))
        serve(context, SelectClientContext::Unknown);
    if (!busy && !hasWork) System().sleep(kIdleMilliseconds * kNanosecondsPerMillisecond);
}

// Those that the set did not take, and those that were to be left out of one wait.
void SelectWorker::lookAtUnwatched() {
    if (!std::exchange(anyUnwatched, false)) return;
    busy = false;
    for (ContextPointer context = next(0); context != nullptr; context = next(context->ClientId())) {
        if (!context->tryTurn()) {
            anyUnwatched = true;
            continue;
        }
        const SelectClientContext::TurnGuard turn(*context);
        if (!context->disconnecting && !context->watched && !watch(*context)) {
            serveInTurn(context, SelectClientContext::Unknown);
        }
    }
    lookSoon = busy;
}

SelectWorker::ContextPointer SelectWorker::find(std::uint32_t clientId) {
    AutoLock guard(lock);
    const auto found = clients.find(clientId);
    return found == clients.end() ? nullptr : found->second;
}

SelectWorker::ContextPointer SelectWorker::next(std::uint32_t clientId) {
    AutoLock guard(lock);
    const auto found = clients.upper_bound(clientId);
    return found == clients.end() ? nullptr : found->second;
}

/// Tells the set what to look for; false when it does not take the socket.
bool SelectWorker::watch(SelectClientContext& context) noexcept {
    epoll_event event{.events = EPOLLIN | EPOLLPRI | (context.sendBlocked ? unsigned{EPOLLOUT} : 0U),
                      .data = {.u64 = context.ClientId()}};
    context.watched =
        watchSet && System().changeWatchSet(watchSet.get(), context.inSet ? EPOLL_CTL_MOD : EPOLL_CTL_ADD,
                                            context.Socket(), &event) == 0;
    if (context.watched) {
        context.inSet = true;
    } else {
        anyUnwatched = true;
    }
    return context.watched;
}

void SelectWorker::block(SelectClientContext& context, bool blocked) noexcept {
    if (context.sendBlocked == blocked) return;
    context.sendBlocked = blocked;
    if (context.inSet) watch(context);
}

void SelectWorker::mute(SelectClientContext& context) noexcept {
    Unwatch(context);
    context.watched = false;
    anyUnwatched = true;
}

}  // namespace Mivra::Transport
