#include "mivra/transport/select/SelectTransport.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/WakeEvent.h"
#include "mivra/transport/NetNotitications.h"
#include "mivra/transport/select/SelectWorker.h"

namespace Mivra::Transport {

using Common::AutoLock;
using Common::DefaultPacketBufferAllocator;
using Common::FileLog;
using Common::LogLine;

namespace {

constexpr float kPoolGrowth = 10.0F;
constexpr int kReleaseLooks = 1000;
constexpr std::int64_t kLook = 1'000'000;  // nanoseconds

}  // namespace

SelectTransport::SelectTransport() : contextGone(std::make_unique<Common::WakeEvent>()) {}

SelectTransport::~SelectTransport() {
    SelectTransport::Shutdown();
    LogLine(FileLog::Debug, "SelectTransport::~SelectTransport: released");
}

void SelectTransport::SetAllocator(int size, int count) {
    bufferSize = size;
    bufferCount = count;
}

void SelectTransport::SetWorkerCount(int count) {
    workerCount = count;
}

bool SelectTransport::isOwnWorker() const {
    const SelectWorker* const worker = SelectWorker::Current();
    return worker != nullptr && worker->Engine() == this;
}

bool SelectTransport::Start() {
    if (bufferSize == 0 || bufferCount == 0) {
        LogLine(FileLog::Error, "SelectTransport::Start: Allocators are not initialized");
        return false;
    }
    if (started) return true;
    if (isOwnWorker()) return false;  // in the middle of a Shutdown
    AutoLock life(lifeLock);
    if (started) return true;
    LogLine(FileLog::Information, "SelectTransport::Start: maximum number of connections: %i",
            maxConnections);
    if (!makeAllocator()) return false;
    {
        AutoLock guard(engineLock);
        ending = false;
        started = true;
    }
    if (!startWorkers()) {
        started = false;
        stopWorkers();
        dropContexts();
        allocator.reset();
        return false;
    }
    LogLine(FileLog::Information, "SelectTransport::Start: engine successfully started.");
    return true;
}

bool SelectTransport::makeAllocator() {
    const int size = bufferSize;
    const int count = bufferCount;
    try {
        allocator = std::make_unique<DefaultPacketBufferAllocator>(size, count, true, kPoolGrowth);
    } catch (const std::exception& error) {
        LogLine(FileLog::Error, "SelectTransport::Start: %s", error.what());
        return false;
    }
    LogLine(FileLog::Debug, "SelectTransport::Start: created allocator %p, buffer size %d, buffer count %d",
            static_cast<void*>(allocator.get()), size, count / std::max(workerCount.load(), 1));
    return true;
}

bool SelectTransport::startWorkers() {
    AutoLock guard(engineLock);
    const int count = workerCount;
    for (int i = 0; i < count; ++i) {
        int error;
        try {
            workers.push_back(std::make_shared<SelectWorker>(*this, i));
            if (workers.back()->Start()) continue;
            error = errno;
        } catch (const std::system_error& failure) {
            error = failure.code().value();
        } catch (const std::bad_alloc&) {
            error = ENOMEM;
        }
        LogLine(FileLog::Error, "SelectTransport::Start: worker thread %d could not be started: %d", i,
                error);
        return false;
    }
    return true;
}

void SelectTransport::Shutdown() {
    if (isOwnWorker()) {
        LogLine(FileLog::Error, "SelectTransport::Shutdown: called by a worker thread");
        return;
    }
    AutoLock life(lifeLock);
    LogLine(FileLog::Information, "SelectTransport::Shutdown: shutting down");
    {
        AutoLock guard(engineLock);
        ending = true;  // a connection that comes now would not be seen any more
    }
    DisconnectAll();
    awaitRelease();
    started = false;
    stopWorkers();
    dropContexts();
    allocator.reset();
}

void SelectTransport::awaitRelease() {
    for (int look = 0; look < kReleaseLooks; ++look) {
        const std::uint32_t seen = contextGone->Sequence();
        if (next(0) == nullptr) {
            LogLine(FileLog::Debug, "SelectTransport::Shutdown: all client contexts released");
            return;
        }
        // Every look takes its millisecond unless a context has gone.
        contextGone->Wait(seen, kLook);
    }
}

void SelectTransport::stopWorkers() {
    std::vector<std::shared_ptr<SelectWorker>> stopping;
    std::map<int, ContextPointer> listening;
    {
        AutoLock guard(engineLock);
        stopping.swap(workers);
        listening.swap(listeners);
    }
    if (stopping.empty()) return;
    LogLine(FileLog::Debug, "SelectTransport::Shutdown: closing I/O worker threads");
    for (const auto& worker : stopping)
        worker->Join();
}

void SelectTransport::dropContexts() {
    std::map<std::uint32_t, ContextPointer> left;
    {
        AutoLock guard(engineLock);
        left.swap(clients);
    }
    if (left.empty()) return;
    LogLine(FileLog::Debug, "SelectTransport::Shutdown: de-allocate client contexts");
    for (const auto& [id, context] : left) {
        context->closing = true;
        context->closeSocket(true);
        context->sendQueue.Close();
        LogLine(FileLog::Debug, "SelectTransport::Shutdown: removed client context %d", static_cast<int>(id));
    }
}

SelectTransport::ContextPointer SelectTransport::find(unsigned int clientId) {
    AutoLock guard(engineLock);
    const auto found = clients.find(clientId);
    return found == clients.end() ? nullptr : found->second;
}

SelectTransport::ContextPointer SelectTransport::next(unsigned int clientId) {
    AutoLock guard(engineLock);
    const auto found = clients.upper_bound(clientId);
    return found == clients.end() ? nullptr : found->second;
}

bool SelectTransport::SendAsync(unsigned int clientId, Common::PacketBuffer* packet) {
    if (!started || packet == nullptr) {
        LogLine(FileLog::Warning, "SelectTransport::SendAsync: empty send buffer");
        return false;
    }
    const SelectWorker* const own = SelectWorker::Current();
    if (own != nullptr && own->Engine() == this) {
        if (const ContextPointer* const served = own->Serving(clientId))
            return SelectWorker::Queue(*served, packet);
    }
    const ContextPointer context = find(clientId);
    return context != nullptr && SelectWorker::Queue(context, packet);
}

void SelectTransport::Update(unsigned int clientId, NetConnectionParameters& parameters) {
    const ContextPointer context = find(clientId);
    if (context == nullptr) return;
    if (parameters.remoteAddress.sin_family != AF_UNSPEC) context->setRemoteAddress(parameters.remoteAddress);
    if (parameters.sendQueueLimit >= 0) context->sendQueue.SetAllowedBytes(parameters.sendQueueLimit);
    context->withSocket([&](int socket) { setBufferSizes(socket, parameters, "Update"); });
}

bool SelectTransport::SetRemoteFilter(unsigned int clientId, sockaddr_in& address) {
    const ContextPointer context = find(clientId);
    if (context == nullptr) return false;
    context->setRemoteAddress(address);
    return true;
}

std::shared_ptr<NetTransport::NetTransportStat> SelectTransport::GetStatistics(unsigned int) {
    return nullptr;
}

}  // namespace Mivra::Transport
