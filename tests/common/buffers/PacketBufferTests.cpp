#include "mivra/common/buffers/PacketBuffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <sstream>
#include <string>
#include <utility>

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

// What operations do to the content is the fuzz target's model's; here is what they say.
TEST_F(PacketBufferTest, RefusesInItsOwnWords) {
    Buffer buffer = take("0123456789");
    char bytes[23] = {};
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<void*>(&pool));
    const auto append = [&](const char* count) {
        return "PacketBuffer::Append: allocator " + std::string(address) + " requested size " + count +
               " is bigger than remaining 22 (total 32)";
    };
    const auto stream = std::make_shared<VersatileBufferStream>();
    const std::pair<std::function<bool()>, std::string> refusals[] = {
        {[&] { return buffer->Append(bytes, 23); }, append("23")},
        {[&] { return buffer->Append(bytes, -1); }, append("-1")},
        {[&] { return buffer->Append(buffer.get(), 8, 3); },
         "PacketBuffer::CopyTo: requested size 3 is bigger than actual 10"},
        {[&] { return buffer->Append(nullptr, 0, 0); }, ""},
        {[&] { return buffer->Insert(0, bytes, 23, true); },
         "PacketBuffer::Insert: requested size 23 is bigger than actual 10"},
        {[&] { return buffer->CopyTo(INT_MAX, bytes, INT_MAX); },
         "PacketBuffer::CopyTo: requested size 2147483647 is bigger than actual 10"},
        {[&] { return buffer->CopyTo(8, stream, 3); },
         "PacketBuffer::CopyTo: requested size 3 is bigger than actual 10"},
        {[&] { return buffer->CopyTo(0, std::shared_ptr<IStream>(), 1); },
         "PacketBuffer::CopyTo: there is no stream"},
        {[&] { return buffer->MoveTo(nullptr, 1); },
         "PacketBuffer::MoveTo: pToBuff == NULL || size <= 0 || size > this->actualBufferSize"},
        {[&] { return buffer->Flush(INT_MIN); }, "PacketBuffer::Flush: bytesToRemove -2147483648 is too big"},
    };
    for (const auto& [call, text] : refusals) {
        log.Clear();
        EXPECT_EQ(content(buffer), "0123456789");
        EXPECT_FALSE(call()) << text;
        EXPECT_EQ(log.Errors(), text.empty() ? std::vector<std::string>() : std::vector{text});
    }
    EXPECT_EQ(content(buffer), "") << "what cannot be flushed goes";
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
