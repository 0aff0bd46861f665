#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {
class PacketBuffer;
}

namespace Mivra::Transport {

/// The packets that wait to be sent to one client, in order. Each entry holds a reference and its own place
/// in the packet, so that one packet may wait for many clients at once. Any thread may add and look; the
/// engine's worker alone sends and takes out, but Close. Its lock is a leaf.
class MIVRA_API SendQueue {
public:
    enum class Admission { Queued, Full, Closed, BadSize, NoMemory };

    SendQueue() = default;
    SendQueue(const SendQueue&) = delete;
    SendQueue& operator=(const SendQueue&) = delete;
    ~SendQueue();

    /// Takes a reference and sets the packet's Position to 0. Full: two or more packets wait, and with this
    /// one they would be more than AllowedBytes. BadSize: its ActualSize is negative or beyond its memory. A
    /// refused packet stays as it was.
    Admission Push(Common::PacketBuffer* packet) MIVRA_EXCLUDES(lock);
    /// Where the unsent bytes of the first packets lie: the number of pieces, at most `most`. They stay valid
    /// until PopSent or Close.
    int Gather(iovec* pieces, int most) MIVRA_EXCLUDES(lock);
    /// So many bytes of what Gather showed have been written, or so many packets whole. Whether PopSent has
    /// something now.
    bool Advance(std::size_t bytes) MIVRA_EXCLUDES(lock);
    bool AdvancePackets(int packets) MIVRA_EXCLUDES(lock);
    /// Takes the first packet out when it has been written whole, with its reference; else null.
    Common::PacketBuffer* PopSent() MIVRA_EXCLUDES(lock);
    /// Gives all references back; from now on everything is refused.
    void Close() MIVRA_EXCLUDES(lock);

    bool IsEmpty() const MIVRA_EXCLUDES(lock);
    /// Bytes of the queued packets, each counted whole until it leaves.
    std::int32_t QueuedBytes() const MIVRA_EXCLUDES(lock);
    std::int32_t AllowedBytes() const MIVRA_EXCLUDES(lock);
    void SetAllowedBytes(std::int32_t bytes) MIVRA_EXCLUDES(lock);
    /// A look at the packets, first to be sent first; without references.
    std::vector<Common::PacketBuffer*> Packets() const MIVRA_EXCLUDES(lock);

private:
    struct Entry {
        Common::PacketBuffer* packet;
        std::int32_t size;
        std::int32_t sent;  // bytes
        bool done;
    };

    bool hasRoom() MIVRA_REQUIRES(lock);
    std::size_t firstUnsent() const MIVRA_REQUIRES(lock);
    Entry& at(std::size_t index) MIVRA_REQUIRES(lock) { return ring[(first + index) & (ring.size() - 1)]; }
    const Entry& at(std::size_t index) const MIVRA_REQUIRES(lock) {
        return ring[(first + index) & (ring.size() - 1)];
    }

    mutable Common::CritSec lock;
    std::vector<Entry> ring MIVRA_GUARDED_BY(lock);  // a power of two, or empty
    std::size_t first MIVRA_GUARDED_BY(lock) = 0;
    std::size_t count MIVRA_GUARDED_BY(lock) = 0;
    std::int64_t queuedBytes MIVRA_GUARDED_BY(lock) = 0;
    std::int32_t allowedBytes MIVRA_GUARDED_BY(lock) = 4 * 1024 * 1024;
    bool closed MIVRA_GUARDED_BY(lock) = false;
};

}  // namespace Mivra::Transport
