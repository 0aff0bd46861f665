#pragma once

#include <cstddef>
#include <cstring>
#include <span>

#include "mivra/codecs/h264/AnnexB.h"
#include "mivra/common/buffers/PacketBuffer.h"

namespace Mivra::Codecs::H264 {

/// Writes units behind the valid data of a packet; they become valid with Commit(). What does not fit is not
/// written, and Full() tells from then on.
class UnitWriter {
public:
    explicit UnitWriter(Common::PacketBuffer& out_) : out(out_) {
        if (out.ActualSize() >= 0 && out.ActualSize() <= out.Size()) {
            next = reinterpret_cast<unsigned char*>(out.Buffer()) + out.ActualSize();
            room = static_cast<std::size_t>(out.Size() - out.ActualSize());
        }
    }

    bool Empty() const { return written == 0; }
    bool Full() const { return full; }

    /// codeLength 3 or 4.
    void StartCoded(NalUnit unit, std::size_t codeLength) {
        static constexpr unsigned char Code[] = {0, 0, 0, 1};
        put({Code + sizeof Code - codeLength, codeLength}, unit);
    }
    /// What is left of the room behind a prefix of so many bytes, for the caller to write a unit into.
    std::span<unsigned char> RoomBehind(std::size_t prefixSize) const {
        const std::size_t left = room - written;
        return left > prefixSize ? std::span(next + written + prefixSize, left - prefixSize)
                                 : std::span<unsigned char>();
    }
    /// Puts the length in front of a unit that was written into RoomBehind(lengthSize) as far as there was
    /// room.
    void PrefixWritten(std::size_t size, std::size_t lengthSize) {
        full = full || next == nullptr || size > RoomBehind(lengthSize).size();
        if (!full) {
            for (std::size_t i = lengthSize; i > 0; --i) {
                next[written++] = static_cast<unsigned char>(size >> (i - 1) * 8);
            }
            written += size;
        }
    }
    /// Takes what was written into RoomBehind(0) as it is.
    void TakeWritten(std::size_t size) { written += size; }
    /// Makes what was written valid data.
    void Commit() {
        out.ActualSize() += static_cast<int>(written);
        written = 0;
    }

private:
    void put(std::span<const unsigned char> prefix, NalUnit unit) {
        const std::size_t left = room - written;
        full = full || next == nullptr || left < prefix.size() || unit.size() > left - prefix.size();
        if (!full) {
            std::memcpy(next + written, prefix.data(), prefix.size());
            std::memcpy(next + written + prefix.size(), unit.data(), unit.size());
            written += prefix.size() + unit.size();
        }
    }

    Common::PacketBuffer& out;
    unsigned char* next = nullptr;
    std::size_t room = 0;
    std::size_t written = 0;
    bool full = false;
};

}  // namespace Mivra::Codecs::H264
