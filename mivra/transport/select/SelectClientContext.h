#pragma once

#include <netinet/in.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"
#include "mivra/transport/NetClientContext.h"

namespace Mivra::Transport {

class SelectWorker;

/// Sockets to be looked at, 64 at most.
class MIVRA_API SelectSet {
public:
    static constexpr int Capacity = 64;

    int Count() const { return count; }
    bool Contains(int socket) const;
    /// One that is there, or that has no room, changes nothing.
    void Add(int socket);

private:
    int count = 0;
    std::array<int, Capacity> sockets{};
};

/// A connection of the select engine.
class MIVRA_API SelectClientContext : public NetClientContext {
public:
    /// What a look at the socket says.
    enum Readiness : unsigned { Failed = 1, Excepted = 2, Readable = 4, Writable = 8, Unknown = 16 };

    SelectClientContext();
    ~SelectClientContext() override;

    /// Index of the worker that it belongs to, -1 before it has one.
    int WorkerIndex() const { return workerIndex; }

private:
    friend class SelectTransport;
    friend class SelectWorker;

    /// Polls the one socket without waiting: select(), or poll() for a descriptor that select() cannot
    /// represent. Readiness bits; Failed with errno.
    unsigned look(int descriptor);
    unsigned lookBeyondSets(int descriptor) const;
    /// True: no handler of this context runs on another thread, and none will begin, until giveTurn.
    bool tryTurn() MIVRA_NO_THREAD_SAFETY_ANALYSIS { return turn.TryLock(); }
    void giveTurn() MIVRA_NO_THREAD_SAFETY_ANALYSIS;
    /// Gives the turn back at the end of a scope.
    class TurnGuard {
    public:
        explicit TurnGuard(SelectClientContext& holder) : context(holder) {}
        ~TurnGuard() { context.giveTurn(); }
        TurnGuard(const TurnGuard&) = delete;
        TurnGuard& operator=(const TurnGuard&) = delete;

    private:
        SelectClientContext& context;
    };
    /// From now on nobody is notified; false when nobody was. Their references end with the context, since
    /// one of their handlers may be on the stack. With the turn and the lock held.
    bool retireNotifications() MIVRA_REQUIRES(lock);

    int workerIndex = -1;
    SelectSet readSet;
    SelectSet writeSet;
    SelectSet exceptSet;

    std::shared_ptr<SelectWorker> worker;
    // Held by its worker while it serves the context, by whoever else disconnects it.
    Common::CritSec turn;
    std::atomic<bool> disconnecting{false};  // somebody is at it
    std::atomic<bool> sendPosted{false};     // its worker knows that there is something to send
    std::array<NetNotitications*, 2> retiredNotifications{};
    bool joined = false;  // a multicast group
    ip_mreq membership{};
    // The worker's own.
    bool sendBlocked = false;       // until the socket is writable
    bool segmentsDatagrams = true;  // see DatagramBatch
    bool starved = false;           // no buffer was to be had
    // With the turn: its place in its worker's set.
    bool inSet = false;
    bool watched = false;  // it is there, and for what it should be
};

}  // namespace Mivra::Transport
