#pragma once

// What the targets of the binary forms share.

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "mivra/common/binary/EndianBinaryReader.h"
#include "mivra/common/binary/EndianBinaryWriter.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Fuzz {

inline void Require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

/// Calls body(buffer) with a packet over the bytes.
template <typename Body>
void WithPacket(std::vector<char>& bytes, Body body) {
    auto* buffer = new Common::PacketBuffer(bytes.data(), static_cast<int>(bytes.size()));
    body(buffer);
    buffer->Release();
}

/// The first byte picks the byte order, the rest is the form of a T. What can be read is written back and
/// reads the same again, and a second writing has the same bytes.
template <typename T>
void BinaryFormRoundTrip(const std::uint8_t* data, std::size_t size) {
    using namespace Common;
    if (size == 0) {
        return;
    }
    const Endianness order = (data[0] & 1) != 0 ? Endianness::Big : Endianness::Little;
    std::vector<char> bytes(data + 1, data + size);
    const auto read = [order](PacketBuffer* buffer) {
        EndianBinaryReader reader(buffer);
        reader.SetEndiannes(order);
        return std::make_unique<T>(&reader);
    };
    const auto written = [&](const T& value) {
        std::vector<char> form(bytes.size() + 4096);
        WithPacket(form, [&](PacketBuffer* output) {
            EndianBinaryWriter writer(output);
            writer.SetEndiannes(order);
            value.ToPacketBuffer(&writer);
            form.resize(static_cast<std::size_t>(writer.Position()));
        });
        return form;
    };
    std::unique_ptr<T> value;
    WithPacket(bytes, [&](PacketBuffer* buffer) {
        try {
            value = read(buffer);
        } catch (const GeneralException&) {
        }
    });
    if (value == nullptr) {
        return;
    }
    std::vector<char> form = written(*value);
    Require(written(T(*value)) == form);
    WithPacket(form, [&](PacketBuffer* buffer) { Require(written(*read(buffer)) == form); });
}

}  // namespace Mivra::Fuzz
