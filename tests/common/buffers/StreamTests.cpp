// What every stream of the library does alike: once over a chain of small buffers and once over a file.

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/FileStream.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/buffers/VersatileBufferStream.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/Reference.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace Mivra::Common {
namespace {

namespace support = Mivra::Test;

const unsigned char* bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

class StreamTest : public ::testing::TestWithParam<const char*> {
protected:
    StreamTest() { Media::MediaGlobal::Initialize(4, 20, 8, 20, 16, 20); }
    ~StreamTest() override {
        for (PacketBufferAllocator* pool :
             {Media::MediaGlobal::GetSmallAllocator(), Media::MediaGlobal::GetAllocator(),
              Media::MediaGlobal::GetBigAllocator()}) {
            EXPECT_EQ(dynamic_cast<DefaultPacketBufferAllocator*>(pool)->FreeBufferCount(),
                      pool->BufferCount());
        }
        Media::MediaGlobal::Uninitialize();
        EXPECT_EQ(log.Errors(), std::vector<std::string>{});
    }

    static bool isFile() { return GetParam() == std::string("FileStream"); }

    /// A stream with the content, at position 0, that may grow.
    std::unique_ptr<IStream> make(const std::string& content) {
        if (isFile()) {
            support::WriteWholeFile(folder / "stream", content);
            return std::make_unique<FileStream>(folder / "stream", "r+b");
        }
        auto stream = std::make_unique<VersatileBufferStream>();
        for (std::size_t at = 0; at < content.size(); at += 3) {
            const std::string piece = content.substr(at, 3);
            const auto buffer = Reference<PacketBuffer>::Adopt(Media::MediaGlobal::LockBuffer(4));
            buffer->Append("#", 1);
            buffer->Append(piece.data(), static_cast<int>(piece.size()));
            stream->Append(buffer.get(), 1, static_cast<int>(piece.size()));
        }
        stream->SetAutoGrowth(true);
        return stream;
    }

    static std::string content(IStream& stream, std::size_t most = 1000) {
        std::string text(most, '?');
        stream.SetPosition(0);
        const int read =
            stream.Read(reinterpret_cast<unsigned char*>(text.data()), 0, static_cast<int>(most));
        text.resize(static_cast<std::size_t>(read));
        return text;
    }

    /// The text of the exception without the class; "" when there is none.
    static std::string failure(const std::function<void()>& action) {
        try {
            action();
        } catch (const GeneralException& exception) {
            const std::string text = exception.what();
            const std::string prefix = GetParam() + std::string("::");
            EXPECT_TRUE(text.starts_with(prefix)) << text;
            return text.substr(std::min(prefix.size(), text.size()));
        }
        return "";
    }

    support::LogCapture log;
    support::TempFolder folder;
};

TEST_P(StreamTest, ReadsToTheEndAndNotBeyond) {
    const auto stream = make("0123456789");
    EXPECT_TRUE(stream->CanRead() && stream->CanSeek() && stream->CanWrite());
    EXPECT_EQ(stream->GetStreamType(), isFile() ? IStream::File : IStream::Buffer);
    EXPECT_EQ(stream->GetLength(), 10);
    unsigned char out[12] = {};
    EXPECT_EQ(stream->Read(out, 2, 5), 5);
    EXPECT_EQ(std::string(out + 2, out + 7), "01234");
    EXPECT_EQ(stream->PeekByte(), '5');
    EXPECT_EQ(stream->ReadByte(), '5');
    EXPECT_EQ(stream->Read(out, 0, 12), 4);
    EXPECT_EQ(stream->GetPosition(), 10);
    EXPECT_EQ(stream->Read(out, 0, 1), 0);
    EXPECT_EQ(stream->ReadByte(), -1);
    EXPECT_EQ(stream->PeekByte(), -1);
    EXPECT_EQ(stream->GetPosition(), 10);
    for (const auto& range : {std::pair{-1, 1}, {0, -1}}) {
        EXPECT_EQ(failure([&] { stream->Read(out, range.first, range.second); }),
                  "Read: Argument out of range");
        EXPECT_EQ(failure([&] { stream->Write(out, range.first, range.second); }),
                  "Write: Argument out of range");
    }
}

TEST_P(StreamTest, SeeksInsideOnly) {
    const auto stream = make("0123456789");
    constexpr const char* kPosition = "SetPosition: Argument out of range #1";
    constexpr const char* kBelow = "SeekBits: Argument out of range #1";
    constexpr const char* kAbove = "SeekBits: Argument out of range #2";
    struct Case {
        std::int64_t offset;
        Origin origin;
        bool bits;
        std::string failure;
        std::int64_t result;
    };
    // All from byte 4, bit 3.
    const Case cases[] = {
        {10, Origin::Begin, false, "", 10},      {11, Origin::Begin, false, kPosition, 0},
        {-4, Origin::Current, false, "", 0},     {INT64_MAX, Origin::Current, false, kPosition, 0},
        {3, Origin::End, false, "", 7},          {-1, Origin::End, false, kPosition, 0},
        {81, Origin::Begin, true, kAbove, 0},    {2, Origin::Current, true, "", 37},
        {-36, Origin::Current, true, kBelow, 0}, {INT64_MAX, Origin::Current, true, kAbove, 0},
        {79, Origin::End, true, "", 1},          {INT64_MIN, Origin::End, true, kAbove, 0},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(testing::Message() << test.offset << (test.bits ? " bits" : " bytes"));
        stream->SetPosition(4);
        stream->SetBitPosition(3);
        std::int64_t result = 0;
        EXPECT_EQ(failure([&] {
                      result = test.bits ? stream->SeekBits(test.offset, test.origin)
                                         : stream->Seek(test.offset, test.origin);
                  }),
                  test.failure);
        EXPECT_EQ(result, test.result);
        const std::int64_t expected = !test.failure.empty() ? 35 : test.bits ? test.result : test.result * 8;
        EXPECT_EQ(stream->GetPosition() * 8 + stream->GetBitPosition(), expected);
    }
    EXPECT_EQ(failure([&] { stream->SetBitPosition(8); }), "SetBitPosition: Argument out of range");
    EXPECT_EQ(failure([&] { stream->SetBitPosition(-1); }), "SetBitPosition: Argument out of range");
}

TEST_P(StreamTest, ByteOperationsBeginAtTheCurrentByteAndDropItsBits) {
    const auto stream = make("0123456789");
    unsigned char out[4];
    const std::function<void()> operations[] = {
        [&] { EXPECT_EQ(stream->Read(out, 0, 1), 1); }, [&] { EXPECT_EQ(stream->ReadByte(), '4'); },
        [&] { stream->Write(bytes("4"), 0, 1); }, [&] { stream->WriteByte('4'); }};
    for (const auto& operation : operations) {
        stream->SetPosition(4);
        stream->SetBitPosition(5);
        EXPECT_EQ(stream->PeekByte(), '4');
        EXPECT_EQ(stream->GetBitPosition(), 5);
        operation();
        EXPECT_EQ(stream->GetPosition(), 5);
        EXPECT_EQ(stream->GetBitPosition(), 0);
    }
    EXPECT_EQ(content(*stream), "0123456789");
}

TEST_P(StreamTest, WritesOverAndGrows) {
    const auto stream = make("0123456789");
    stream->SetPosition(2);
    stream->Write(bytes("_abcdef"), 1, 5);
    EXPECT_EQ(content(*stream), "01abcde789");
    stream->SetPosition(8);
    stream->Write(bytes("ABCDE"), 0, 5);
    EXPECT_EQ(stream->GetPosition(), 13);
    EXPECT_EQ(content(*stream, 13), "01abcde7ABCDE");
    // Buffers add all of their capacity, with zeros.
    const std::string all = content(*stream);
    EXPECT_EQ(all, "01abcde7ABCDE" + std::string(isFile() ? 0 : 1, '\0'));
    stream->Flush();
    if (isFile()) {
        EXPECT_EQ(support::ReadWholeFile(folder / "stream"), all);
    }
}

TEST_P(StreamTest, LengthCutsAndGrowsWithZeros) {
    const auto stream = make("0123456789");
    stream->SetPosition(6);
    stream->SetBitPosition(2);
    stream->SetLength(7);
    EXPECT_EQ(stream->GetPosition() * 8 + stream->GetBitPosition(), 50);
    stream->SetLength(4);
    EXPECT_EQ(stream->GetPosition() * 8 + stream->GetBitPosition(), 32);
    stream->SetLength(40);
    EXPECT_EQ(stream->GetLength(), 40);
    EXPECT_EQ(content(*stream), "0123" + std::string(36, '\0'));
    stream->SetLength(0);
    EXPECT_EQ(content(*stream), "");
    EXPECT_EQ(failure([&] { stream->SetLength(-1); }), "SetLength: Argument out of range #1");
}

INSTANTIATE_TEST_SUITE_P(Streams, StreamTest, ::testing::Values("VersatileBufferStream", "FileStream"),
                         [](const auto& parameter) { return std::string(parameter.param); });

}  // namespace
}  // namespace Mivra::Common
