#include "mivra/common/binary/EndianBinaryWriter.h"

#include <initializer_list>

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

TEST(EndianBitConverter, EveryScalarComesBackFromItsBytes) {
    const BigEndianBitConverter big;
    const LittleEndianBitConverter little;
    for (const EndianBitConverter* order : std::initializer_list<const EndianBitConverter*>{&big, &little}) {
        unsigned char bytes[64] = {};
        int at = 1;
        const auto back = [&](auto value, auto read) {
            order->CopyBytes(value, bytes, at);
            EXPECT_EQ(read(), value);
            at += static_cast<int>(sizeof value);
        };
        back(true, [&] { return order->ToBoolean(bytes, at); });
        back('\xE9', [&] { return order->ToChar(bytes, at); });
        back(std::int16_t{-2}, [&] { return order->ToInt16(bytes, at); });
        back(std::uint16_t{0xF102}, [&] { return order->ToUInt16(bytes, at); });
        back(std::int32_t{-3}, [&] { return order->ToInt32(bytes, at); });
        back(std::uint32_t{0xF1F2F3F4}, [&] { return order->ToUInt32(bytes, at); });
        back(std::int64_t{-4}, [&] { return order->ToInt64(bytes, at); });
        back(std::uint64_t{0xF102030405060708}, [&] { return order->ToUInt64(bytes, at); });
        back(1.5f, [&] { return order->ToSingle(bytes, at); });
        back(-2.0, [&] { return order->ToDouble(bytes, at); });
        order->CopyBytes(L'\u20AC', bytes, at);
        EXPECT_EQ(order->ToWChar(bytes, at), L'\u20AC');
        order->CopyBytes(0x010203, bytes, at + 2, 3);
        EXPECT_EQ(order->ToUInt32(bytes, at + 2, 3), 0x010203u);
        EXPECT_EQ(EndianBitConverter::ToString(bytes, at + 6),
                  order == &big
                      ? "0001e9fffef102fffffffdf1f2f3f4fffffffffffffffcf1020304050607083fc00000c00000000000"
                        "000020ac01020300"
                      : "0001e9feff02f1fdfffffff4f3f2f1fcffffffffffffff08070605040302f10000c03f000000000000"
                        "00c0ac2003020100");
    }
    EXPECT_EQ(EndianBitConverter::ToString(nullptr, -1), "");
}

TEST(EndianBitConverter, TakesBitsInBothOrders) {
    unsigned char bytes[] = {0x3F, 0x03};
    const BigEndianBitConverter big;
    const LittleEndianBitConverter little;
    EXPECT_TRUE(little.IsLittleEndian());
    EXPECT_EQ(big.GetEndianness(), Endianness::Big);
    // The first bits, 0011 1, are 00111 most significant first and 11100 in little-endian order.
    EXPECT_EQ(big.FromBits(bytes, 0, 5), 0x07);
    EXPECT_EQ(little.FromBits(bytes, 0, 5), 0x1C);
    little.CopyBits(0x1C, 5, bytes, 8);
    EXPECT_EQ(bytes[1], 0x3B);
    EXPECT_EQ(EndianBitConverter::ToString(bytes, 1, 1), "3b");
}

}  // namespace
}  // namespace Mivra::Test
