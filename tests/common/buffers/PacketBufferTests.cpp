#include "mivra/common/buffers/PacketBuffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <sstream>
#include <string>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/buffers/VersatileBufferStream.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Reference.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/LogCapture.h"

namespace Mivra::Common {
namespace {

namespace support = Mivra::Test;

using Buffer = Reference<PacketBuffer>;

class PacketBufferTest : public ::testing::Test {
protected:
    ~PacketBufferTest() override { EXPECT_EQ(pool.FreeBufferCount(), pool.BufferCount()); }

    Buffer take(std::string_view content = {}) {
        Buffer buffer = Buffer::Adopt(pool.LockBuffer(true));
        EXPECT_TRUE(buffer->Append(content.data(), static_cast<int>(content.size())));
        return buffer;
    }
    static std::string content(const Buffer& buffer) {
        return {buffer->Buffer(), static_cast<std::size_t>(buffer->ActualSize())};
    }

    support::LogCapture log;
    DefaultPacketBufferAllocator pool{32, 2, false, 1.0F};
};

TEST_F(PacketBufferTest, AppendTakesExactlyTheRemainingRoom) {
    Buffer buffer = take("0123456789");
    const std::string more(23, 'x');
    EXPECT_FALSE(buffer->Append(more.data(), 23));
    EXPECT_FALSE(buffer->Append(more.data(), -1));
    EXPECT_EQ(content(buffer), "0123456789");
    EXPECT_TRUE(buffer->Append(more.data(), 22));
    EXPECT_EQ(content(buffer), "0123456789" + more.substr(1));
    char expected[2][160];
    const int sizes[] = {23, -1};
    for (int i = 0; i < 2; ++i) {
        std::snprintf(
            expected[i], sizeof expected[i],
            "PacketBuffer::Append: allocator %p requested size %d is bigger than remaining 22 (total 32)",
            static_cast<void*>(&pool), sizes[i]);
    }
    EXPECT_EQ(log.Errors(), (std::vector<std::string>{expected[0], expected[1]}));

    Buffer other = take("ab");
    log.Clear();
    EXPECT_TRUE(other->Append(buffer.get(), 8, 3));
    EXPECT_FALSE(other->Append(buffer.get(), 30, 3));
    EXPECT_FALSE(other->Append(nullptr, 0, 0));
    EXPECT_EQ(content(other), "ab89x");
    EXPECT_EQ(log.Errors(),
              std::vector<std::string>{"PacketBuffer::CopyTo: requested size 3 is bigger than actual 32"});
}

TEST_F(PacketBufferTest, FlushDropsTheFront) {
    struct Case {
        int position, bytes;
        bool result;
        std::string left;
        int newPosition;
    };
    const Case cases[] = {{10, -1, true, "abcdefghijklmno", 0},
                          {10, 4, true, "456789abcdefghijklmno", 6},
                          {2, 25, true, "", 0},
                          {7, 0, true, "0123456789abcdefghijklmno", 7},
                          {0, -1, true, "0123456789abcdefghijklmno", 0},
                          {5, 26, false, "", 0},
                          {5, -2, false, "", 0},
                          {5, INT_MIN, false, "", 0}};
    for (const Case& test : cases) {
        SCOPED_TRACE(test.bytes);
        Buffer buffer = take("0123456789abcdefghijklmno");
        buffer->Position() = test.position;
        EXPECT_EQ(buffer->Flush(test.bytes), test.result);
        EXPECT_EQ(content(buffer), test.left);
        EXPECT_EQ(buffer->Position(), test.newPosition);
    }
    EXPECT_EQ(log.Errors().at(0), "PacketBuffer::Flush: bytesToRemove 26 is too big");
    EXPECT_EQ(log.Errors().at(1), "PacketBuffer::Flush: bytesToRemove -2 is too big");
}

TEST_F(PacketBufferTest, InsertMakesRoomAndMovesTheCursorWhenAsked) {
    struct Case {
        int position, offset;
        bool moveCursor;
        std::string result;
        int newPosition;
    };
    const Case cases[] = {
        {3, 3, true, "012XY345", 5}, {3, 3, false, "012XY345", 3}, {2, 3, true, "012XY345", 2},
        {6, 0, true, "XY012345", 8}, {0, 6, true, "012345XY", 0},
    };
    for (const Case& test : cases) {
        Buffer buffer = take("012345");
        buffer->Position() = test.position;
        EXPECT_TRUE(buffer->Insert(test.offset, "XY", 2, test.moveCursor));
        EXPECT_EQ(content(buffer), test.result);
        EXPECT_EQ(buffer->Position(), test.newPosition);
    }
    // Bytes of its own: before the place, across it, behind it.
    for (const auto& [from, offset, result] :
         {std::tuple{0, 4, "0123012345"}, {1, 3, "0121234345"}, {2, 0, "2345012345"}, {2, 6, "0123452345"}}) {
        Buffer buffer = take("012345");
        EXPECT_TRUE(buffer->Insert(offset, buffer->Buffer() + from, 4, false));
        EXPECT_EQ(content(buffer), result);
    }
    Buffer buffer = take("012345");
    buffer->Position() = 1;
    EXPECT_TRUE(buffer->Insert("XY", 2, true));
    EXPECT_EQ(content(buffer), "0XY12345");
    const std::string much(25, 'x');
    EXPECT_FALSE(buffer->Insert(0, much.data(), 25, true));
    EXPECT_FALSE(buffer->Insert(9, much.data(), 1, true));
    EXPECT_FALSE(buffer->Insert(-1, much.data(), 1, true));
    EXPECT_FALSE(buffer->Insert(0, much.data(), -1, true));
    EXPECT_EQ(content(buffer), "0XY12345");
    EXPECT_EQ(log.Errors().at(0), "PacketBuffer::Insert: requested size 25 is bigger than actual 8");
}

TEST_F(PacketBufferTest, CopiesAndMovesOnlyWhatIsThere) {
    Buffer buffer = take("0123456789");
    char out[11] = "..........";
    EXPECT_TRUE(buffer->CopyTo(7, out, 3));
    EXPECT_EQ(std::string(out), "789.......");
    for (const auto& [offset, size] : {std::pair{8, 3}, {-1, 1}, {11, 0}, {0, -1}, {INT_MAX, INT_MAX}}) {
        EXPECT_FALSE(buffer->CopyTo(offset, out, size));
        EXPECT_FALSE(buffer->CopyTo(offset, std::make_shared<VersatileBufferStream>(), size));
    }
    EXPECT_EQ(log.Errors().at(0), "PacketBuffer::CopyTo: requested size 3 is bigger than actual 10");
    EXPECT_FALSE(buffer->CopyTo(0, std::shared_ptr<IStream>(), 1));
    EXPECT_TRUE(log.Contains("PacketBuffer::CopyTo: there is no stream"));

    Buffer other = take(std::string(24, 'x'));
    auto stream = std::make_shared<VersatileBufferStream>(other.get());
    EXPECT_TRUE(buffer->CopyTo(2, stream, 4));
    EXPECT_EQ(content(other).substr(0, 5), "2345x");

    log.Clear();
    EXPECT_FALSE(buffer->MoveTo(other.get(), 9));  // no room
    EXPECT_EQ(content(buffer), "0123456789");
    EXPECT_TRUE(buffer->MoveTo(other.get(), 8));
    EXPECT_EQ(content(buffer), "89");
    EXPECT_EQ(content(other).substr(24), "01234567");
    log.Clear();
    EXPECT_FALSE(buffer->MoveTo(other.get(), 3));
    EXPECT_EQ(log.Errors(), std::vector<std::string>{"PacketBuffer::MoveTo: pToBuff == NULL || size <= 0 || "
                                                     "size > this->actualBufferSize"});
    EXPECT_FALSE(buffer->MoveTo(nullptr, 1));
    EXPECT_FALSE(buffer->MoveTo(other.get(), 0));
}

void decorate(PacketBuffer* buffer) {
    buffer->Pts() = 1;
    buffer->Dts() = 2;
    buffer->Duration() = 3;
    buffer->StreamIndex() = 4;
    buffer->KeyFrame() = buffer->CleanPoint() = buffer->Discontinuity() = true;
    buffer->ExtraData()[VersatileBuffer::FlagsAttribute] = 5;
    buffer->ProgramIndex() = 6;
    buffer->OneMessage() = true;
    buffer->FilePosition() = std::int64_t{1} << 40;
    buffer->SourceId() = "source";
    buffer->POIs()[7] = 8;
    buffer->NewMediaType() = new MediaType();
    buffer->RemoteAddr().sin_port = 9;
    buffer->LocalAddr().sin_port = 10;
    buffer->RemoteAddrLen() = 11;
    buffer->BitPosition() = 3;
    buffer->Operation() = 12;
    buffer->OperationFinished() = true;
    buffer->OperationTime() = 13;
    buffer->UserContext() = buffer;
}

/// Every attribute that describes the sample, in one line.
std::string attributes(PacketBuffer* buffer) {
    std::ostringstream text;
    text << buffer->Pts() << ' ' << buffer->Dts() << ' ' << buffer->Duration() << ' ' << buffer->StreamIndex()
         << ' ' << buffer->KeyFrame() << buffer->CleanPoint() << buffer->Discontinuity() << ' ';
    for (const auto& [name, value] : buffer->ExtraData())
        text << name << std::any_cast<int>(value);
    text << ' ' << buffer->ProgramIndex() << ' ' << buffer->OneMessage() << ' ' << buffer->FilePosition()
         << ' ' << buffer->SourceId() << ' ';
    for (const auto& [key, value] : buffer->POIs())
        text << key << ':' << value;
    text << ' ' << (buffer->NewMediaType() != nullptr) << ' ' << buffer->RemoteAddr().sin_port << ' '
         << buffer->LocalAddr().sin_port << ' ' << buffer->RemoteAddrLen();
    return text.str();
}

constexpr const char* kDecorated = "1 2 3 4 111 Flags5 6 1 1099511627776 source 7:8 1 9 10 11";
constexpr const char* kClean = "0 0 0 0 000  0 0 0   0 0 0 16";

TEST_F(PacketBufferTest, ComesBackCleanFromThePool) {
    PacketBuffer* buffer = take("data").Detach();
    decorate(buffer);
    buffer->Position() = 2;
    EXPECT_EQ(attributes(buffer), kDecorated);
    buffer->Release();
    Buffer again = take();
    ASSERT_EQ(again.get(), buffer);
    EXPECT_EQ(attributes(buffer), kClean);
    EXPECT_EQ(buffer->ActualSize() + buffer->Position() + buffer->BitPosition(), 0);
    EXPECT_EQ(buffer->Operation(), -1);
    EXPECT_FALSE(buffer->OperationFinished());
    EXPECT_EQ(buffer->OperationTime(), 0);
    EXPECT_EQ(buffer->UserContext(), nullptr);
    EXPECT_EQ(buffer->ReferenceCount(), 1);
}

TEST_F(PacketBufferTest, CloneAndCopyAttributesAreDeep) {
    Media::MediaGlobal::Initialize(64, 2, 128, 1, 256, 1);
    {
        Buffer buffer = take("data");
        decorate(buffer.get());
        buffer->Position() = 2;
        const Buffer copy = Buffer::Adopt(buffer->Clone());
        ASSERT_TRUE(copy);
        EXPECT_EQ(copy->ReferenceCount(), 1);
        EXPECT_EQ(attributes(copy.get()), kDecorated);
        EXPECT_NE(copy->NewMediaType(), buffer->NewMediaType());
        EXPECT_EQ(content(copy), "data");
        EXPECT_EQ(copy->Position(), 2);
        EXPECT_EQ(copy->BitPosition(), 3);
        EXPECT_EQ(copy->Operation(), -1);
        EXPECT_EQ(copy->UserContext(), nullptr);
        copy->CopyAttributes(take().get());
        EXPECT_EQ(attributes(copy.get()), kClean);
        copy->CopyAttributes(copy.get());
        copy->CopyAttributes(nullptr);
        EXPECT_EQ(attributes(copy.get()), kClean);
        // Whatever allocation fails, the clone is whole or there is none and nothing is lost.
        support::ForEachNthFailure(support::FaultKind::Allocate, [&] {
            try {
                const Buffer another = Buffer::Adopt(buffer->Clone());
                const support::FaultPause pause;
                if (another) {
                    EXPECT_EQ(attributes(another.get()), kDecorated);
                }
            } catch (const std::bad_alloc&) {
            }
        });
    }
    Media::MediaGlobal::Uninitialize();
    EXPECT_EQ(log.Errors(), std::vector<std::string>{});
}

TEST_F(PacketBufferTest, DescribesWhatASocketReadsAndWrites) {
    Buffer buffer = take("0123456789");
    buffer->Position() = 4;
    const auto described = [&](std::uint32_t length, int offset) {
        return buffer->WsaBuffer().len == length && buffer->WsaBuffer().buf == buffer->Buffer() + offset;
    };
    buffer->SetupRead();
    EXPECT_TRUE(described(22, 10));
    buffer->SetupWrite();
    EXPECT_TRUE(described(6, 4));
    buffer->SetupZeroByteRead();
    EXPECT_TRUE(described(0, 0));
}

}  // namespace
}  // namespace Mivra::Common
