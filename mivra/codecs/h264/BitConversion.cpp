// The parser's helpers that read bits straight over a byte pointer.

#include <cstdint>
#include <span>

#include "mivra/codecs/h264/BitCursor.h"
#include "mivra/codecs/h264/H264ConfigurationParser.h"

namespace Mivra::Codecs::H264 {

namespace {

/// Calls read(cursor) at the place, and moves it behind what was read; a failure takes all that was left.
template <typename Read>
std::int64_t readAt(unsigned char** data, int* bytesLeft, int* bitPosition, Read read) {
    if (*data == nullptr || *bytesLeft < 1 || *bitPosition < 0 || *bitPosition > 7) {
        *bytesLeft = -1;
        return 0;
    }
    BitCursor cursor({*data, static_cast<std::size_t>(*bytesLeft)}, static_cast<unsigned>(*bitPosition));
    const std::int64_t value = read(cursor);
    if (cursor.Failed()) {
        *bytesLeft = -1;
        return 0;
    }
    const std::size_t bytes = cursor.Position() / 8;
    *data += bytes;
    *bytesLeft -= static_cast<int>(bytes);
    *bitPosition = static_cast<int>(cursor.Position() % 8);
    return value;
}

}  // namespace

int H264ConfigurationParser::ConvertExpGolomb2Int(unsigned char** data, int* bytesLeft, int* bitPosition) {
    return static_cast<int>(readAt(data, bytesLeft, bitPosition, [](BitCursor& cursor) {
        return static_cast<std::int64_t>(cursor.ExpGolomb());
    }));
}

int H264ConfigurationParser::convertSignedExpGolomb2Int(unsigned char** data, int* bytesLeft,
                                                        int* bitPosition) {
    return static_cast<int>(readAt(data, bytesLeft, bitPosition, [](BitCursor& cursor) {
        return SignedFromCodeNumber(cursor.ExpGolomb());
    }));
}

int H264ConfigurationParser::convertBits2Int(unsigned char** data, int* bytesLeft, int* bitPosition,
                                             int count) {
    constexpr int MaxCount = 32;
    return static_cast<int>(readAt(data, bytesLeft, bitPosition, [count](BitCursor& cursor) -> std::int64_t {
        if (count < 0 || count > MaxCount) {
            cursor.Fail();
        }
        return count > 0 ? cursor.Bits(static_cast<unsigned>(count)) : 0;
    }));
}

bool H264ConfigurationParser::checkRbspTrailingBits(unsigned char* data, int bytesLeft, int bitPosition) {
    if (data == nullptr || bytesLeft < 1 || bitPosition < 0 || bitPosition > 7) {
        return false;
    }
    return BitCursor({data, static_cast<std::size_t>(bytesLeft)}, static_cast<unsigned>(bitPosition))
        .AtTrailingBits();
}

}  // namespace Mivra::Codecs::H264
