#include "mivra/common/buffers/VersatileBufferStream.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/FindStreamWindow.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/Reference.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/LogCapture.h"

namespace Mivra::Common {
namespace {

namespace support = Mivra::Test;
using Media::MediaGlobal;

class VersatileBufferStreamTest : public ::testing::Test {
protected:
    VersatileBufferStreamTest() { MediaGlobal::Initialize(0.1F); }
    ~VersatileBufferStreamTest() override {
        EXPECT_EQ(used(), (std::vector<int>{0, 0, 0}));
        MediaGlobal::Uninitialize();
    }

    /// Buffers that are out, of the small, normal and big pool.
    static std::vector<int> used() {
        std::vector<int> counts;
        for (PacketBufferAllocator* pool : {MediaGlobal::GetSmallAllocator(), MediaGlobal::GetAllocator(),
                                            MediaGlobal::GetBigAllocator()}) {
            counts.push_back(pool->BufferCount() -
                             dynamic_cast<DefaultPacketBufferAllocator*>(pool)->FreeBufferCount());
        }
        return counts;
    }
    static Reference<PacketBuffer> take(const std::string& content) {
        auto buffer =
            Reference<PacketBuffer>::Adopt(MediaGlobal::LockBuffer(static_cast<int>(content.size())));
        buffer->Append(content.data(), static_cast<int>(content.size()));
        return buffer;
    }
    static std::string content(VersatileBufferStream& stream) {
        std::string text(static_cast<std::size_t>(stream.GetLength()), '?');
        EXPECT_EQ(stream.ReadFrom(0, reinterpret_cast<unsigned char*>(text.data()), 0,
                                  static_cast<int>(text.size())),
                  text.size());
        return text;
    }

    support::LogCapture log;
};

TEST_F(VersatileBufferStreamTest, GrowsByTheBuffersThatItsShortfallAsksFor) {
    struct Case {
        int bytes;
        std::vector<int> used;
        std::int64_t length;
    };
    const Case cases[] = {{120000, {0, 0, 1}, 1048576},
                          {6000, {0, 1, 0}, 51200},
                          {5120, {1, 0, 0}, 5120},
                          {51201, {0, 0, 1}, 1048576},
                          {1048576 + 5000, {1, 0, 1}, 1048576 + 5120},
                          {0, {0, 0, 0}, 0}};
    for (const Case& test : cases) {
        SCOPED_TRACE(test.bytes);
        VersatileBufferStream stream;
        stream.SetAutoGrowth(true);
        const std::vector<unsigned char> data(static_cast<std::size_t>(test.bytes), 7);
        stream.Write(data.data(), 0, test.bytes);
        EXPECT_EQ(used(), test.used);
        EXPECT_EQ(stream.GetLength(), test.length);
        EXPECT_EQ(stream.GetPosition(), test.bytes);
    }
}

TEST_F(VersatileBufferStreamTest, HoldsOneReferenceOnEverySlice) {
    const auto buffer = take("0123456789");
    {
        VersatileBufferStream stream(buffer.get());
        EXPECT_EQ(buffer->ReferenceCount(), 2);
        stream.Append(buffer.get(), 8, 2);
        stream.Append(buffer.get(), 0, 1);
        EXPECT_EQ(buffer->ReferenceCount(), 4);
        EXPECT_EQ(content(stream), "0123456789890");
        EXPECT_EQ(stream.GetFirstBuffer(), buffer.get());
        // Slices reach into the capacity, not beyond.
        stream.Append(buffer.get(), 5119, 1);
        for (const auto& [offset, count] : {std::pair{5120, 1}, {0, 5121}, {-1, 1}, {1, -1}}) {
            EXPECT_THROW(stream.Append(buffer.get(), offset, count), GeneralException);
        }
        EXPECT_THROW(stream.Append(nullptr, 0, 0), GeneralException);
        stream.SetLength(11);
        EXPECT_EQ(buffer->ReferenceCount(), 3);
        stream.TrimBegin(10);
        EXPECT_EQ(buffer->ReferenceCount(), 2);
        EXPECT_EQ(content(stream), "8");
    }
    EXPECT_EQ(buffer->ReferenceCount(), 1);
    EXPECT_THROW(VersatileBufferStream(buffer.get(), 5000, 121), GeneralException);
    EXPECT_EQ(buffer->ReferenceCount(), 1);
}

// What is copied and handed over is the fuzz target's model's; here it is shared, and handed to itself.
TEST_F(VersatileBufferStreamTest, SharesWhatItHandsOver) {
    const auto source = take("0123456789");
    VersatileBufferStream from(source.get());
    const auto room = take("..");
    VersatileBufferStream copy(room.get());
    {
        AutoLock guard(from.GetLock());
        from.UnlockedCopyTo(&copy, 9, 1);
    }
    EXPECT_EQ(content(copy), "9.");
    VersatileBufferStream to;
    from.CopyAllTo(&to);
    EXPECT_EQ(source->ReferenceCount(), 3);
    from.WriteByte('X');
    from.MoveTo(&to);
    EXPECT_EQ(source->ReferenceCount(), 3);
    EXPECT_EQ(content(to), "X123456789X123456789");
    to.MoveTo(&to);
    to.CopyAllTo(&to);
    EXPECT_EQ(to.GetLength(), 40);
    EXPECT_THROW(from.CopyTo(nullptr, 1), GeneralException);
}

TEST_F(VersatileBufferStreamTest, OnlyItsOwnClassHasAWindow) {
    const auto buffer = take("0123456789");
    VersatileBufferStream stream(buffer.get(), 2, 4);
    EXPECT_EQ(reinterpret_cast<char*>(FindStreamWindow(&stream)->data), buffer->Buffer() + 2);
    struct Derived : VersatileBufferStream {};
    Derived derived;
    EXPECT_EQ(FindStreamWindow(&derived), nullptr);
    EXPECT_EQ(FindStreamWindow(nullptr), nullptr);
}

TEST_F(VersatileBufferStreamTest, GrowsWholeOrNotAtAll) {
    const std::vector<unsigned char> data(3 * 1048576 + 6000, 9);  // the big pool has 2
    const std::uint64_t failures = support::ForEachNthFailure(support::FaultKind::Allocate, [&] {
        VersatileBufferStream stream;
        stream.SetAutoGrowth(true);
        try {
            stream.Write(data.data(), 0, static_cast<int>(data.size()));
        } catch (const std::exception&) {
            const support::FaultPause pause;
            EXPECT_EQ(stream.GetLength() + stream.GetPosition(), 0);
        }
    });
    EXPECT_GT(failures, 0u);
    // The pools run dry: one big buffer, and no growth.
    MediaGlobal::Uninitialize();
    MediaGlobal::Initialize({5120, 1, false, 1}, {51200, 1, false, 1}, {1048576, 1, false, 1});
    VersatileBufferStream stream;
    stream.SetAutoGrowth(true);
    EXPECT_THROW(stream.Write(data.data(), 0, static_cast<int>(data.size())), GeneralException);
    EXPECT_EQ(stream.GetLength(), 0);
    EXPECT_EQ(used(), (std::vector<int>{0, 0, 0}));
    stream.SetAutoGrowth(false);
    try {
        stream.Write(data.data(), 0, 1);
        ADD_FAILURE();
    } catch (const GeneralException& exception) {
        EXPECT_STREQ(exception.what(), "VersatileBufferStream::Write: Argument out of range");
    }
}

// Two threads that copy opposite ways would otherwise wait for each other.
TEST_F(VersatileBufferStreamTest, LocksTwoStreamsInOneOrderBothWays) {
    const auto buffer = take("0123456789");
    const auto pair = std::make_unique<VersatileBufferStream[]>(2);
    VersatileBufferStream& lower = pair[0];
    VersatileBufferStream& upper = pair[1];
    lower.Append(buffer.get(), 0, 10);
    upper.Append(buffer.get(), 0, 10);
    const auto holdsLower = [&]() MIVRA_NO_THREAD_SAFETY_ANALYSIS {
        if (!lower.GetLock().TryLock()) return true;
        lower.GetLock().Unlock();
        return false;
    };
    for (const bool upwards : {true, false}) {
        std::thread copier;
        {
            AutoLock guard(upper.GetLock());
            copier = std::thread(
                [&] { upwards ? lower.CopyTo(&upper, 0, 1, false) : upper.CopyTo(&lower, 0, 1, false); });
            const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            while (!holdsLower() && std::chrono::steady_clock::now() < limit)
                std::this_thread::yield();
            EXPECT_TRUE(holdsLower());
        }
        copier.join();
    }
}

}  // namespace
}  // namespace Mivra::Common
