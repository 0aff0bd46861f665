#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mivra/ffmpeg/FfmpegObjects.h"

namespace Mivra::FFmpeg {

/// The packets from which software can take over from a device that fails: copies of those since the key
/// packet before the last one, and which of them have given their frames. Used by one thread at a time.
class HardwareReplay {
public:
    struct Entry {
        PacketPointer packet;
        bool delivered = false;  ///< its frame has been handed on
    };

    /// Keeps a packet that has been sent; key: decoding can begin with it. More than a fixed amount is not
    /// kept: then software takes over at the next key packet. std::bad_alloc when there is no memory.
    void Keep(PacketPointer packet, std::int64_t number, bool key);
    void NoteDelivered(std::int64_t number);
    void Clear();

    std::vector<Entry>& Packets() { return entries; }
    /// Whether the packet's frame has been handed on.
    bool IsDelivered(std::int64_t number) const;

private:
    void dropBefore(std::size_t count);

    std::vector<Entry> entries;
    std::int64_t firstNumber = 0;  // of the first entry; the others follow without a gap
    std::size_t lastKey = 0;       // place of the last key packet
    std::size_t bytes = 0;
};

}  // namespace Mivra::FFmpeg
