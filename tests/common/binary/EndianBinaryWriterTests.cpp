#include "mivra/common/binary/EndianBinaryWriter.h"

#include <algorithm>

#include "mivra/common/binary/EndianBinaryReader.h"
#include "mivra/common/buffers/FileStream.h"
#include "tests/common/binary/BinaryFixture.h"
#include "tests/support/TempFolder.h"

namespace Mivra::Test {
namespace {

using namespace Common;
using Bytes = std::vector<unsigned char>;

TEST(EndianBinaryWriter, WritesBitsIntoAFileThatGrows) {
    const TempFolder folder;
    const auto file = std::make_shared<FileStream>(folder / "data", "w+b");
    EndianBinaryWriter writer(file);
    writer.WriteBits(0xA, 4);
    writer.WriteBits(0x50, 8);
    EXPECT_EQ(writer.BitPosition(), 4);
    EXPECT_EQ(writer.Position(), 1);
    writer.Flush();
    EXPECT_EQ(ReadWholeFile(folder / "data"), std::string("\xA5\x00", 2));
    writer.WriteBits(0xF, 4);
    writer.Fill('x', 3);
    writer.Flush();
    EXPECT_EQ(ReadWholeFile(folder / "data"), "\xA5\x0Fxxx");
}

TEST(EndianBinaryWriter, WritesValuesInBothOrders) {
    Packet packet(Bytes(64));
    EndianBinaryWriter writer(packet.buffer);
    writer.Write(true);
    writer.Write('A');
    writer.Write(static_cast<short>(-2));
    writer.Write(L'\u20AC');
    writer.Write(0x01020304);
    writer.Write(0x0102030405060708);
    writer.Write(1.5f);
    writer.Write(-2.0);
    writer.Write(0x0A0B0C, 3);
    writer.Write(0x0A0B0C, 3, Endianness::Little);
    writer.Write(std::string("xyz"));
    writer.SetEndiannes(Endianness::Little);
    writer.Write(0x01020304u);
    writer.Write(static_cast<std::int64_t>(-2), 5);
    const Bytes expected = {1,   'A', 0xFF, 0xFE, 0x20, 0xAC, 1,    2,    3,    4,    1,    2,
                            3,   4,   5,    6,    7,    8,    0x3F, 0xC0, 0,    0,    0xC0, 0,
                            0,   0,   0,    0,    0,    0,    0x0A, 0x0B, 0x0C, 0x0C, 0x0B, 0x0A,
                            'x', 'y', 'z',  4,    3,    2,    1,    0xFE, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(Bytes(packet.bytes.begin(), packet.bytes.begin() + writer.Position()), expected);

    EndianBinaryReader reader(packet.buffer);
    reader.Seek(0, Origin::Begin);
    EXPECT_TRUE(reader.ReadBoolean());
    EXPECT_EQ(reader.ReadChar(), 'A');
    EXPECT_EQ(reader.ReadInt16(), -2);
    EXPECT_EQ(reader.ReadWChar(), L'\u20AC');
    EXPECT_EQ(reader.ReadInt32(), 0x01020304);
    EXPECT_EQ(reader.ReadInt64(), 0x0102030405060708);
    EXPECT_EQ(reader.ReadSingle(), 1.5f);
    EXPECT_EQ(reader.ReadDouble(), -2.0);
}

TEST(EndianBinaryWriter, FailsInItsOwnWordsAndWritesNothing) {
    const auto words = [](const char* size) { return Outbound("EndianBinaryWriter", size); };
    Packet packet({1, 2, 3, 4});
    EndianBinaryWriter writer(packet.buffer);
    writer.Seek(1, Origin::Begin);
    EXPECT_EQ(FailureOf([&] { writer.Write(1); }), words("4"));
    EXPECT_EQ(FailureOf([&] { writer.WriteBits(0, 25); }), words("4"));
    EXPECT_EQ(FailureOf([&] { writer.Fill(0, std::int64_t{1} << 40); }), words("2147483647"));
    EXPECT_EQ(FailureOf([&] { writer.Fill(0, -1); }), words("-1"));
    EXPECT_EQ(FailureOf([&] { writer.Write(packet.bytes.data(), -3); }), words("-3"));
    EXPECT_EQ(FailureOf([&] { writer.Write(std::string(9, 'x')); }), words("9"));
    EXPECT_EQ(FailureOf([&] { writer.WriteUnsignedExpGolomb(UINT32_MAX); }), words("9"));
    EXPECT_EQ(FailureOf([&] { writer.WriteBits(0, 65); }),
              "EndianBinaryWriter::WriteBits: max bit count is 64");
    EXPECT_NE(FailureOf([&] { writer.WriteBits(0, -1); }), "");
    EXPECT_NE(FailureOf([&] { writer.Write(1, 9); }), "");
    EXPECT_NE(FailureOf([&] { writer.WriteSignedExpGolomb(0); }), "");
    EXPECT_EQ(packet.bytes, (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(writer.FullBitPosition(), 8);

    EndianBinaryWriter nothing(std::shared_ptr<IStream>{});
    EXPECT_EQ(FailureOf([&] { nothing.Write(1); }), "EndianBinaryWriter::checkBuffer: stream is NULL");
    Packet three({1, 2, 3});
    EndianBinaryWriter cut(std::make_shared<ShortStream>(three, 100));
    EXPECT_EQ(FailureOf([&] { cut.WriteBits(0, 32); }),
              "EndianBinaryWriter::WriteBits: End of stream reached with 1 bytes left to read.");
    cut.Seek(0, Origin::Begin);
    EXPECT_EQ(FailureOf([&] { cut.WriteBits(0, 40); }),
              "EndianBinaryWriter::WriteBits: End of stream reached with 2 byte left to read.");
}

TEST(EndianBinaryWriter, SpansThePacketAndRaisesItsSize) {
    Packet packet({0xFF, 0xFF, 0xFF, 0xFF});
    packet.buffer->ActualSize() = 1;
    packet.buffer->Position() = 1;
    {
        EndianBinaryWriter writer(packet.buffer);
        EXPECT_EQ(writer.GetLength(), 4);
        writer.WriteBits(0, 3);
        EXPECT_EQ(packet.buffer->ActualSize(), 2);
        EXPECT_EQ(packet.buffer->BitPosition(), 3);
        EXPECT_EQ(packet.bytes[1], 0x1F);
    }
    EXPECT_EQ(packet.buffer->ReferenceCount(), 1);
    EndianBinaryWriter writer(packet.buffer);
    EXPECT_EQ(writer.FullBitPosition(), 11);
    writer.WriteBits(0, 5);
    EXPECT_EQ(packet.bytes[1], 0);
    EXPECT_EQ(packet.buffer->ActualSize(), 2);
    writer.Write(static_cast<short>(0x0102));
    EXPECT_EQ(packet.buffer->ActualSize(), 4);
    writer.Seek(0, Origin::Begin);
    EXPECT_EQ(packet.buffer->Position(), 0);
    writer.Write('a');
    EXPECT_EQ(packet.buffer->ActualSize(), 4) << "never lowered";
}

TEST(EndianBinaryWriter, DoesNotGrowAStream) {
    Packet packet(Bytes(2));
    const auto stream = std::make_shared<VersatileBufferStream>(packet.buffer);
    stream->SetAutoGrowth(true);
    EndianBinaryWriter writer(stream);
    EXPECT_THROW(writer.Write(1), GeneralException);
    EXPECT_EQ(stream->GetLength(), 2);
}

TEST(EndianBitConverter, ConvertsValuesAndText) {
    unsigned char bytes[8] = {};
    const BigEndianBitConverter big;
    const LittleEndianBitConverter little;
    EXPECT_TRUE(little.IsLittleEndian());
    EXPECT_EQ(big.GetEndianness(), Endianness::Big);
    big.CopyBytes(1.0, bytes, 0);
    EXPECT_EQ(EndianBitConverter::ToString(bytes, 8), "3ff0000000000000");
    EXPECT_EQ(EndianBitConverter::ToString(bytes, 1, 2), "f000");
    EXPECT_EQ(EndianBitConverter::ToString(bytes, -1), "");
    EXPECT_EQ(big.ToDouble(bytes, 0), 1.0);
    little.CopyBytes(0x010203, bytes, 1, 3);
    EXPECT_EQ(EndianBitConverter::ToString(bytes, 4), "3f030201");
    EXPECT_EQ(little.ToUInt32(bytes, 1, 3), 0x010203u);
    EXPECT_EQ(big.ToWChar(bytes, 1), 0x0302);
    // The first bits of the stream, 0011 1, are 00111 most significant first and 11100 in little-endian
    // order.
    EXPECT_EQ(big.FromBits(bytes, 0, 5), 0x07);
    EXPECT_EQ(little.FromBits(bytes, 0, 5), 0x1C);
    little.CopyBits(0x1C, 5, bytes, 8);
    EXPECT_EQ(bytes[1], 0x3B);
}

TEST(EndianBitConverter, EveryScalarComesBackFromItsBytes) {
    const BigEndianBitConverter big;
    const LittleEndianBitConverter little;
    for (const EndianBitConverter* order :
         {static_cast<const EndianBitConverter*>(&big), static_cast<const EndianBitConverter*>(&little)}) {
        unsigned char bytes[12] = {};
        const auto back = [&](auto value, auto read, const char* bigForm) {
            order->CopyBytes(value, bytes, 2);
            EXPECT_EQ((order->*read)(bytes, 2), value);
            std::string form = EndianBitConverter::ToString(bytes, 2, sizeof value);
            for (std::size_t i = 0; order == &little && i < form.size() / 2; i += 2) {
                std::swap_ranges(form.begin() + static_cast<std::ptrdiff_t>(i),
                                 form.begin() + static_cast<std::ptrdiff_t>(i) + 2,
                                 form.end() - static_cast<std::ptrdiff_t>(i) - 2);
            }
            EXPECT_EQ(form, bigForm);
        };
        using Converter = EndianBitConverter;
        back(true, &Converter::ToBoolean, "01");
        back('\xE9', &Converter::ToChar, "e9");
        back(std::int16_t{-2}, &Converter::ToInt16, "fffe");
        back(std::uint16_t{0xF102}, &Converter::ToUInt16, "f102");
        back(std::uint64_t{0xF102030405060708}, &Converter::ToUInt64, "f102030405060708");
        back(1.5f, &Converter::ToSingle, "3fc00000");
        back(-2.0, &Converter::ToDouble, "c000000000000000");
        order->CopyBytes(std::int32_t{-3}, bytes, 2);
        EXPECT_EQ(order->ToInt32(bytes, 2), -3);
        EXPECT_EQ(order->ToUInt32(bytes, 2), 0xFFFFFFFDu);
        order->CopyBytes(std::int64_t{-3}, bytes, 2);
        EXPECT_EQ(order->ToInt64(bytes, 2), -3);
        order->CopyBytes(std::uint32_t{0xF1F2F3F4}, bytes, 2);
        EXPECT_EQ(order->ToUInt32(bytes, 2), 0xF1F2F3F4u);
        order->CopyBytes(L'\u20AC', bytes, 2);
        EXPECT_EQ(order->ToWChar(bytes, 2), L'\u20AC');
        EXPECT_EQ(bytes[0] + bytes[1] + bytes[10] + bytes[11], 0) << "nothing outside";
    }
}

}  // namespace
}  // namespace Mivra::Test
