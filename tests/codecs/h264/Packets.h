#pragma once

// What the tests of H.264 packets are made of: byte strings, and packets over memory that ends where they do.

#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/Reference.h"

namespace Mivra::Test {

using Bytes = std::vector<unsigned char>;

/// Two hexadecimal digits a byte.
inline Bytes fromHex(std::string_view text) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
    }
    return bytes;
}

inline Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes whole;
    for (const Bytes& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

inline Bytes operator+(const Bytes& left, const Bytes& right) {
    return joined({left, right});
}

/// A unit behind a start code of four, or three, bytes.
inline Bytes coded(const Bytes& unit, bool longCode = true) {
    return (longCode ? Bytes{0, 0, 0, 1} : Bytes{0, 0, 1}) + unit;
}

/// A unit behind its length.
inline Bytes prefixed(const Bytes& unit, int lengthSize) {
    Bytes prefix;
    for (int shift = (lengthSize - 1) * 8; shift >= 0; shift -= 8) {
        prefix.push_back(static_cast<unsigned char>(unit.size() >> shift));
    }
    return prefix + unit;
}

/// A unit of a header byte and the bits of a text of ones and zeros, with a stop bit; blanks are for the eye.
inline Bytes unitOfBits(unsigned char header, std::string_view text) {
    Bytes unit{header};
    unsigned byte = 1;
    const auto put = [&](unsigned bit) {
        byte = byte << 1 | bit;
        if (byte >= 256) {
            unit.push_back(static_cast<unsigned char>(byte));
            byte = 1;
        }
    };
    for (const char digit : text) {
        if (digit != ' ') {
            put(digit == '1' ? 1 : 0);
        }
    }
    put(1);
    while (byte != 1) {
        put(0);
    }
    return unit;
}

/// A packet of the given content, of which the bytes in front of the position are read already, with so much
/// room behind it.
class Packet {
public:
    explicit Packet(Bytes content_ = {}, std::size_t room = 0, int position = 0)
        : memory(std::move(content_)) {
        const std::size_t size = memory.size();
        memory.resize(size + room, 0xEE);
        buffer = Common::Reference<Common::PacketBuffer>::Adopt(new Common::PacketBuffer(
            reinterpret_cast<char*>(memory.data()), static_cast<int>(memory.size())));
        buffer->ActualSize() = static_cast<int>(size);
        buffer->Position() = position;
    }

    Common::PacketBuffer* get() const { return buffer.get(); }
    Common::PacketBuffer* operator->() const { return buffer.get(); }
    Bytes Content() const { return {memory.begin(), memory.begin() + buffer->ActualSize()}; }

private:
    Bytes memory;
    Common::Reference<Common::PacketBuffer> buffer;
};

// A sequence of one macroblock: baseline profile, frames only, frame_num of 4 bits, order count type 2.
inline const Bytes Sps{0x67, 0x42, 0x00, 0x0A, 0xDA, 0x79};
inline const Bytes Pps{0x68, 0xCE, 0x38, 0x80};
inline const Bytes Aud{0x09, 0xF0};
inline const Bytes Filler{0x0C, 0xFF, 0x80};
// Of first_mb_in_slice 0, slice_type 7 or 5, pic_parameter_set_id 0, frame_num 0, 1 or 2.
inline const Bytes Idr = unitOfBits(0x65, "1 0001000 1 0000 1 111100001111");
inline const Bytes P1 = unitOfBits(0x41, "1 00110 1 0001 1111000011");
inline const Bytes P2 = unitOfBits(0x01, "1 00110 1 0010 1111000011");
// An SEI unit of one recovery point: recovery_frame_cnt 0, or 2.
inline const Bytes Recovery{0x06, 0x06, 0x01, 0xC4, 0x80};
inline const Bytes LateRecovery{0x06, 0x06, 0x01, 0x64, 0x80};

}  // namespace Mivra::Test
