#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/CritSec.h"

namespace Mivra::Tool {

class PacketBudget;

/// Buffers of one size. Beside lending them it counts how many a muxer keeps ("held"): not more than half, so
/// that a muxer that waits for another stream's packets never starves the source of those.
class RelayPool : public Common::DefaultPacketBufferAllocator {
public:
    RelayPool(PacketBudget& budget, int bytes, int count, bool mayBeHeld);
    ~RelayPool() override;

    /// Null when all are out.
    Common::PacketBuffer* Lend();
    /// The same after a wait; null once `closed` is set (and Wake called). One thread at a time.
    Common::PacketBuffer* WaitAndLend(const std::atomic<bool>& closed);
    void Wake();

    /// Whether one more buffer may stay in a muxer; Unhold balances a true.
    bool TryHold();
    void Unhold();

    int Out() const { return out.load(); }

protected:
    bool releaseBuffer(Common::PacketBuffer* buffer) override;

private:
    PacketBudget& budget;
    const int holdLimit;
    std::atomic<int> out{0};
    std::atomic<int> held{0};
    std::atomic<int> wantedFree{0};  // the waiting thread sleeps until so many are free; 0: nobody waits
    std::atomic<std::uint32_t> signal{0};
};

/// Where one source takes its buffers from: pools of some sizes that are its own, and for the rare packet
/// that is larger than all of them the reserve that all sources share. Take and its waiting are for one
/// thread; Close may be called by any.
class PacketLane {
public:
    PacketLane(PacketBudget& budget, std::int64_t bytes);

    /// A buffer of at least `size` bytes with one reference, the caller's. Waits until there is one. Null
    /// after Close. std::bad_alloc when there is no memory for a larger reserve.
    Common::PacketBuffer* Take(int size);
    /// Ends a wait and all taking.
    void Close();
    bool IsClosed() const { return closed.load(); }

private:
    PacketBudget& budget;
    std::vector<std::unique_ptr<RelayPool>> pools;  // by ascending size
    std::atomic<bool> closed{false};
};

/// What all sources of a relay may have in flight together, by the capacity of the buffers. It is made before
/// them and outlives every buffer.
class PacketBudget {
public:
    static constexpr std::int64_t kDefaultBytes = std::int64_t{32} << 20;

    /// Splits `bytes` evenly over the lanes but for the reserve.
    explicit PacketBudget(int lanes, std::int64_t bytes = kDefaultBytes);

    PacketLane& Lane(int index) { return *lanes[static_cast<std::size_t>(index)]; }

    /// Capacity of all buffers that are out, now and at most so far.
    std::int64_t BytesOut() const { return bytesOut.load(); }
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

    void lent(std::int64_t size);
    void returned(std::int64_t size);
    Common::PacketBuffer* takeFromReserve(PacketLane& lane, int size);
    Common::PacketBuffer* tryReserve(PacketLane& lane, int size) MIVRA_EXCLUDES(reserveLock);
    Common::PacketBuffer* lendFromReserve(int size) MIVRA_REQUIRES(reserveLock);
    void makeReserve(int size) MIVRA_REQUIRES(reserveLock);
    void wakeReserve();
    void wakeReserveWaiters();
    bool waitWhileAnotherIsAlone(const std::atomic<bool>& closed);

    const std::int64_t reserveBytes;
    std::atomic<std::int64_t> bytesOut{0};
    std::atomic<std::int64_t> bytesHeld{0};
    std::atomic<std::int64_t> peakBytesOut{0};
    // Set while a packet that is larger than the reserve is to travel, or travels, alone.
    std::atomic<bool> alone{false};
    std::atomic<int> reserveWaiters{0};
    std::atomic<std::uint32_t> reserveSignal{0};
    Common::CritSec reserveLock;
    std::deque<PacketLane*> reserveQueue MIVRA_GUARDED_BY(reserveLock);  // first come, first served
    std::unique_ptr<RelayPool> reserve MIVRA_GUARDED_BY(reserveLock);
    std::vector<std::unique_ptr<PacketLane>> lanes;
};

}  // namespace Mivra::Tool
