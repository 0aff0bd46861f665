#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/GeneralException.h"
#include "tests/support/FakeClock.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/LogCapture.h"

namespace Mivra::Common {
namespace {

namespace support = Mivra::Test;

using support::kSecond;
using Lines = std::vector<std::string>;

std::vector<PacketBuffer*> takeAll(PacketBufferAllocator& pool) {
    std::vector<PacketBuffer*> taken;
    while (PacketBuffer* const buffer = pool.LockBuffer(false)) {
        taken.push_back(buffer);
    }
    return taken;
}

void giveBack(const std::vector<PacketBuffer*>& taken) {
    for (PacketBuffer* const buffer : taken) {
        EXPECT_EQ(buffer->Release(), 0);
    }
}

class PoolTest : public ::testing::Test {
protected:
    /// "Class::Operation[pool/size/count]: text"
    static std::string line(const char* operation, const PacketBufferAllocator& pool, const char* figures,
                            const std::string& text) {
        char address[32];
        std::snprintf(address, sizeof address, "%p", static_cast<const void*>(&pool));
        return std::string("DefaultPacketBufferAllocator::") + operation + "[" + address + "/" + figures +
               "]: " + text;
    }

    support::LogCapture log;
};

// Which buffers a pool lends and when it grows is what the fuzz target's model knows; here is what it tells.
TEST_F(PoolTest, TellsOfGrowthAndReallocation) {
    DefaultPacketBufferAllocator fixed(100, 2, false, 10.0F);
    const auto all = takeAll(fixed);
    log.Clear();
    EXPECT_EQ(fixed.LockBuffer(true), nullptr);
    EXPECT_EQ(log.Lines(), Lines{});
    EXPECT_EQ(all.at(0)->Id() + 1, all.at(1)->Id());
    giveBack(all);

    DefaultPacketBufferAllocator pool(100, 10, true, 1.5F);
    std::vector<PacketBuffer*> taken;
    for (int i = 0; i < 11; ++i)
        taken.push_back(pool.LockBuffer(true));
    EXPECT_EQ(
        log.Lines(FileLog::Warning),
        Lines{line("LockBuffer", pool, "100/10", "no more empty buffers, allocate additional 1 buffers")});
    for (int i = 11; i < 15; ++i)
        taken.push_back(pool.LockBuffer(true));
    EXPECT_EQ(pool.LockBuffer(false), nullptr);
    EXPECT_EQ(log.Errors(), Lines{});
    EXPECT_EQ(pool.LockBuffer(true), nullptr);
    EXPECT_EQ(log.Errors(),
              Lines{line("LockBuffer", pool, "100/15",
                         "no more empty buffers but auto-growth prevented: original 10 buffers, "
                         "current 15 buffers")});
    log.Clear();
    pool.Reallocate(200, 2);
    EXPECT_EQ(log.Lines(FileLog::Warning),
              Lines{line("Reallocate", pool, "100/15", "re-allocating 2 buffers of 200 bytes")});
    pool.Reallocate(-1, 2);
    EXPECT_EQ(log.Errors(), Lines{line("Reallocate", pool, "200/2", "a size or count below 0")});
    EXPECT_EQ(pool.BufferSize(), 200);
    giveBack(taken);
    EXPECT_THROW(DefaultPacketBufferAllocator(-1, 1, true, 1.0F), GeneralException);
    EXPECT_THROW(DefaultPacketBufferAllocator(1, -1, true, 1.0F), GeneralException);
}

TEST_F(PoolTest, GrowthEndsWhereTheFactorSays) {
    struct Case {
        int count;
        float limit;
        std::size_t most;
    };
    // 100 grows by 10, 11, 12, 13, ... until it has reached 1000; a limit of less than the count never grows.
    const Case cases[] = {{100, 10.0F, 1053}, {100, 1.05F, 110}, {7, 1.3F, 9},  {3, 3.0F, 9},
                          {0, 10.0F, 0},      {5, 0.5F, 5},      {5, -1.0F, 5}, {5, std::nanf(""), 5},
                          {40, 1.1F, 44},     {1, 4.99F, 4},     {19, 1.2F, 22}};
    for (const Case& test : cases) {
        DefaultPacketBufferAllocator pool(1, test.count, true, test.limit);
        const auto taken = takeAll(pool);
        EXPECT_EQ(taken.size(), test.most) << test.count << " times " << test.limit;
        giveBack(taken);
    }
}

TEST_F(PoolTest, ReportsItsUsageOncePerMinute) {
    const auto expected = [&](const PacketBufferAllocator& pool, int peak, int average, int current) {
        char text[100];
        std::snprintf(text, sizeof text, "peak usage %d, average usage %d, current usage %d", peak, average,
                      current);
        return line("LockBuffer", pool, "10/4", text);
    };
    support::FakeClock clock;
    DefaultPacketBufferAllocator pool(10, 4, false, 1.0F);
    EXPECT_EQ(pool.GetAverageUsage(), 0);
    auto taken = takeAll(pool);  // usages 1, 2, 3, 4
    EXPECT_EQ(log.Lines(FileLog::Debug), Lines{expected(pool, 1, 1, 1)});
    log.Clear();
    clock.Advance(59 * kSecond);
    taken[0]->Release();  // 3
    EXPECT_EQ(log.Lines(), Lines{});
    clock.Advance(kSecond);
    taken[1]->Release();  // 2: a sum of 15 over 6
    EXPECT_EQ(log.Lines(FileLog::Debug), Lines{expected(pool, 4, 2, 2)});
    taken[2]->Release();
    taken[3]->Release();
    EXPECT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(pool.GetAverageUsage(), 2);  // 16 over 8
}

TEST_F(PoolTest, HeldBuffersOutliveTheirPool) {
    PacketBuffer* held = nullptr;
    PacketBuffer* older = nullptr;
    std::string expected;
    {
        DefaultPacketBufferAllocator pool(100, 3, false, 1.0F);
        older = pool.LockBuffer(true);
        pool.Reallocate(50, 3);
        held = pool.LockBuffer(true);
        held->AddRef();
        expected = line("~DefaultPacketBufferAllocator", pool, "50/3",
                        "1 MediaBuffers are still locked, deleting them anyway...");
    }
    EXPECT_EQ(log.Errors(), Lines{expected});
    held->Buffer()[49] = 1;
    older->Buffer()[99] = 1;
    EXPECT_EQ(held->Release(), 1);
    EXPECT_EQ(held->Release(), 0);
    EXPECT_EQ(older->Release(), 0);
}

/// A pool that tells when a buffer has come back.
class TellingPool : public DefaultPacketBufferAllocator {
public:
    using DefaultPacketBufferAllocator::DefaultPacketBufferAllocator;
    ~TellingPool() override { retire(); }
    std::atomic<int> returned{0};

protected:
    bool releaseBuffer(PacketBuffer* buffer) override {
        ++returned;
        return DefaultPacketBufferAllocator::releaseBuffer(buffer);
    }
};

/// A pool that knows nothing of control blocks.
class ForeignPool : public PacketBufferAllocator {
public:
    struct Own : PacketBuffer {
        explicit Own(ForeignPool* pool) : PacketBuffer(pool, 10) { AddRef(); }
    };
    PacketBuffer* LockBuffer(bool) override { return new Own(this); }
    void Reallocate(int, int) override {}
    int BufferSize() override { return 10; }
    int BufferCount() override { return 0; }
    bool keep = false;

protected:
    bool releaseBuffer(PacketBuffer*) override { return !keep; }
};

TEST_F(PoolTest, DerivedPoolsSeeEveryReturn) {
    PacketBuffer* late = nullptr;
    {
        TellingPool pool(10, 2, false, 1.0F);
        late = pool.LockBuffer(true);
        pool.LockBuffer(true)->Release();
        EXPECT_EQ(pool.returned, 1);
    }
    late->Release();

    ForeignPool foreign;
    foreign.LockBuffer(true)->Release();
    foreign.keep = true;
    PacketBuffer* const kept = foreign.LockBuffer(true);
    EXPECT_EQ(kept->Release(), 0);
    EXPECT_EQ(kept->Size(), 10);
    delete kept;
}

TEST_F(PoolTest, LosesNothingWhenMemoryRunsOut) {
    const std::uint64_t failures = support::ForEachNthFailure(support::FaultKind::Allocate, [] {
        std::vector<PacketBuffer*> taken;
        {
            const support::FaultPause pause;
            taken.reserve(64);
        }
        std::unique_ptr<DefaultPacketBufferAllocator> pool;
        try {
            pool = std::make_unique<DefaultPacketBufferAllocator>(16, 10, true, 2.0F);
        } catch (const std::bad_alloc&) {
            return;
        }
        for (int i = 0; i < 12; ++i) {
            if (PacketBuffer* const buffer = pool->LockBuffer(true)) taken.push_back(buffer);
        }
        const int count = pool->BufferCount();
        EXPECT_EQ(pool->FreeBufferCount(), count - static_cast<int>(taken.size()));
        pool->Reallocate(32, 3);
        const support::FaultPause pause;
        EXPECT_TRUE((pool->BufferSize() == 32 && pool->FreeBufferCount() == 3) ||
                    (pool->BufferSize() == 16 && pool->BufferCount() == count));
        giveBack(taken);
        EXPECT_EQ(pool->FreeBufferCount(), pool->BufferCount());
    });
    EXPECT_GE(failures, 15u);  // the buffers alone
}

TEST_F(PoolTest, ARoundAllocatesNothing) {
    DefaultPacketBufferAllocator pool(1500, 4, true, 2.0F);
    pool.LockBuffer(true)->Release();  // reports
    const support::FaultPlan plan(support::FaultKind::Allocate, UINT64_MAX);
    for (int i = 0; i < 1000; ++i) {
        PacketBuffer* const first = pool.LockBuffer(true);
        PacketBuffer* const second = pool.LockBuffer(true);
        first->SourceId() = "id";
        first->Append("abc", 3);
        first->Release();
        second->Release();
    }
    EXPECT_EQ(plan.Calls(), 0u);
}

TEST_F(PoolTest, ThreadsShareBuffersReallocationAndTheEnd) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    auto pool = std::make_unique<DefaultPacketBufferAllocator>(64, 4, true, 3.0F);
    std::atomic<int> finished{0};
    std::vector<PacketBuffer*> last(kThreads);
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; ++id) {
        threads.emplace_back([&, id] {
            for (int i = 0; i < kRounds; ++i) {
                PacketBuffer* const buffer = pool->LockBuffer(true);
                ASSERT_NE(buffer, nullptr);
                ASSERT_EQ(buffer->ActualSize(), 0);
                ASSERT_TRUE(buffer->Append(&i, sizeof i));
                std::thread other;
                if (i % 500 == 0) {
                    buffer->AddRef();
                    other = std::thread([buffer] { buffer->Release(); });
                }
                buffer->Release();
                if (other.joinable()) other.join();
            }
            last[static_cast<std::size_t>(id)] = pool->LockBuffer(true);
            ++finished;
            while (finished <= kThreads)
                std::this_thread::yield();
            last[static_cast<std::size_t>(id)]->Release();  // while the pool goes
        });
    }
    for (int i = 0; finished < kThreads; ++i) {
        pool->Reallocate(64, 4 + i % 3);
        std::this_thread::yield();
    }
    ++finished;
    pool.reset();
    for (std::thread& thread : threads)
        thread.join();
}

}  // namespace
}  // namespace Mivra::Common
