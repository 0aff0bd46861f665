#include "tools/mivra/PacketBudget.h"

#include <algorithm>
#include <new>

namespace Mivra::Tool {
namespace {

using Common::AutoLock;
using Common::PacketBuffer;

// A quarter of the budget is the reserve; the lanes' part goes to the sizes by these weights. The small sizes
// get little: every buffer touches a page of memory, and they are many.
constexpr int kReserveShare = 4;
constexpr int kWeightSum = 48;
constexpr struct {
    int size;
    int weight;
} kClasses[] = {{1 << 10, 1}, {4 << 10, 2}, {16 << 10, 4}, {64 << 10, 6}, {256 << 10, 8}, {1 << 20, 12}};

constexpr std::int64_t kSmallestReserveBuffer = std::int64_t{2} << 20;

/// What a lane lends before it waits, and the part of it that is still under way when it goes on: more would
/// only wait in the queue, and less would have two threads wake each other for every few packets.
constexpr std::int64_t kLargestWindow = std::int64_t{2} << 20;
constexpr int kWindowsPerLane = 2;
constexpr int kLowWater = 4;

}  // namespace

void Flight::End(std::int64_t size) {
    const std::int64_t left = bytes.fetch_sub(size) - size;
    const std::int64_t limit = wanted.load();
    if (limit >= 0 && left <= limit) {
        wanted.store(-1);
        bell.Ring();
    }
}

void Flight::WaitForAtMost(std::int64_t most, const std::atomic<bool>& closed) {
    bell.WaitUntil([&] {
        wanted.store(most);
        return bytes.load() <= most || closed.load();
    });
    wanted.store(-1);
}

RelayPool::RelayPool(PacketBudget& owner, Flight& counted, int bytes, int count, bool mayBeHeld)
    : DefaultPacketBufferAllocator(bytes, count, false, 1.0F),
      budget(owner),
      flight(counted),
      holdLimit(mayBeHeld ? count / 2 : 0) {}

RelayPool::~RelayPool() {
    retire();
}

PacketBuffer* RelayPool::Lend() {
    PacketBuffer* const buffer = LockBuffer(false);
    if (buffer != nullptr) {
        flight.Begin(buffer->Size());
        budget.lent();
    }
    return buffer;
}

PacketBuffer* RelayPool::WaitAndLend(const std::atomic<bool>& closed) {
    // Waking up for every single buffer would cost more than it brings.
    const int enough = std::max(1, BufferCount() / 4);
    PacketBuffer* buffer = nullptr;
    bell.WaitUntil([&] {
        wantedFree.store(enough);
        // A buffer that came back before wantedFree was seen is found here.
        buffer = closed.load() ? nullptr : Lend();
        return buffer != nullptr || closed.load();
    });
    wantedFree.store(0);
    return buffer;
}

bool RelayPool::TryHold() {
    if (held.fetch_add(1) >= holdLimit) {
        held.fetch_sub(1);
        return false;
    }
    flight.End(BufferSize());
    budget.cameHome(0);
    return true;
}

void RelayPool::Unhold() {
    held.fetch_sub(1);
    flight.Begin(BufferSize());
}

bool RelayPool::releaseBuffer(PacketBuffer* buffer) {
    const int size = buffer->Size();
    const bool deleteIt = DefaultPacketBufferAllocator::releaseBuffer(buffer);
    flight.End(size);
    budget.cameHome(size);
    if (const int wanted = wantedFree.load(); wanted != 0 && FreeBufferCount() >= wanted) {
        wantedFree.store(0);
        Wake();
    }
    return deleteIt;
}

PacketLane::PacketLane(PacketBudget& owner, std::int64_t bytes)
    : budget(owner), window(std::min(kLargestWindow, bytes / kWindowsPerLane)) {
    for (const auto& wanted : kClasses) {
        const int count = static_cast<int>(bytes * wanted.weight / kWeightSum / wanted.size);
        if (count >= 2) {
            pools.push_back(std::make_unique<RelayPool>(budget, flight, wanted.size, count, true));
        }
    }
}

RelayPool* PacketLane::poolFor(int size) {
    for (const std::unique_ptr<RelayPool>& pool : pools) {
        if (pool->BufferSize() >= size) {
            return pool.get();
        }
    }
    return nullptr;
}

PacketBuffer* PacketLane::TryTake(int size) {
    if (closed.load() || budget.alone.load() || flight.Bytes() >= window) {
        return nullptr;
    }
    RelayPool* const pool = poolFor(size);
    return pool != nullptr ? pool->Lend() : nullptr;
}

PacketBuffer* PacketLane::Take(int size) {
    if (flight.Bytes() >= window) {
        flight.WaitForAtMost(window / kLowWater, closed);
    }
    budget.reserveBell.WaitUntil([&] { return !budget.alone.load() || closed.load(); });
    if (size < 0 || closed.load()) {
        return nullptr;
    }
    RelayPool* const pool = poolFor(size);
    if (pool == nullptr) {
        return budget.takeFromReserve(*this, size);
    }
    PacketBuffer* const buffer = pool->Lend();
    return buffer != nullptr ? buffer : pool->WaitAndLend(closed);
}

void PacketLane::Close() {
    closed.store(true);
    flight.Wake();
    for (const std::unique_ptr<RelayPool>& pool : pools) {
        pool->Wake();
    }
    budget.reserveBell.Ring();
}

std::int64_t PacketLane::BytesHeld() const {
    std::int64_t held = 0;
    for (const std::unique_ptr<RelayPool>& pool : pools) {
        held += pool->BytesHeld();
    }
    return held;
}

PacketBudget::PacketBudget(int laneCount, std::int64_t bytes) : reserveBytes(bytes / kReserveShare) {
    const std::int64_t share = (bytes - reserveBytes) / std::max(1, laneCount);
    for (int i = 0; i < laneCount; ++i) {
        lanes.push_back(std::make_unique<PacketLane>(*this, share));
    }
}

std::int64_t PacketBudget::bytesInFlight() const {
    std::int64_t sum = reserveFlight.Bytes();
    for (const std::unique_ptr<PacketLane>& lane : lanes) {
        sum += lane->BytesInFlight();
    }
    return sum;
}

std::int64_t PacketBudget::BytesOut() const {
    std::int64_t sum = bytesInFlight();
    for (const std::unique_ptr<PacketLane>& lane : lanes) {
        sum += lane->BytesHeld();
    }
    return sum;
}

void PacketBudget::lent() {
    const std::int64_t now = BytesOut();
    std::int64_t peak = peakBytesOut.load(std::memory_order_relaxed);
    while (now > peak && !peakBytesOut.compare_exchange_weak(peak, now)) {
    }
}

// A buffer of so many bytes has been given back; 0: one has come to stay in a muxer.
void PacketBudget::cameHome(std::int64_t size) {
    if (size > reserveBytes) {
        alone.store(false);
        reserveBell.Ring();
    } else if (reserveWaiters.load() != 0) {
        reserveBell.Ring();
    }
}

PacketBuffer* PacketBudget::takeFromReserve(PacketLane& lane, int size) {
    ReserveTurn turn(*this, lane);
    PacketBuffer* buffer = nullptr;
    reserveBell.WaitUntil([&] {
        buffer = lane.IsClosed() ? nullptr : tryReserve(lane, size);
        return buffer != nullptr || lane.IsClosed();
    });
    turn.granted = buffer != nullptr;
    return buffer;
}

PacketBudget::ReserveTurn::ReserveTurn(PacketBudget& owner, PacketLane& of) : budget(owner), lane(of) {
    AutoLock hold(budget.reserveLock);
    budget.reserveQueue.push_back(&lane);
    budget.reserveWaiters.fetch_add(1);
}

PacketBudget::ReserveTurn::~ReserveTurn() {
    {
        AutoLock hold(budget.reserveLock);
        std::erase(budget.reserveQueue, &lane);
        budget.reserveWaiters.fetch_sub(1);
        if (!granted) {
            budget.alone.store(false);  // the next of the queue asks for it again
        }
    }
    budget.reserveBell.Ring();
}

PacketBuffer* PacketBudget::tryReserve(PacketLane& lane, int size) {
    AutoLock hold(reserveLock);
    if (reserveQueue.front() != &lane) {
        return nullptr;
    }
    if (size > reserveBytes) {
        // Alone: nothing else on its way but what the muxers keep until they have more.
        alone.store(true);
        if (bytesInFlight() > 0) {
            return nullptr;
        }
    }
    return lendFromReserve(size);
}

PacketBuffer* PacketBudget::lendFromReserve(int size) {
    const std::int64_t largest = std::max<std::int64_t>(reserveBytes, size);
    if (reserve == nullptr || reserve->BufferSize() < size || reserve->BufferSize() > largest) {
        if (reserveFlight.Bytes() != 0) {
            return nullptr;
        }
        makeReserve(size);
    }
    return reserve->Lend();
}

void PacketBudget::makeReserve(int size) {
    std::int64_t bufferSize = std::min(kSmallestReserveBuffer, reserveBytes);
    while (bufferSize < size && bufferSize < reserveBytes) {
        bufferSize *= 2;
    }
    bufferSize = std::max<std::int64_t>(bufferSize, size);
    const int count = static_cast<int>(std::max<std::int64_t>(1, reserveBytes / bufferSize));
    reserve.reset();
    reserve = std::make_unique<RelayPool>(*this, reserveFlight, static_cast<int>(bufferSize), count, false);
}

}  // namespace Mivra::Tool
