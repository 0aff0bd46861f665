#include "mivra/transport/select/SelectWorker.h"

#include <fcntl.h>

#include <cerrno>
#include <climits>
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
constexpr std::size_t kManySockets = 16;
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
    for (auto* list : {&toSend, &sending, &later, &table})
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

void SelectWorker::PostSend(ContextPointer context) noexcept {
    if (context->sendPosted.load() || context->sendPosted.exchange(true)) return;
    try {
        if (s_current == this) {
            toSend.push_back(std::move(context));
            return;
        }
        AutoLock guard(lock);
        if (joined) return;  // it and the context would keep each other alive
        posted.push_back(std::move(context));
    } catch (const std::bad_alloc&) {
        lookForSends = true;
    }
    Wake();
}

// Either this thread sees the worker in its poll(), or the worker sees before it that there is work.
void SelectWorker::Wake() noexcept {
    hasWork = true;
    if ((pollSequence.load() & 1) != 0 && !woken.exchange(true)) {
        const std::uint64_t one = 1;
        // A counter that is full wakes as well.
        static_cast<void>(System().write(wakeDescriptor.get(), &one, sizeof one));
    }
}

void SelectWorker::Forget(const SelectClientContext& context) noexcept {
    {
        // The pointer must not be the last one, which its caller has.
        AutoLock guard(lock);
        clients.erase(context.ClientId());
        ++version;
    }
    --clientCount;
    if (s_current == this) return;
    const std::uint32_t seen = pollSequence.load();
    if ((seen & 1) == 0) return;
    ++forgetters;
    Wake();
    while (pollSequence.load() == seen) {
        System().waitWord(&pollSequence, seen, kNanosecondsPerMillisecond);
    }
    --forgetters;
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
    refreshTable();
    flushUnposted();
    const int ready = wait();
    unmute();
    if (ready > 0) {
        serveReady(ready);
    } else if (ready < 0) {
        lookAtAll();
    }
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
        ++version;
    }
    NetNotitications* const receiver = context->notifications;
    if (context->isListener || receiver == nullptr) return;
    Notify(context->ClientId(), [&] { receiver->OnClientConnected(context.get()); });
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
    for (const ContextPointer& context : table) {
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

void SelectWorker::refreshTable() {
    if (version.load() == tableVersion) return;
    std::vector<ContextPointer> former;
    std::uint32_t current;
    {
        AutoLock guard(lock);
        current = version;
        former.swap(table);
        table.reserve(clients.size());
        for (const auto& [id, context] : clients)
            table.push_back(context);
    }
    polled.resize(table.size() + 1);
    polled[0] = {.fd = wakeDescriptor.get(), .events = POLLIN, .revents = 0};
    for (std::size_t i = 0; i < table.size(); ++i) {
        SelectClientContext& context = *table[i];
        context.pollIndex = static_cast<int>(i);
        polled[i + 1].fd = context.muted ? -1 : context.Socket();
        polled[i + 1].events = static_cast<short>(POLLIN | POLLPRI | (context.sendBlocked ? POLLOUT : 0));
        polled[i + 1].revents = 0;
    }
    tableVersion = current;
}

/// Sockets that are ready; -1 when poll() fails.
int SelectWorker::wait() {
    const bool idle = toSend.empty() && orders.empty();
    // To wait for many sockets costs much more than to look at them, and there is mostly something.
    const bool look = std::exchange(busy, false) && table.size() >= kManySockets;
    ++pollSequence;
    int ready = 0;
    // A socket that has left the table meanwhile may be closed by now.
    if (version.load() == tableVersion) {
        const int milliseconds = idle && !hasWork.load() ? kIdleMilliseconds : 0;
        if (look || milliseconds == 0) ready = pollTable(0);
        if (ready == 0 && milliseconds != 0 && !hasWork.load()) ready = pollTable(milliseconds);
    }
    ++pollSequence;
    if (forgetters.load() != 0) System().wakeWord(&pollSequence, INT_MAX);
    toSend.insert(toSend.end(), later.begin(), later.end());
    later.clear();
    return ready;
}

int SelectWorker::pollTable(int milliseconds) {
    int ready = System().pollSockets(polled.data(), polled.size(), milliseconds);
    if (ready < 0) return errno == EINTR ? 0 : -1;
    if (ready > 0 && polled[0].revents != 0) {
        std::uint64_t count;
        static_cast<void>(System().read(wakeDescriptor.get(), &count, sizeof count));
        woken = false;
        --ready;
    }
    return ready;
}

void SelectWorker::unmute() {
    if (!anyMuted) return;
    anyMuted = false;
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (!std::exchange(table[i]->muted, false)) continue;
        polled[i + 1].fd = table[i]->Socket();
        polled[i + 1].revents = 0;
    }
}

void SelectWorker::serveReady(int ready) {
    for (std::size_t i = 0; ready > 0 && i < table.size(); ++i) {
        const short events = polled[i + 1].revents;
        if (events == 0) continue;
        --ready;
        unsigned readiness = 0;
        if ((events & (POLLPRI | POLLNVAL)) != 0) {
            readiness = SelectClientContext::Unknown;
        } else {
            if ((events & (POLLIN | POLLHUP | POLLERR)) != 0) readiness |= SelectClientContext::Readable;
            if ((events & POLLOUT) != 0) readiness |= SelectClientContext::Writable;
        }
        serve(table[i], readiness);
    }
}

// Without poll(): every socket by itself, and a sleep when there was nothing.
void SelectWorker::lookAtAll() {
    for (const ContextPointer& context : table)
        serve(context, SelectClientContext::Unknown);
    if (!busy && !hasWork) System().sleep(kIdleMilliseconds * kNanosecondsPerMillisecond);
}

pollfd* SelectWorker::entryOf(const SelectClientContext& context) noexcept {
    const auto at = static_cast<std::size_t>(context.pollIndex);
    return at < table.size() && table[at].get() == &context ? &polled[at + 1] : nullptr;
}

void SelectWorker::block(SelectClientContext& context, bool blocked) noexcept {
    if (context.sendBlocked == blocked) return;
    context.sendBlocked = blocked;
    if (pollfd* const entry = entryOf(context)) {
        entry->events = static_cast<short>(POLLIN | POLLPRI | (blocked ? POLLOUT : 0));
    }
}

void SelectWorker::mute(SelectClientContext& context) noexcept {
    context.muted = true;
    anyMuted = true;
    if (pollfd* const entry = entryOf(context)) entry->fd = -1;
}

}  // namespace Mivra::Transport
