#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mivra/common/binary/EndianBinaryReader.h"
#include "mivra/common/binary/EndianBinaryWriter.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Test {

using Common::EndianBinaryReader;
using Common::EndianBinaryWriter;
using Common::Endianness;

/// Calls body(packet) with a packet over the bytes.
template <typename Body>
void WithPacket(std::vector<char>& bytes, Body body) {
    auto* packet = new Common::PacketBuffer(bytes.data(), static_cast<int>(bytes.size()));
    struct Guard {
        Common::PacketBuffer* held;
        ~Guard() { held->Release(); }
    } guard{packet};
    body(packet);
}

template <typename T>
std::string Written(const T& value, Endianness order = Endianness::Big, std::size_t room = 1 << 16) {
    std::vector<char> bytes(room);
    WithPacket(bytes, [&](Common::PacketBuffer* packet) {
        EndianBinaryWriter writer(packet);
        writer.SetEndiannes(order);
        value.ToPacketBuffer(&writer);
        room = static_cast<std::size_t>(writer.Position());
    });
    return std::string(bytes.data(), room);
}

/// Lets body(T&) see what the bytes hold; false when the reader fails.
template <typename T, typename Body>
bool ReadAs(const std::string& form, Body body, Endianness order = Endianness::Big) {
    std::vector<char> bytes(form.begin(), form.end());
    bool whole = true;
    WithPacket(bytes, [&](Common::PacketBuffer* packet) {
        EndianBinaryReader reader(packet);
        reader.SetEndiannes(order);
        try {
            T value(&reader);
            body(value);
        } catch (const Common::GeneralException&) {
            whole = false;
        }
    });
    return whole;
}

/// A big-endian 32-bit integer.
inline std::string Int32(std::int64_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

}  // namespace Mivra::Test
