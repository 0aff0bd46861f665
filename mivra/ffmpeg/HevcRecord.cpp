#include "mivra/ffmpeg/HevcRecord.h"

#include <cstdlib>
#include <memory>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/common/binary/EndianBinaryReader.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/Reference.h"

namespace Mivra::FFmpeg {
namespace {

using Codecs::H264::H264ConfigurationParser;
using Common::EndianBinaryReader;
using Common::PacketBuffer;
using Bytes = std::span<const std::uint8_t>;
using Record = std::vector<std::uint8_t>;

constexpr int kSetKinds[] = {32, 33, 34};  // video, sequence, picture: ITU-T H.265 Table 7-1
constexpr int kSequenceSet = 33;
constexpr int kHeaderSize = 2;    // of a unit
constexpr int kProfileSize = 12;  // general_profile_space to general_level_idc
constexpr std::size_t kArraysOffset = 22;
constexpr std::size_t kLongestSet = 0xFFFF;

int kindOf(Bytes unit) {
    return unit[0] >> 1 & 0x3F;
}

/// The units between start codes, without the zeros behind them; those too short for a header are left out.
std::vector<Bytes> unitsOf(Bytes data) {
    std::vector<Bytes> units;
    const auto next = [&](std::size_t from, int& codeLength) {
        const int found = H264ConfigurationParser::FindNextStartCode(
            const_cast<std::uint8_t*>(data.data()) + from, static_cast<int>(data.size() - from), codeLength);
        return found < 0 ? data.size() : from + static_cast<std::size_t>(found);
    };
    int codeLength = 0;
    for (std::size_t at = next(0, codeLength); at < data.size();) {
        const std::size_t begin = at + static_cast<std::size_t>(codeLength);
        at = next(begin, codeLength);
        Bytes unit = data.subspan(begin, at - begin);
        while (!unit.empty() && unit.back() == 0) {
            unit = unit.first(unit.size() - 1);
        }
        if (unit.size() > kHeaderSize) {
            units.push_back(unit);
        }
    }
    return units;
}

/// What the record tells of a sequence parameter set (ITU-T H.265 7.3.2.2).
struct Sequence {
    std::uint8_t profile[kProfileSize] = {};
    int subLayers = 0;  // sps_max_sub_layers_minus1
    bool nested = false;
    std::uint32_t chroma = 0;
    std::uint32_t lumaDepth = 0;  // minus 8, as the next
    std::uint32_t chromaDepth = 0;
};

/// profile_tier_level() of 7.3.3, of which the part for all layers counts.
void readProfile(EndianBinaryReader& reader, Sequence& sequence) {
    constexpr int kMostSubLayers = 8;
    constexpr int kBitsOfProfile = 88;
    for (std::uint8_t& byte : sequence.profile) {
        byte = static_cast<std::uint8_t>(reader.ReadBits(8));
    }
    std::int64_t present = 0;  // two flags a layer
    if (sequence.subLayers > 0) {
        present = reader.ReadBits(2 * kMostSubLayers);
    }
    for (int layer = 0; layer < sequence.subLayers; ++layer) {
        const int flags = static_cast<int>(present >> (2 * (kMostSubLayers - 1 - layer)) & 3);
        for (int bits = ((flags & 2) != 0 ? kBitsOfProfile : 0) + ((flags & 1) != 0 ? 8 : 0); bits > 0;
             bits -= 8) {
            reader.ReadBits(8);
        }
    }
}

void readSequence(EndianBinaryReader& reader, Sequence& sequence) {
    reader.ReadBits(8 * kHeaderSize + 4);  // header, sps_video_parameter_set_id
    sequence.subLayers = static_cast<int>(reader.ReadBits(3));
    sequence.nested = reader.ReadBits(1) != 0;
    readProfile(reader, sequence);
    reader.ReadExpGolomb();  // sps_seq_parameter_set_id
    sequence.chroma = reader.ReadExpGolomb();
    if (sequence.chroma == 3) {
        reader.ReadBits(1);  // separate_colour_plane_flag
    }
    reader.ReadExpGolomb();  // width and height
    reader.ReadExpGolomb();
    const bool cropped = reader.ReadBits(1) != 0;
    for (int edge = 0; cropped && edge < 4; ++edge) {
        reader.ReadExpGolomb();
    }
    sequence.lumaDepth = reader.ReadExpGolomb();
    sequence.chromaDepth = reader.ReadExpGolomb();
}

bool parseSequence(Bytes unit, Sequence& sequence) {
    unsigned char* bytes = nullptr;
    int size = 0;
    if (!H264ConfigurationParser::RemoveForbiddenSequenceEmulation(unit.data(), static_cast<int>(unit.size()),
                                                                   bytes, size)) {
        throw std::bad_alloc();
    }
    const std::unique_ptr<unsigned char, decltype(&std::free)> owner(bytes, &std::free);
    const auto buffer =
        Common::Reference<PacketBuffer>::Adopt(new PacketBuffer(reinterpret_cast<char*>(bytes), size));
    buffer->ActualSize() = size;
    try {
        EndianBinaryReader reader(buffer.get());
        readSequence(reader, sequence);
    } catch (const Common::GeneralException&) {
        return false;
    }
    return sequence.chroma <= 3 && sequence.lumaDepth <= 8 && sequence.chromaDepth <= 8;
}

void writeHead(const Sequence& sequence, Record& record) {
    constexpr std::uint8_t kVersion = 1;
    constexpr std::uint8_t kLengthSize = 4;
    record = {kVersion};
    record.insert(record.end(), std::begin(sequence.profile), std::end(sequence.profile));
    // Segmentation and parallelism are not known, nor is the average frame rate; reserved bits are 1.
    record.insert(record.end(), {0xF0, 0, 0xFC});
    record.push_back(static_cast<std::uint8_t>(0xFC | sequence.chroma));
    record.push_back(static_cast<std::uint8_t>(0xF8 | sequence.lumaDepth));
    record.push_back(static_cast<std::uint8_t>(0xF8 | sequence.chromaDepth));
    record.insert(record.end(), {0, 0});
    record.push_back(static_cast<std::uint8_t>((sequence.subLayers + 1) << 3 |
                                               (sequence.nested ? 1 : 0) << 2 | (kLengthSize - 1)));
}

void writeNumber(std::size_t number, Record& record) {
    record.push_back(static_cast<std::uint8_t>(number >> 8));
    record.push_back(static_cast<std::uint8_t>(number));
}

/// The sets of a kind, of which more may stand in the packets. False when there is none.
bool writeArray(int kind, const std::vector<Bytes>& units, Record& record) {
    record.push_back(static_cast<std::uint8_t>(kind));
    const std::size_t place = record.size();
    std::size_t count = 0;
    writeNumber(0, record);
    for (const Bytes& unit : units) {
        if (kindOf(unit) == kind && unit.size() <= kLongestSet && count < kLongestSet) {
            writeNumber(unit.size(), record);
            record.insert(record.end(), unit.begin(), unit.end());
            ++count;
        }
    }
    record[place] = static_cast<std::uint8_t>(count >> 8);
    record[place + 1] = static_cast<std::uint8_t>(count);
    return count > 0;
}

}  // namespace

std::vector<std::uint8_t> makeHevcRecord(std::span<const std::uint8_t> annexB) {
    const std::vector<Bytes> units = unitsOf(annexB);
    Record record;
    for (const Bytes& unit : units) {
        Sequence sequence;
        if (kindOf(unit) == kSequenceSet) {
            if (!parseSequence(unit, sequence)) {
                return {};
            }
            writeHead(sequence, record);
            break;
        }
    }
    if (record.empty()) {
        return {};
    }
    record.push_back(static_cast<std::uint8_t>(std::size(kSetKinds)));
    for (const int kind : kSetKinds) {
        if (!writeArray(kind, units, record)) {
            return {};
        }
    }
    return record;
}

std::vector<std::uint8_t> hevcRecordToAnnexB(std::span<const std::uint8_t> record) {
    constexpr std::uint8_t kStartCode[] = {0, 0, 0, 1};
    Record units;
    Bytes rest = record.size() > kArraysOffset ? record.subspan(kArraysOffset) : Bytes();
    const auto take = [&rest](std::size_t size) {  // a number of one or two bytes; past the end: of zeros
        std::size_t number = 0;
        for (; size > 0; --size) {
            number = number << 8 | (rest.empty() ? 0U : rest.front());
            rest = rest.subspan(rest.empty() ? 0 : 1);
        }
        return number;
    };
    for (std::size_t arrays = rest.empty() ? 0 : take(1); arrays > 0; --arrays) {
        take(1);  // completeness, kind
        for (std::size_t count = take(2); count > 0; --count) {
            const std::size_t size = take(2);
            if (size == 0 || size > rest.size()) {
                return {};
            }
            units.insert(units.end(), std::begin(kStartCode), std::end(kStartCode));
            units.insert(units.end(), rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(size));
            rest = rest.subspan(size);
        }
    }
    return units;
}

}  // namespace Mivra::FFmpeg
