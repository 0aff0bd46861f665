#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/CritSec.h"
#include "tools/mivra/Doorbell.h"

namespace Mivra::Tool {

class PacketBudget;

/// Bytes (capacity) that are on their way: lent, and neither given back nor held by a muxer. One thread, that
/// of the source, may wait until they are few.
class Flight {
public:
    void Begin(std::int64_t size) { bytes.fetch_add(size); }
    void End(std::int64_t size);
    std::int64_t Bytes() const { return bytes.load(); }
    /// Waits until at most `most` bytes are on their way or `closed` is set and Wake called.
    void WaitForAtMost(std::int64_t most, const std::atomic<bool>& closed);
    void Wake() { bell.Ring(); }

private:
    std::atomic<std::int64_t> bytes{0};
    std::atomic<std::int64_t> wanted{-1};  // -1: nobody waits
    Doorbell bell;
};

/// Buffers of one size. Beside lending them it counts how many a muxer keeps ("held"): not
/// more than half, so that a muxer that waits for another stream's packets never starves the source of those.
class RelayPool : public Common::DefaultPacketBufferAllocator {
public:
    RelayPool(PacketBudget& budget, Flight& flight, int bytes, int count, bool mayBeHeld);
    ~RelayPool() override;

    /// Null when all are out.
    Common::PacketBuffer* Lend();
    /// The same after a wait; null once `closed` is set (and Wake called). One thread at a time.
    Common::PacketBuffer* WaitAndLend(const std::atomic<bool>& closed);
    void Wake() { bell.Ring(); }

    /// Whether one more buffer may stay in a muxer; Unhold balances a true.
    bool TryHold();
    void Unhold();

    std::int64_t BytesHeld() { return std::int64_t{held.load()} * BufferSize(); }

protected:
    bool releaseBuffer(Common::PacketBuffer* buffer) override;

private:
    PacketBudget& budget;
    Flight& flight;
    const int holdLimit;
    std::atomic<int> held{0};
    std::atomic<int> wantedFree{0};  // the waiting thread sleeps until so many are free; 0: nobody waits
    Doorbell bell;
};

/// Where one source takes its buffers from: pools of some sizes that are its own, and for the rare packet
/// that is larger than all of them the reserve that all sources share. It lends as much as keeps the sinks
/// busy and no more, so that the same few buffers go round and stay in the processor's caches. TryTake and
/// Take are for one thread; Close may be called by any.
class PacketLane {
public:
    PacketLane(PacketBudget& budget, std::int64_t bytes);

    /// A buffer of at least `size` bytes with one reference, the caller's; null when that takes a wait.
    Common::PacketBuffer* TryTake(int size);
    /// The same after a wait: what the caller has taken before must be on its way. Null after Close.
    /// std::bad_alloc when there is no memory for a larger reserve.
    Common::PacketBuffer* Take(int size);
    /// Ends a wait and all taking.
    void Close();
    bool IsClosed() const { return closed.load(); }

    std::int64_t BytesInFlight() const { return flight.Bytes(); }
    std::int64_t BytesHeld() const;

private:
    RelayPool* poolFor(int size);

    PacketBudget& budget;
    const std::int64_t window;
    Flight flight;
    std::vector<std::unique_ptr<RelayPool>> pools;  // by ascending size
    std::atomic<bool> closed{false};
};

/// What all sources of a relay may have out together, by the capacity of the buffers. It is made before them
/// and outlives every buffer.
class PacketBudget {
public:
    static constexpr std::int64_t kDefaultBytes = std::int64_t{32} << 20;

    /// Splits `bytes` evenly over the lanes but for the reserve.
    explicit PacketBudget(int lanes, std::int64_t bytes = kDefaultBytes);

    PacketLane& Lane(int index) { return *lanes[static_cast<std::size_t>(index)]; }

    /// Capacity of what is on its way: lent, and neither given back nor held by a muxer.
    std::int64_t BytesInFlight() const { return bytesInFlight(); }
    /// Capacity of all buffers that are out, now and at most so far.
    std::int64_t BytesOut() const;
    std::int64_t PeakBytesOut() const { return peakBytesOut.load(); }

private:
    friend class PacketLane;
    friend class RelayPool;

    /// A place in the reserve's queue.
    class ReserveTurn {
    public:
        ReserveTurn(PacketBudget& budget, PacketLane& lane);
        ~ReserveTurn();
        ReserveTurn(const ReserveTurn&) = delete;
        ReserveTurn& operator=(const ReserveTurn&) = delete;

        bool granted = false;

    private:
        PacketBudget& budget;
        PacketLane& lane;
    };

    void lent();
    void cameHome(std::int64_t size);
    std::int64_t bytesInFlight() const;
    Common::PacketBuffer* takeFromReserve(PacketLane& lane, int size);
    Common::PacketBuffer* tryReserve(PacketLane& lane, int size) MIVRA_EXCLUDES(reserveLock);
    Common::PacketBuffer* lendFromReserve(int size) MIVRA_REQUIRES(reserveLock);
    void makeReserve(int size) MIVRA_REQUIRES(reserveLock);

    const std::int64_t reserveBytes;
    std::atomic<std::int64_t> peakBytesOut{0};
    // Set while a packet that is larger than the reserve is to travel, or travels, alone.
    std::atomic<bool> alone{false};
    std::atomic<int> reserveWaiters{0};
    Doorbell reserveBell;
    Flight reserveFlight;
    Common::CritSec reserveLock;
    std::deque<PacketLane*> reserveQueue MIVRA_GUARDED_BY(reserveLock);  // first come, first served
    std::unique_ptr<RelayPool> reserve MIVRA_GUARDED_BY(reserveLock);
    std::vector<std::unique_ptr<PacketLane>> lanes;
};

}  // namespace Mivra::Tool
