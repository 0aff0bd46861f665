#include "mivra/common/buffers/MediaGlobal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/VersatileBufferStream.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/LogCapture.h"

namespace Mivra::Media {
namespace {

namespace support = Mivra::Test;

using Common::DefaultPacketBufferAllocator;
using Common::PacketBuffer;
using Common::PacketBufferAllocator;
using Lines = std::vector<std::string>;

class MediaGlobalTest : public ::testing::Test {
protected:
    MediaGlobalTest() { MediaGlobal::Uninitialize(); }
    ~MediaGlobalTest() override { MediaGlobal::Uninitialize(); }

    /// "Created ..." and "re-allocating ..." lines.
    Lines made() const {
        Lines lines;
        for (const std::string& line : log.Lines()) {
            if (line.find("Created") != std::string::npos || line.find("re-alloc") != std::string::npos) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    support::LogCapture log;
};

TEST_F(MediaGlobalTest, InitializesThreeScaledPoolsOnce) {
    struct Case {
        float scale;
        int small, normal, big;
    };
    // A scale below 0.1 is 1, not 0.1; counts are truncated.
    for (const Case& test : {Case{0.05F, 1000, 100, 20}, Case{0.5F, 500, 50, 10}, Case{0.1F, 100, 10, 2},
                             Case{-3.0F, 1000, 100, 20}, Case{0.199F, 199, 19, 3}}) {
        log.Clear();
        MediaGlobal::Initialize(test.scale);
        MediaGlobal::Initialize(1, 1, 1, 1, 1, 1);  // too late
        EXPECT_TRUE(MediaGlobal::IsInitialized());
        const std::string counts[] = {std::to_string(test.small), std::to_string(test.normal),
                                      std::to_string(test.big)};
        EXPECT_EQ(made(),
                  (Lines{"DEBUG Created small allocator, buffer size 5120, buffer count " + counts[0],
                         "DEBUG Created normal allocator, buffer size 51200, buffer count " + counts[1],
                         "DEBUG Created media allocator, buffer size 1048576, buffer count " + counts[2]}));
        MediaGlobal::Uninitialize();
        EXPECT_FALSE(MediaGlobal::IsInitialized());
    }
}

TEST_F(MediaGlobalTest, GettersMakePoolsOfTheirOwnThatInitializeReplaces) {
    PacketBufferAllocator* const small = MediaGlobal::GetSmallAllocator();
    EXPECT_EQ(small, MediaGlobal::GetSmallAllocator());
    EXPECT_EQ(small->BufferCount(), 1000);
    EXPECT_EQ(MediaGlobal::GetAllocator()->BufferCount(), 100);
    EXPECT_EQ(MediaGlobal::GetBigAllocator()->BufferCount(), 10);  // half of what Initialize makes
    EXPECT_FALSE(MediaGlobal::IsInitialized());
    EXPECT_EQ(made(), Lines{});

    PacketBuffer* const held = MediaGlobal::GetBigAllocator()->LockBuffer(true);
    MediaGlobal::Initialize(1.0F);
    EXPECT_EQ(MediaGlobal::GetBigAllocator()->BufferCount(), 20);
    held->Buffer()[1048575] = 1;
    held->Release();
}

TEST_F(MediaGlobalTest, TakesTheSmallestPoolThatFits) {
    const auto poolOf = [](int size) {
        PacketBuffer* const buffer = MediaGlobal::LockBuffer(size);
        PacketBufferAllocator* const pool = buffer->Allocator();
        buffer->Release();
        return pool;
    };
    PacketBufferAllocator* const first = poolOf(0);  // which makes the pools
    EXPECT_EQ(first, MediaGlobal::GetSmallAllocator());
    EXPECT_TRUE(MediaGlobal::IsInitialized());
    EXPECT_EQ(poolOf(5120), MediaGlobal::GetSmallAllocator());
    EXPECT_EQ(poolOf(5121), MediaGlobal::GetAllocator());
    EXPECT_EQ(poolOf(51200), MediaGlobal::GetAllocator());
    EXPECT_EQ(poolOf(51201), MediaGlobal::GetBigAllocator());
    EXPECT_EQ(poolOf(1048576), MediaGlobal::GetBigAllocator());
    EXPECT_EQ(MediaGlobal::LockBuffer(-1), nullptr);

    log.Clear();
    PacketBuffer* const large = MediaGlobal::LockBuffer(1048577);
    EXPECT_EQ(large->Size(), 2097154);
    EXPECT_EQ(large->Allocator()->BufferCount(), 3);
    EXPECT_EQ(made(), Lines{});
    PacketBufferAllocator* const extra = large->Allocator();
    EXPECT_EQ(poolOf(2097154), extra);
    PacketBuffer* const second = MediaGlobal::LockBuffer(3000000);
    EXPECT_EQ(second->Allocator(), extra);
    EXPECT_EQ(second->Size(), 6000000);
    EXPECT_EQ(extra->BufferCount(), 3);
    EXPECT_TRUE(log.Contains("re-allocating 3 buffers of 6000000 bytes"));
    large->Release();
    second->Release();
}

TEST_F(MediaGlobalTest, ExtraBigPoolNamesTheBigOneInItsLine) {
    MediaGlobal::Initialize(10, 1, 20, 2, 30, 3);
    log.Clear();
    MediaGlobal::InitializeExtra(40, 4);
    MediaGlobal::InitializeExtra(50, 5);  // too late
    EXPECT_EQ(made(), Lines{"DEBUG Created extra big allocator, buffer size 30, buffer count 3"});
    PacketBuffer* const buffer = MediaGlobal::LockBuffer(31);
    EXPECT_EQ(buffer->Size(), 40);
    EXPECT_EQ(buffer->Allocator()->BufferCount(), 4);
    std::vector<PacketBuffer*> others(4);
    std::generate(others.begin(), others.end(), [] { return MediaGlobal::LockBuffer(31); });
    EXPECT_EQ(buffer->Allocator()->BufferCount(), 5) << "it may grow";
    for (PacketBuffer* const other : others)
        other->Release();
    MediaGlobal::Uninitialize();
    EXPECT_EQ(buffer->Release(), 0);
    MediaGlobal::Initialize({10, 1, false, 1.0F}, {20, 1, false, 1.0F}, {30, 1, false, 1.0F});
    EXPECT_EQ(MediaGlobal::GetAllocator()->BufferSize(), 20);
}

TEST_F(MediaGlobalTest, OwnsAPoolThatIsSet) {
    MediaGlobal::Initialize(10, 1, 20, 1, 30, 1);
    PacketBufferAllocator* const old = MediaGlobal::GetAllocator();
    auto* const own = new DefaultPacketBufferAllocator(25, 1, false, 1.0F);
    MediaGlobal::SetAllocator(own);
    delete old;  // the caller's from now on
    PacketBuffer* const buffer = MediaGlobal::LockBuffer(25);
    EXPECT_EQ(buffer->Allocator(), own);
    EXPECT_EQ(MediaGlobal::LockBuffer(25), nullptr);
    buffer->Release();
}

/// While a buffer is wanted of it, another thread makes the standard pools, which replaces this one.
class ReplacedPool : public DefaultPacketBufferAllocator {
public:
    explicit ReplacedPool(std::thread& thread)
        : DefaultPacketBufferAllocator(1000, 4, false, 1.0F), other(thread) {}
    ~ReplacedPool() override { EXPECT_FALSE(inUse); }

    PacketBuffer* LockBuffer(bool logExhaustion) override {
        inUse = true;
        other = std::thread([] { MediaGlobal::Initialize(10, 1, 20, 1, 30, 1); });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        PacketBuffer* const buffer = DefaultPacketBufferAllocator::LockBuffer(logExhaustion);
        inUse = false;
        return buffer;
    }

private:
    std::thread& other;
    bool inUse = false;
};

TEST_F(MediaGlobalTest, APoolThatAStreamGrowsByIsNotReplacedMeanwhile) {
    std::thread other;
    MediaGlobal::SetAllocator(new DefaultPacketBufferAllocator(10, 1, false, 1.0F));
    MediaGlobal::SetBigAllocator(new ReplacedPool(other));
    Common::VersatileBufferStream stream;
    stream.SetAutoGrowth(true);
    const std::vector<unsigned char> bytes(500);
    stream.Write(bytes.data(), 0, 500);
    other.join();
    EXPECT_EQ(stream.GetLength(), 1000);
    EXPECT_EQ(MediaGlobal::GetBigAllocator()->BufferSize(), 30);
}

TEST_F(MediaGlobalTest, AnswersNullWhenMemoryRunsOut) {
    support::ForEachNthFailure(support::FaultKind::Allocate, [] {
        MediaGlobal::Initialize(10, 2, 20, 1, 30, 1);
        for (const int size : {5, 15, 25, 40, 100}) {
            PacketBuffer* const buffer =
                MediaGlobal::IsInitialized() ? MediaGlobal::LockBuffer(size) : nullptr;
            if (buffer != nullptr) {
                EXPECT_GE(buffer->Size(), size);
                buffer->Release();
            }
        }
        const support::FaultPause pause;
        MediaGlobal::Uninitialize();
    });
    {
        const support::FaultPlan none(support::FaultKind::Allocate, 1, support::FaultPlan::Span::FromThenOn);
        EXPECT_EQ(MediaGlobal::LockBuffer(1), nullptr);
        EXPECT_EQ(MediaGlobal::GetSmallAllocator(), nullptr);
    }
    MediaGlobal::Initialize(10, 2, 20, 1, 30, 1);
    {
        // Twice this size has no place in 31 bits.
        const support::FaultPlan none(support::FaultKind::Allocate, 1, support::FaultPlan::Span::FromThenOn);
        EXPECT_EQ(MediaGlobal::LockBuffer((1 << 30) + 1), nullptr);
    }
    EXPECT_TRUE(log.Contains("no pool of 3 buffers of 2147483647 bytes"));
}

TEST_F(MediaGlobalTest, ThreadsRaceForTheFirstBuffer) {
    for (int round = 0; round < 20; ++round) {
        std::vector<std::thread> threads;
        for (int id = 0; id < 4; ++id) {
            threads.emplace_back([id] {
                for (const int size : {100, 60000 + id, 1100000 + id * 1000000}) {
                    PacketBuffer* const buffer = MediaGlobal::LockBuffer(size);
                    ASSERT_NE(buffer, nullptr);
                    ASSERT_GE(buffer->Size(), size);
                    ASSERT_NE(MediaGlobal::GetBigAllocator(), nullptr);
                    buffer->Release();
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        MediaGlobal::Uninitialize();
    }
    EXPECT_EQ(log.Errors(), Lines{});
}

}  // namespace
}  // namespace Mivra::Media
