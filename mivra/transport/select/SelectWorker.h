#pragma once

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "mivra/common/runtime/CritSec.h"
#include "mivra/transport/SocketGuard.h"
#include "mivra/transport/select/SelectClientContext.h"

namespace Mivra::Common {
class PacketBuffer;
class WakeEvent;
}  // namespace Mivra::Common

namespace Mivra::Transport {

class SelectTransport;

/// A thread of the select engine and the contexts that it serves: one wait a pass for a set, kept by the
/// system, of their sockets and a descriptor that wakes it. A socket that the set does not take is looked at
/// in every pass. Owned by the engine and, until they are gone, by its contexts.
class SelectWorker {
public:
    using ContextPointer = std::shared_ptr<SelectClientContext>;

    enum class Kind { Take = 1, Disconnect, DisconnectQuietly };

    SelectWorker(SelectTransport& engine, int index);
    ~SelectWorker();
    SelectWorker(const SelectWorker&) = delete;
    SelectWorker& operator=(const SelectWorker&) = delete;

    /// False with errno, or std::system_error, when there is no descriptor or thread to be had.
    bool Start();
    /// Waits for the thread, which ends when its engine is no longer started; then lets its contexts go.
    void Join();

    /// The worker that the calling thread is, or null.
    static SelectWorker* Current() noexcept;
    const SelectTransport* Engine() const noexcept { return &engine; }
    int Index() const noexcept { return index; }
    /// Contexts that it has or is about to take.
    int ClientCount() const noexcept { return clientCount; }

    /// Any thread: queues a packet to a context and tells its worker; false when it was not taken.
    static bool Queue(const ContextPointer& context, Common::PacketBuffer* packet);
    /// Any thread: a command. std::bad_alloc.
    void Post(Kind kind, std::uint32_t clientId) MIVRA_EXCLUDES(lock);
    void Wake() noexcept;
    /// Its own thread: the context that it serves, when it is this client's; else null.
    const ContextPointer* Serving(std::uint32_t clientId) const noexcept {
        return serving != nullptr && (*serving)->ClientId() == clientId ? serving : nullptr;
    }
    /// A context is about to be its own.
    void Expect() noexcept { ++clientCount; }
    /// Any thread, with the context's turn: its socket makes no events any more, and may be closed.
    void Unwatch(SelectClientContext& context) noexcept;
    /// Any thread: gives a context up.
    void Forget(const SelectClientContext& context) noexcept MIVRA_EXCLUDES(lock);

private:
    struct Command {
        Kind kind;
        std::uint32_t clientId;
    };

    void postSend(const ContextPointer& context) noexcept MIVRA_EXCLUDES(lock);
    void run() noexcept;
    void pass();
    void takeCommands() MIVRA_EXCLUDES(lock);
    void obey(const Command& command);
    void adopt(const ContextPointer& context) MIVRA_EXCLUDES(lock);
    void disconnect(const ContextPointer& context, Kind kind);
    void flushPosted();
    void flushUnposted();
    int wait();
    void serveReady();
    void lookAtAll();
    void lookAtUnwatched();
    ContextPointer find(std::uint32_t clientId) MIVRA_EXCLUDES(lock);
    /// The one with the lowest id above the given one, or null. Walks over all without taking memory.
    ContextPointer next(std::uint32_t clientId) MIVRA_EXCLUDES(lock);

    // One context, whose turn it has (SelectService.cpp).
    class NotedScope;
    enum class Progress { Some, Blocked, Later, Failed };

    void serve(const ContextPointer& context, unsigned readiness);
    void serveInTurn(const ContextPointer& context, unsigned readiness);
    void acceptFrom(SelectClientContext& listener);
    void accepted(SelectClientContext& listener, int descriptor, sockaddr_in peer);
    void acceptFailed(SelectClientContext& listener, int error);
    void receiveFrom(const ContextPointer& context);
    bool receiveOnce(const ContextPointer& context);
    bool receiveFailed(const ContextPointer& context, int error);
    void flush(const ContextPointer& context);
    void send(const ContextPointer& context);
    bool sendOnce(const ContextPointer& context);
    static Progress sendStream(SelectClientContext& context, iovec* pieces, int count);
    static Progress sendDatagrams(SelectClientContext& context, iovec* pieces, int count);
    void sendAgain(const ContextPointer& context);
    // Its place in the set.
    bool watch(SelectClientContext& context) noexcept;
    void block(SelectClientContext& context, bool blocked) noexcept;
    void mute(SelectClientContext& context) noexcept;

    SelectTransport& engine;
    const int index;
    std::unique_ptr<std::thread> thread;
    SocketGuard wakeDescriptor;
    SocketGuard watchSet;  // none: every socket is looked at
    // Given up for a moment when a connection comes and there are no descriptors left, to refuse it.
    SocketGuard spare;

    Common::CritSec lock;
    std::map<std::uint32_t, ContextPointer> clients MIVRA_GUARDED_BY(lock);
    std::vector<Command> commands MIVRA_GUARDED_BY(lock);
    std::vector<ContextPointer> posted MIVRA_GUARDED_BY(lock);
    bool joined MIVRA_GUARDED_BY(lock) = false;
    std::atomic<int> clientCount{0};
    std::atomic<bool> waiting{false};       // for the set
    std::atomic<bool> woken{false};         // the wake descriptor has been written to
    std::atomic<bool> hasWork{false};       // in commands or posted, or lookForSends
    std::atomic<bool> lookForSends{false};  // a context could not be noted in posted

    // The thread's own.
    const ContextPointer* serving = nullptr;
    std::vector<Command> orders;
    std::size_t nextOrder = 0;
    std::vector<ContextPointer> toSend;
    std::vector<ContextPointer> sending;
    std::vector<ContextPointer> later;  // to be tried again after the next wait
    std::array<epoll_event, 64> events{};
    int readyCount = 0;         // of events, in this pass
    bool anyUnwatched = false;  // a context, perhaps
    bool busy = false;          // something came or went since it was cleared
    bool lookSoon = false;      // something did for a context that is not watched
};

}  // namespace Mivra::Transport
