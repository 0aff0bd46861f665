#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/Reference.h"

namespace Mivra::Tool {

/// Puts a transport stream (ISO/IEC 13818-1, 2.4) into pooled packets of 7 x 188 bytes, as datagrams carry
/// it, and knows where somebody may join it: at a key frame of the leading stream, the first of the map that
/// carries video, else its first. Where one is wanted, such an entry begins a packet of its own, behind one
/// that may be shorter; otherwise only Finish makes shorter ones. Calls must not overlap.
class TransportPacker {
public:
    static constexpr int kPacketBytes = 188;
    static constexpr int kPacketsInPiece = 7;
    static constexpr int kPieceBytes = kPacketBytes * kPacketsInPiece;

    using Packet = Common::Reference<Common::PacketBuffer>;
    /// A piece that is complete; entry: somebody who gets Tables() first may join with it.
    using Sink = std::function<void(Common::PacketBuffer& piece, bool entry)>;

    /// wanted: whether the next entry is to begin a packet.
    TransportPacker(std::function<bool()> wanted, Sink sink);

    /// Any part of the stream. False when there is no memory for a piece.
    bool Add(const std::uint8_t* data, int size);
    /// What there is of a piece, whole packets or not, goes as it is.
    void Finish();
    /// Whole packets wait for the rest of their piece.
    bool HasStarted() const {
        return piece && piece->ActualSize() > 0 && piece->ActualSize() % kPacketBytes == 0;
    }
    std::uint64_t PiecesEmitted() const { return emitted; }
    /// The tables (PAT and PMT) as they were last, with their counters; null when there is no memory. They
    /// may fill more than 7 packets.
    Packet Tables();

private:
    using Bytes = std::vector<std::uint8_t>;

    bool begin();
    void emit();
    bool look();
    void readPat(const std::uint8_t* section, int size);
    void readPmt(const std::uint8_t* section, int size);

    const std::function<bool()> wantsEntry;
    const Sink sink;
    Common::DefaultPacketBufferAllocator pool;
    Packet piece;
    bool pieceIsEntry = false;
    std::uint64_t emitted = 0;
    // Of the stream's last tables, whole packets; and what they say. 0: unknown.
    Bytes pat;
    Bytes pmt;
    int pmtPid = 0;
    int leadPid = 0;
};

}  // namespace Mivra::Tool
