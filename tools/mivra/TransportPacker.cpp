#include "tools/mivra/TransportPacker.h"

#include <algorithm>
#include <cstring>

#include "mivra/common/buffers/MediaGlobal.h"

namespace Mivra::Tool {
namespace {

constexpr int kPoolPieces = 512;  // and ten times as many when queues are long
constexpr float kPoolGrowth = 10;
constexpr std::size_t kMostTableBytes = 16 * TransportPacker::kPacketBytes;
constexpr int kCrcBytes = 4;

/// stream_type of video, ISO/IEC 13818-1, table 2-34, and those that others have registered.
constexpr int kVideoTypes[] = {0x01, 0x02, 0x10, 0x1B, 0x20, 0x24, 0x33, 0x42, 0xD1, 0xD2, 0xD4, 0xEA};

/// One packet's head, 2.4.3.2 and 2.4.3.4.
struct Head {
    explicit Head(const std::uint8_t* packet)
        : pid((packet[1] & 0x1F) << 8 | packet[2]), begins((packet[1] & 0x40) != 0) {
        const bool hasAdaptation = (packet[3] & 0x20) != 0;
        const int length = hasAdaptation ? packet[4] + 1 : 0;
        hasPayload = (packet[3] & 0x10) != 0;
        randomAccess = hasAdaptation && packet[4] > 0 && (packet[5] & 0x40) != 0;
        payload = 4 + length;
    }

    int pid;
    bool begins;
    bool hasPayload;
    bool randomAccess;
    int payload;  // offset
};

int twelveBits(const std::uint8_t* at) {
    return (at[0] & 0x0F) << 8 | at[1];
}

int thirteenBits(const std::uint8_t* at) {
    return (at[0] & 0x1F) << 8 | at[1];
}

/// How much of the section that begins in a table's packet lies in it, without its checksum; that is enough
/// for the first streams, which is all that is looked for. 0: nothing.
int sectionIn(const std::uint8_t* packet, int payload, const std::uint8_t*& section) {
    const int begin = payload + 1 + (payload < TransportPacker::kPacketBytes ? packet[payload] : 0);
    if (begin + 3 > TransportPacker::kPacketBytes) {
        return 0;
    }
    section = packet + begin;
    const int whole = 3 + twelveBits(section + 1) - kCrcBytes;
    return std::min(whole, TransportPacker::kPacketBytes - begin);
}

}  // namespace

TransportPacker::TransportPacker(std::function<bool()> wanted, Sink to)
    : wantsEntry(std::move(wanted)), sink(std::move(to)), pool(kPieceBytes, kPoolPieces, true, kPoolGrowth) {}

bool TransportPacker::begin() {
    piece = Packet::Adopt(pool.LockBuffer(true));
    if (!piece) {
        return false;
    }
    piece->ActualSize() = 0;
    pieceIsEntry = false;
    return true;
}

void TransportPacker::emit() {
    const Packet done = std::move(piece);
    piece = Packet();
    if (done && done->ActualSize() > 0) {
        emitted += 1;
        sink(*done.get(), pieceIsEntry);
    }
}

bool TransportPacker::Add(const std::uint8_t* data, int size) {
    while (size > 0) {
        if (!piece && !begin()) {
            return false;
        }
        const int into = piece->ActualSize();
        const int part = std::min(size, kPacketBytes - into % kPacketBytes);
        std::memcpy(piece->Buffer() + into, data, static_cast<std::size_t>(part));
        piece->ActualSize() = into + part;
        data += part;
        size -= part;
        if (piece->ActualSize() % kPacketBytes == 0 && !look()) {
            return false;
        }
        if (piece->ActualSize() == kPieceBytes) {
            emit();
        }
    }
    return true;
}

void TransportPacker::Finish() {
    emit();
}

/// Looks at the packet that has just become complete. False without memory.
bool TransportPacker::look() {
    const int at = piece->ActualSize() - kPacketBytes;
    const auto* const packet = reinterpret_cast<const std::uint8_t*>(piece->Buffer()) + at;
    const Head head(packet);
    if (head.pid == 0 || (pmtPid != 0 && head.pid == pmtPid)) {
        Bytes& table = head.pid == 0 ? pat : pmt;
        if (head.begins) {
            table.clear();
        }
        if (table.size() < kMostTableBytes) {
            table.insert(table.end(), packet, packet + kPacketBytes);
        }
        const std::uint8_t* section = nullptr;
        const int size = head.begins && head.hasPayload ? sectionIn(packet, head.payload, section) : 0;
        if (size > 0) {
            head.pid == 0 ? readPat(section, size) : readPmt(section, size);
        }
        return true;
    }
    if (pieceIsEntry || leadPid == 0 || head.pid != leadPid || !head.begins || !head.randomAccess ||
        !wantsEntry()) {
        return true;
    }
    if (at > 0) {
        std::uint8_t entry[kPacketBytes];
        std::memcpy(entry, packet, sizeof(entry));
        piece->ActualSize() = at;
        emit();
        if (!begin()) {
            return false;
        }
        std::memcpy(piece->Buffer(), entry, sizeof(entry));
        piece->ActualSize() = kPacketBytes;
    }
    pieceIsEntry = true;
    return true;
}

/// 2.4.4.3: the map of the first program.
void TransportPacker::readPat(const std::uint8_t* section, int size) {
    for (int at = 8; at + 4 <= size; at += 4) {
        const int program = section[at] << 8 | section[at + 1];
        if (program != 0) {
            pmtPid = thirteenBits(section + at + 2);
            return;
        }
    }
}

/// 2.4.4.8
void TransportPacker::readPmt(const std::uint8_t* section, int size) {
    if (size < 12) {
        return;
    }
    int first = 0;
    for (int at = 12 + twelveBits(section + 10); at + 5 <= size; at += 5 + twelveBits(section + at + 3)) {
        const int pid = thirteenBits(section + at + 1);
        first = first == 0 ? pid : first;
        if (std::find(std::begin(kVideoTypes), std::end(kVideoTypes), section[at]) != std::end(kVideoTypes)) {
            leadPid = pid;
            return;
        }
    }
    leadPid = first;
}

TransportPacker::Packet TransportPacker::Tables() {
    const auto size = pat.size() + pmt.size();
    Packet tables = Packet::Adopt(Media::MediaGlobal::LockBuffer(static_cast<int>(size)));
    if (tables) {
        tables->ActualSize() = 0;
        tables->Append(pat.data(), static_cast<int>(pat.size()));
        tables->Append(pmt.data(), static_cast<int>(pmt.size()));
    }
    return tables;
}

}  // namespace Mivra::Tool
