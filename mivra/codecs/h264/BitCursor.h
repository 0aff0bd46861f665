#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

#include "mivra/common/binary/ByteSwap.h"

namespace Mivra::Codecs::H264 {

/// Reads the bits of a raw byte sequence payload (emulation prevention already removed) in caller's memory.
/// A failure lasts: what reaches over the end, or is no code, gives 0, and so does everything behind it.
class BitCursor {
public:
    explicit BitCursor(std::span<const unsigned char> bytes, unsigned startBit = 0)
        : data(bytes.data()), size(bytes.size()), position(startBit), tail(lastBytes(bytes)) {}

    bool Failed() const { return failed; }
    void Fail() {
        failed = true;
        position = size * 8;
    }
    /// In bits.
    std::size_t Position() const { return position; }
    std::size_t Left() const { return size * 8 - position; }

    /// u(n), 1 to 32 bits.
    std::uint32_t Bits(unsigned count) {
        const std::uint64_t word = peek();
        return advance(count) ? static_cast<std::uint32_t>(word >> (64 - count)) : 0;
    }
    bool Flag() { return Bits(1) != 0; }

    /// The code number of ue(v) and se(v) (9.1): at most 32 zeros in front, so 0 to 2^33 - 2.
    std::uint64_t ExpGolomb() {
        constexpr unsigned ZerosInOneWord = 28;  // the whole code then stands in the 57 bits that a word has
        const std::uint64_t word = peek();
        const unsigned zeros = static_cast<unsigned>(std::countl_zero(word));
        if (zeros <= ZerosInOneWord) [[likely]] {
            return advance(2 * zeros + 1) ? (word >> (63 - 2 * zeros)) - 1 : 0;
        }
        return longExpGolomb(zeros);
    }

    /// more_rbsp_data() (7.2): something stands in front of the stop bit.
    bool MoreRbspData() const { return position < stopBit(); }
    /// rbsp_trailing_bits() (7.3.2.11) stand here, with nothing but zeros behind them.
    bool AtTrailingBits() const { return !failed && size != 0 && position == stopBit(); }

private:
    /// At least 57 bits from the position on, the first one on top; zeros stand for what lies behind the end.
    std::uint64_t peek() const {
        const std::size_t byte = position >> 3;
        const std::size_t left = size - byte;
        const std::uint64_t word =
            left >= 8 ? Common::LoadBig<std::uint64_t>(data + byte) : (tail << 8) << (56 - 8 * left);
        return word << (position & 7);
    }

    /// The last eight bytes, or as many as there are, the last one lowest.
    static std::uint64_t lastBytes(std::span<const unsigned char> bytes) {
        if (bytes.size() >= 8) [[likely]] {
            return Common::LoadBig<std::uint64_t>(bytes.data() + bytes.size() - 8);
        }
        std::uint64_t word = 0;
        for (const unsigned char byte : bytes) {
            word = word << 8 | byte;
        }
        return word;
    }

    bool advance(unsigned count) {
        if (count > Left()) [[unlikely]] {
            Fail();
            return false;
        }
        position += count;
        return true;
    }

    std::uint64_t longExpGolomb(unsigned zeros) {
        constexpr unsigned MostZeros = 32;
        if (zeros > MostZeros || !advance(zeros)) {
            Fail();
            return 0;
        }
        const std::uint64_t code = peek() >> (63 - zeros);
        return advance(zeros + 1) ? code - 1 : 0;
    }

    /// Where the last bit that is set stands; the end when there is none.
    std::size_t stopBit() const {
        for (std::size_t bytes = size; bytes > 0; --bytes) {
            if (data[bytes - 1] != 0) {
                return bytes * 8 - 1 - static_cast<unsigned>(std::countr_zero(data[bytes - 1]));
            }
        }
        return size * 8;
    }

    const unsigned char* data;
    std::size_t size;
    std::size_t position;
    std::uint64_t tail;
    bool failed = false;
};

/// The value of se(v) for a code number (9.1.1): 0, 1, -1, 2, -2, ...
inline std::int64_t SignedFromCodeNumber(std::uint64_t codeNumber) {
    const std::int64_t half = static_cast<std::int64_t>((codeNumber + 1) / 2);
    return codeNumber % 2 != 0 ? half : -half;
}

}  // namespace Mivra::Codecs::H264
