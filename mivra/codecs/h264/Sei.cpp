#include "mivra/codecs/h264/Sei.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "mivra/codecs/h264/EmulationPrevention.h"
#include "mivra/codecs/h264/NalUnitHeader.h"
#include "mivra/codecs/h264/SeiPayloadTypes.h"
#include "mivra/codecs/h264/UnitWalk.h"

namespace Mivra::Codecs::H264 {

namespace {

constexpr unsigned char RbspStop = 0x80;

/// The bytes of a message, emulation prevention stepped over.
class MessageBytes {
public:
    explicit MessageBytes(NalUnit bytes) : next(bytes.data()), end(bytes.data() + bytes.size()) {}

    /// Emulation prevention included.
    std::size_t Left() const { return static_cast<std::size_t>(end - next); }
    std::optional<unsigned char> Next() {
        if (next != end && zeros >= 2 && *next == 3) {
            ++next;
            zeros = 0;
        }
        if (next == end) {
            return std::nullopt;
        }
        zeros = *next == 0 ? zeros + 1 : 0;
        return *next++;
    }

private:
    const unsigned char* next;
    const unsigned char* end;
    int zeros = 0;
};

/// payloadType or payloadSize: bytes of 255, and a last one below.
std::optional<std::uint64_t> readCount(MessageBytes& bytes) {
    std::uint64_t count = 0;
    while (const auto byte = bytes.Next()) {
        count += *byte;
        if (*byte != 0xFF) {
            return count;
        }
    }
    return std::nullopt;
}

void appendCount(std::vector<unsigned char>& bytes, std::size_t count) {
    bytes.insert(bytes.end(), count / 0xFF, 0xFF);
    bytes.push_back(static_cast<unsigned char>(count % 0xFF));
}

std::optional<std::vector<unsigned char>> readPayload(MessageBytes& bytes, std::uint64_t size) {
    std::vector<unsigned char> payload;
    payload.reserve(size);
    while (payload.size() < size) {
        const auto byte = bytes.Next();
        if (!byte) {
            return std::nullopt;
        }
        payload.push_back(*byte);
    }
    return payload;
}

/// A message ends in front of the trailing bits; a unit that lacks them is taken as it is.
std::optional<std::vector<unsigned char>> findInUnit(NalUnit unit, int payloadType) {
    const NalUnit rbsp = unit.subspan(1);
    const bool stopped = !rbsp.empty() && rbsp.back() == RbspStop;
    MessageBytes bytes(rbsp.first(rbsp.size() - (stopped ? 1 : 0)));
    while (bytes.Left() > 0) {
        const auto type = readCount(bytes);
        const auto size = type ? readCount(bytes) : std::nullopt;
        if (!size || *size > bytes.Left()) {
            break;
        }
        if (*type == static_cast<std::uint64_t>(payloadType)) {
            return readPayload(bytes, *size);
        }
        for (std::uint64_t i = 0; i < *size; ++i) {
            bytes.Next();
        }
    }
    return std::nullopt;
}

/// A unit of one message behind a start code of four bytes.
std::vector<unsigned char> makeUnit(int payloadType, std::span<const unsigned char> payload) {
    static constexpr unsigned char StartCodeBytes[] = {0, 0, 0, 1};
    std::vector<unsigned char> unit{static_cast<unsigned char>(NalUnitTypes::Sei)};
    unit.reserve(payload.size() + payload.size() / 0xFF + static_cast<std::size_t>(payloadType) / 0xFF + 4);
    appendCount(unit, static_cast<std::size_t>(payloadType));
    appendCount(unit, payload.size());
    unit.insert(unit.end(), payload.begin(), payload.end());
    unit.push_back(RbspStop);
    std::vector<unsigned char> coded(std::size(StartCodeBytes) + emulationPreventedSize(unit));
    std::copy(std::begin(StartCodeBytes), std::end(StartCodeBytes), coded.begin());
    applyEmulationPrevention(unit, coded.data() + std::size(StartCodeBytes));
    return coded;
}

/// In front of the first slice and of a prefix unit that belongs to it. A buffering period has to be the
/// first message (7.4.1.2.3).
std::optional<std::size_t> findPlace(std::span<const unsigned char> annexB, int payloadType) {
    const bool goesFirst = payloadType == static_cast<int>(SeiPayloadTypes::BufferingPeriod);
    std::optional<std::size_t> firstSei;
    std::optional<std::size_t> prefix;
    UnitWalk units(annexB, 0);
    while (const auto unit = units.Next()) {
        const NalUnitTypes type = nalUnitType(unit->rest);
        if (hasSliceHeader(type)) {
            const std::size_t place = prefix.value_or(unit->offset);
            return goesFirst ? firstSei.value_or(place) : place;
        }
        prefix = type == NalUnitTypes::PrefixNalUnit ? std::optional(unit->offset) : std::nullopt;
        if (type == NalUnitTypes::Sei && !firstSei) {
            firstSei = unit->offset;
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::vector<unsigned char>> findSei(std::span<const unsigned char> annexB, int payloadType) {
    UnitWalk units(annexB, 0);
    while (const auto unit = units.Next()) {
        const NalUnitTypes type = nalUnitType(unit->rest);
        if (hasSliceHeader(type)) {
            break;
        }
        if (type == NalUnitTypes::Sei) {
            if (auto payload = findInUnit(unit->Whole(), payloadType)) {
                return payload;
            }
        }
    }
    return std::nullopt;
}

bool recoversAtOnce(NalUnit unit) {
    const auto payload = findInUnit(unit, static_cast<int>(SeiPayloadTypes::RecoveryPoint));
    // recovery_frame_cnt comes first, and 0 is the one ue(v) that begins with a 1.
    return payload && !payload->empty() && (payload->front() & 0x80) != 0;
}

bool insertSei(Common::PacketBuffer& packet, std::span<const unsigned char> annexB, int payloadType,
               std::span<const unsigned char> payload) {
    const auto place = findPlace(annexB, payloadType);
    const std::size_t room = static_cast<std::size_t>(packet.Size() - packet.ActualSize());
    if (!place || payload.size() > room || static_cast<std::size_t>(payloadType) / 0xFF > room) {
        return false;
    }
    const std::vector<unsigned char> unit = makeUnit(payloadType, payload);
    return unit.size() <= room && packet.Insert(packet.Position() + static_cast<int>(*place), unit.data(),
                                                static_cast<int>(unit.size()), false);
}

}  // namespace Mivra::Codecs::H264
