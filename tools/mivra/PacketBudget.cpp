#include "tools/mivra/PacketBudget.h"

#include <algorithm>
#include <new>

namespace Mivra::Tool {
namespace {

using Common::AutoLock;
using Common::PacketBuffer;

// A quarter of the budget is the reserve; the lanes' part goes to the sizes by these weights (of 24).
constexpr int kReserveShare = 4;
constexpr int kWeightSum = 24;
constexpr struct {
    int size;
    int weight;
} kClasses[] = {{1 << 10, 1}, {4 << 10, 3}, {16 << 10, 4}, {64 << 10, 4}, {256 << 10, 6}, {1 << 20, 6}};

constexpr std::int64_t kSmallestReserveBuffer = std::int64_t{2} << 20;

}  // namespace

RelayPool::RelayPool(PacketBudget& owner, int bytes, int count, bool mayBeHeld)
    : DefaultPacketBufferAllocator(bytes, count, false, 1.0F),
      budget(owner),
      holdLimit(mayBeHeld ? count / 2 : 0) {}

RelayPool::~RelayPool() {
    retire();
}

PacketBuffer* RelayPool::Lend() {
    PacketBuffer* const buffer = LockBuffer(false);
    if (buffer != nullptr) {
        out.fetch_add(1);
        budget.lent(buffer->Size());
    }
    return buffer;
}

PacketBuffer* RelayPool::WaitAndLend(const std::atomic<bool>& closed) {
    // Waking up for every single buffer would cost more than it brings.
    const int enough = std::max(1, BufferCount() / 4);
    while (!closed.load()) {
        const std::uint32_t before = signal.load();
        wantedFree.store(enough);
        // A buffer that came back before wantedFree was seen is found here.
        if (PacketBuffer* const buffer = Lend(); buffer != nullptr) {
            wantedFree.store(0);
            return buffer;
        }
        if (!closed.load()) {
            signal.wait(before);
        }
    }
    return nullptr;
}

void RelayPool::Wake() {
    signal.fetch_add(1);
    signal.notify_all();
}

bool RelayPool::TryHold() {
    if (held.fetch_add(1) >= holdLimit) {
        held.fetch_sub(1);
        return false;
    }
    budget.bytesHeld.fetch_add(BufferSize());
    budget.wakeReserveWaiters();
    return true;
}

void RelayPool::Unhold() {
    budget.bytesHeld.fetch_sub(BufferSize());
    held.fetch_sub(1);
}

bool RelayPool::releaseBuffer(PacketBuffer* buffer) {
    const int size = buffer->Size();
    const bool deleteIt = DefaultPacketBufferAllocator::releaseBuffer(buffer);
    const int left = out.fetch_sub(1) - 1;
    budget.returned(size);
    const int wanted = wantedFree.load();
    if (wanted != 0 && BufferCount() - left >= wanted) {
        wantedFree.store(0);
        Wake();
    }
    return deleteIt;
}

PacketLane::PacketLane(PacketBudget& owner, std::int64_t bytes) : budget(owner) {
    for (const auto& wanted : kClasses) {
        const int count = static_cast<int>(bytes * wanted.weight / kWeightSum / wanted.size);
        if (count >= 2) {
            pools.push_back(std::make_unique<RelayPool>(budget, wanted.size, count, true));
        }
    }
}

PacketBuffer* PacketLane::Take(int size) {
    if (size < 0 || closed.load() || !budget.waitWhileAnotherIsAlone(closed)) {
        return nullptr;
    }
    for (const std::unique_ptr<RelayPool>& pool : pools) {
        if (pool->BufferSize() >= size) {
            PacketBuffer* const buffer = pool->Lend();
            return buffer != nullptr ? buffer : pool->WaitAndLend(closed);
        }
    }
    return budget.takeFromReserve(*this, size);
}

void PacketLane::Close() {
    closed.store(true);
    for (const std::unique_ptr<RelayPool>& pool : pools) {
        pool->Wake();
    }
    budget.wakeReserve();
}

PacketBudget::PacketBudget(int laneCount, std::int64_t bytes) : reserveBytes(bytes / kReserveShare) {
    const std::int64_t share = (bytes - reserveBytes) / std::max(1, laneCount);
    for (int i = 0; i < laneCount; ++i) {
        lanes.push_back(std::make_unique<PacketLane>(*this, share));
    }
}

void PacketBudget::lent(std::int64_t size) {
    const std::int64_t now = bytesOut.fetch_add(size) + size;
    std::int64_t peak = peakBytesOut.load(std::memory_order_relaxed);
    while (now > peak && !peakBytesOut.compare_exchange_weak(peak, now)) {
    }
}

void PacketBudget::returned(std::int64_t size) {
    bytesOut.fetch_sub(size);
    if (size > reserveBytes) {
        alone.store(false);
        wakeReserve();
    }
    wakeReserveWaiters();
}

void PacketBudget::wakeReserveWaiters() {
    if (reserveWaiters.load() != 0) {
        wakeReserve();
    }
}

void PacketBudget::wakeReserve() {
    reserveSignal.fetch_add(1);
    reserveSignal.notify_all();
}

bool PacketBudget::waitWhileAnotherIsAlone(const std::atomic<bool>& closed) {
    while (alone.load() && !closed.load()) {
        const std::uint32_t before = reserveSignal.load();
        if (alone.load() && !closed.load()) {
            reserveSignal.wait(before);
        }
    }
    return !closed.load();
}

PacketBuffer* PacketBudget::takeFromReserve(PacketLane& lane, int size) {
    ReserveTurn turn(*this, lane);
    while (!lane.IsClosed()) {
        const std::uint32_t before = reserveSignal.load();
        if (PacketBuffer* const buffer = tryReserve(lane, size); buffer != nullptr) {
            turn.granted = true;
            return buffer;
        }
        if (!lane.IsClosed()) {
            reserveSignal.wait(before);
        }
    }
    return nullptr;
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
    budget.wakeReserve();
}

PacketBuffer* PacketBudget::tryReserve(PacketLane& lane, int size) {
    AutoLock hold(reserveLock);
    if (reserveQueue.front() != &lane) {
        return nullptr;
    }
    if (size > reserveBytes) {
        // Alone: nothing else on its way but what the muxers keep until they have more.
        alone.store(true);
        if (bytesOut.load() > bytesHeld.load()) {
            return nullptr;
        }
    }
    return lendFromReserve(size);
}

PacketBuffer* PacketBudget::lendFromReserve(int size) {
    const std::int64_t largest = std::max<std::int64_t>(reserveBytes, size);
    if (reserve == nullptr || reserve->BufferSize() < size || reserve->BufferSize() > largest) {
        if (reserve != nullptr && reserve->Out() != 0) {
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
    reserve = std::make_unique<RelayPool>(*this, static_cast<int>(bufferSize), count, false);
}

}  // namespace Mivra::Tool
