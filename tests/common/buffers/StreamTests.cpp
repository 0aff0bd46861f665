// What every stream of the library refuses alike: once over a chain of small buffers and once over a file.
// What they do is the fuzz target's model's.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "mivra/common/buffers/FileStream.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/buffers/VersatileBufferStream.h"
#include "mivra/common/runtime/GeneralException.h"
#include "tests/support/TempFolder.h"

namespace Mivra::Common {
namespace {

struct Refusal {
    void (*call)(IStream&);
    const char* text;
};

unsigned char s_out[1];

const Refusal kRefusals[] = {
    {[](IStream& stream) { stream.Read(s_out, -1, 1); }, "Read: Argument out of range"},
    {[](IStream& stream) { stream.Read(s_out, 0, -1); }, "Read: Argument out of range"},
    {[](IStream& stream) { stream.Write(s_out, -1, 1); }, "Write: Argument out of range"},
    {[](IStream& stream) { stream.Write(s_out, 0, -1); }, "Write: Argument out of range"},
    {[](IStream& stream) { stream.SetLength(-1); }, "SetLength: Argument out of range #1"},
    {[](IStream& stream) { stream.SetBitPosition(8); }, "SetBitPosition: Argument out of range"},
    {[](IStream& stream) { stream.SetBitPosition(-1); }, "SetBitPosition: Argument out of range"},
    {[](IStream& stream) { stream.Seek(11, Origin::Begin); }, "SetPosition: Argument out of range #1"},
    {[](IStream& stream) { stream.Seek(INT64_MAX, Origin::Current); },
     "SetPosition: Argument out of range #1"},
    {[](IStream& stream) { stream.Seek(-1, Origin::End); }, "SetPosition: Argument out of range #1"},
    {[](IStream& stream) { stream.SeekBits(-36, Origin::Current); }, "SeekBits: Argument out of range #1"},
    {[](IStream& stream) { stream.SeekBits(81, Origin::Begin); }, "SeekBits: Argument out of range #2"},
    {[](IStream& stream) { stream.SeekBits(INT64_MAX, Origin::Current); },
     "SeekBits: Argument out of range #2"},
    {[](IStream& stream) { stream.SeekBits(INT64_MIN, Origin::End); }, "SeekBits: Argument out of range #2"},
};

/// Of ten bytes, from byte 4, bit 3, where it stays.
void expectRefusals(IStream& stream, const std::string& name) {
    EXPECT_TRUE(stream.CanRead() && stream.CanSeek() && stream.CanWrite());
    stream.SetLength(10);
    stream.SetPosition(4);
    stream.SetBitPosition(3);
    for (const Refusal& refusal : kRefusals) {
        try {
            refusal.call(stream);
            ADD_FAILURE() << "no exception: " << refusal.text;
        } catch (const GeneralException& exception) {
            EXPECT_EQ(exception.what(), name + "::" + refusal.text);
        }
        EXPECT_EQ(stream.GetPosition() * 8 + stream.GetBitPosition(), 35);
    }
}

TEST(StreamTest, RefusesInItsOwnWords) {
    const Mivra::Test::TempFolder folder;
    FileStream file(folder / "stream", "w+b");
    EXPECT_EQ(file.GetStreamType(), IStream::File);
    expectRefusals(file, "FileStream");
    Media::MediaGlobal::Initialize(4, 20, 8, 20, 16, 20);
    {
        VersatileBufferStream chain;
        chain.SetAutoGrowth(true);
        EXPECT_EQ(chain.GetStreamType(), IStream::Buffer);
        expectRefusals(chain, "VersatileBufferStream");
    }
    Media::MediaGlobal::Uninitialize();
}

}  // namespace
}  // namespace Mivra::Common
