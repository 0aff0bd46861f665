// What every stream of the library refuses alike: once over a chain of small buffers and once over a file.
// What they do is the fuzz target's model's.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "mivra/common/buffers/FileStream.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/buffers/VersatileBufferStream.h"
#include "mivra/common/runtime/GeneralException.h"
#include "tests/support/TempFolder.h"

namespace Mivra::Common {
namespace {

class StreamTest : public ::testing::TestWithParam<const char*> {
protected:
    StreamTest() { Media::MediaGlobal::Initialize(4, 20, 8, 20, 16, 20); }
    ~StreamTest() override { Media::MediaGlobal::Uninitialize(); }

    static bool isFile() { return GetParam() == std::string("FileStream"); }

    /// A stream of ten bytes, at position 0, that may grow.
    std::unique_ptr<IStream> make() {
        std::unique_ptr<IStream> stream;
        if (isFile()) {
            stream = std::make_unique<FileStream>(folder / "stream", "w+b");
        } else {
            auto chain = std::make_unique<VersatileBufferStream>();
            chain->SetAutoGrowth(true);
            stream = std::move(chain);
        }
        stream->SetLength(10);
        return stream;
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

    Mivra::Test::TempFolder folder;
};

TEST_P(StreamTest, SaysWhatItCannotDo) {
    const auto stream = make();
    EXPECT_TRUE(stream->CanRead() && stream->CanSeek() && stream->CanWrite());
    EXPECT_EQ(stream->GetStreamType(), isFile() ? IStream::File : IStream::Buffer);
    unsigned char out[1] = {};
    for (const auto& range : {std::pair{-1, 1}, {0, -1}}) {
        EXPECT_EQ(failure([&] { stream->Read(out, range.first, range.second); }),
                  "Read: Argument out of range");
        EXPECT_EQ(failure([&] { stream->Write(out, range.first, range.second); }),
                  "Write: Argument out of range");
    }
    EXPECT_EQ(failure([&] { stream->SetLength(-1); }), "SetLength: Argument out of range #1");
    EXPECT_EQ(failure([&] { stream->SetBitPosition(8); }), "SetBitPosition: Argument out of range");
    EXPECT_EQ(failure([&] { stream->SetBitPosition(-1); }), "SetBitPosition: Argument out of range");
}

TEST_P(StreamTest, SeeksInsideOnly) {
    const auto stream = make();
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
}

INSTANTIATE_TEST_SUITE_P(Streams, StreamTest, ::testing::Values("VersatileBufferStream", "FileStream"),
                         [](const auto& parameter) { return std::string(parameter.param); });

}  // namespace
}  // namespace Mivra::Common
