#include "mivra/common/binary/EndianBinaryReader.h"

#include "mivra/common/binary/EndianBinaryWriter.h"
#include "tests/common/binary/BinaryFixture.h"

namespace Mivra::Test {
namespace {

using namespace Common;

TEST(EndianBinaryReader, TakesAnUnknownOrderForItsOwn) {
    Packet packet({0xA5});
    EndianBinaryReader reader(packet.buffer);
    EXPECT_EQ(reader.ReadBits(4, static_cast<Endianness>(7)), 0xA);
}

TEST(EndianBinaryReader, FailsInItsOwnWords) {
    const auto words = [](const char* size) { return Outbound("EndianBinaryReader", size); };
    Packet packet({1, 2, 3, 4});
    EndianBinaryReader reader(packet.buffer);
    reader.ReadByte();
    unsigned char out[8];
    std::string text = "kept";
    EXPECT_EQ(FailureOf([&] { reader.ReadUInt32(); }), words("4"));
    EXPECT_EQ(FailureOf([&] { reader.ReadInt64(5); }), words("5"));
    EXPECT_EQ(FailureOf([&] { reader.ReadInt64(-1); }), words("-1"));
    EXPECT_EQ(FailureOf([&] { reader.ReadBits(25); }), words("4"));
    EXPECT_EQ(FailureOf([&] { reader.Read(out, 4); }), words("4"));
    EXPECT_EQ(FailureOf([&] { reader.Read(text, INT32_MAX); }), words("2147483647"));
    EXPECT_EQ(FailureOf([&] { reader.Read(text, -5); }), words("-5"));
    for (const int count : {-1, 65, INT32_MAX, INT32_MIN}) {
        EXPECT_NE(FailureOf([&] { reader.ReadBits(count); }), "") << count;
    }
    EXPECT_NE(FailureOf([&] { reader.ReadInt64(9); }), "");
    EXPECT_EQ(reader.FullBitPosition(), 8) << "nothing was consumed";
    EXPECT_EQ(text, "kept");

    EndianBinaryReader nothing(std::shared_ptr<IStream>{});
    EXPECT_EQ(FailureOf([&] { nothing.ReadByte(); }), "EndianBinaryReader::checkBuffer: stream is NULL");
    EXPECT_EQ(FailureOf([&] { nothing.ReadBits(1); }), "EndianBinaryReader::checkBuffer: stream is NULL");
}

TEST(EndianBinaryReader, TellsHowManyBytesAStreamWithheldWithTheInvertedPlural) {
    Packet packet({1, 2, 3});
    const auto failure = [&](int count, bool raw) {
        EndianBinaryReader reader(std::make_shared<ShortStream>(packet, 100));
        unsigned char out[16];
        std::string text = FailureOf([&] { raw ? reader.Read(out, count) : (reader.ReadInt64(count), 0); });
        EXPECT_EQ(reader.Position(), 3) << "left where the read stopped";
        return text;
    };
    const std::string tail = ": End of stream reached with ";
    EXPECT_EQ(failure(4, false), "EndianBinaryReader::readInternal" + tail + "1 bytes left to read.");
    EXPECT_EQ(failure(6, false), "EndianBinaryReader::readInternal" + tail + "3 byte left to read.");
    EXPECT_EQ(failure(4, true), "EndianBinaryReader::Read" + tail + "1 bytes left to read.");
    EXPECT_EQ(failure(9, true), "EndianBinaryReader::Read" + tail + "6 byte left to read.");
}

TEST(EndianBinaryReader, BeginsWhereThePacketStandsAndHoldsIt) {
    Packet packet({0x00, 0x0F, 0xFF});
    packet.buffer->ActualSize() = 2;
    packet.buffer->Position() = 1;
    packet.buffer->BitPosition() = 4;
    {
        EndianBinaryReader reader(packet.buffer);
        EXPECT_GT(packet.buffer->ReferenceCount(), 1);
        EXPECT_EQ(reader.Length(), 2);
        EXPECT_EQ(reader.ReadBits(4), 0xF);
        EXPECT_THROW(reader.ReadBits(1), GeneralException) << "only the valid bytes";
    }
    EXPECT_EQ(packet.buffer->ReferenceCount(), 1);
    packet.buffer->Position() = 3;
    EXPECT_THROW(EndianBinaryReader{packet.buffer}, GeneralException);
    EXPECT_EQ(packet.buffer->ReferenceCount(), 1);
}

TEST(EndianBinaryReader, FollowsAStreamThatChangesUnderIt) {
    Packet first({1, 2});
    Packet second({3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    const auto stream = std::make_shared<VersatileBufferStream>(first.buffer);
    EndianBinaryReader reader(stream);
    EXPECT_EQ(reader.ReadByte(), 1);
    stream->Append(second.buffer, 0, 10);
    EXPECT_EQ(reader.ReadUInt64(), 0x0203040506070809u);
    stream->TrimBegin();
    EXPECT_EQ(reader.Position(), 0);
    EXPECT_EQ(reader.ReadUInt16(), 0x0A0B);
    EXPECT_EQ(stream->GetPosition(), 2);
    stream->SetPosition(1);
    EXPECT_EQ(reader.ReadBits(8), 0x0B);
}

TEST(EndianBinaryReader, NewReadersAndWritersHaveDefaultsOfTheirOwn) {
    Packet packet({1, 2});
    EndianBinaryReader::GlobalEndiannes() = Endianness::Little;
    EXPECT_EQ(EndianBinaryReader(packet.buffer).ReadUInt16(), 0x0201);
    EXPECT_EQ(EndianBinaryWriter(packet.buffer).GetEndianness(), Endianness::Big);
    EndianBinaryReader::GlobalEndiannes() = Endianness::Big;
    EXPECT_EQ(EndianBinaryReader(packet.buffer).GetEndianness(), Endianness::Big);
    EndianBinaryWriter::GlobalEndiannes() = Endianness::Little;
    EXPECT_EQ(EndianBinaryWriter(packet.buffer).GetEndianness(), Endianness::Little);
    EXPECT_EQ(EndianBinaryReader(packet.buffer).GetEndianness(), Endianness::Big);
    EndianBinaryWriter::GlobalEndiannes() = Endianness::Big;
}

}  // namespace
}  // namespace Mivra::Test
