// Parse(), and what the parsed sets say.

#include "mivra/codecs/h264/H264ConfigurationParser.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <span>

#include "mivra/codecs/h264/AnnexB.h"
#include "mivra/codecs/h264/AspectRatios.h"
#include "mivra/codecs/h264/AvcConfigurationRecord.h"
#include "mivra/codecs/h264/BitCursor.h"
#include "mivra/codecs/h264/ParameterSetCoding.h"
#include "mivra/codecs/h264/Rbsp.h"
#include "mivra/codecs/h264/SyntaxElement.h"
#include "mivra/common/runtime/GlobalLog.h"

namespace Mivra::Codecs::H264 {

using Common::Rational;

namespace {

using Bytes = std::span<const unsigned char>;

constexpr unsigned char AnnexBMark = 0;
constexpr unsigned char NalRefIdcMask = 0x60;
constexpr unsigned char HeaderMask = 0x7F;  // all but forbidden_zero_bit
constexpr int Parsed = 1;
constexpr int Failed = -1;

constexpr std::int64_t MacroblockSize = 16;

// Values of chroma_format_idc (Table 6-1).
constexpr int Chroma420 = 1;
constexpr int Chroma422 = 2;

FirstParameterSets firstSetsOfStream(Bytes stream) {
    return {findNalUnit(stream, NalUnitTypes::SequenceParameterSet),
            findNalUnit(stream, NalUnitTypes::PictureParameterSet)};
}

/// Whether a picture parameter set names the sequence parameter set.
bool namesSequence(Bytes pps, const SPS264struct& sps) {
    BitCursor bits(pps);
    bits.ExpGolomb();  // pic_parameter_set_id
    return bits.ExpGolomb() == static_cast<std::uint64_t>(sps.seq_parameter_set_id);
}

int toSamples(std::int64_t size) {
    return size > 0 && size <= std::numeric_limits<int>::max() ? static_cast<int>(size) : 0;
}

/// The HRD parameters that are there, NAL before VCL; null for none.
const HrdParameters_t* hrdOf(const SPS264struct& sps) {
    const VuiParameters_t& vui = sps.vui_parameters;
    if (sps.vui_parameters_present_flag == 0) {
        return nullptr;
    }
    if (vui.nal_hrd_parameters_present_flag != 0) {
        return &vui.nal_hrd_parameters;
    }
    return vui.vcl_hrd_parameters_present_flag != 0 ? &vui.vcl_hrd_parameters : nullptr;
}

/// BitRate[i] (E.2.2).
std::int64_t bitRate(const HrdParameters_t& hrd, int schedule) {
    return (std::int64_t{hrd.bit_rate_value_minus1[schedule]} + 1) << (6 + hrd.bit_rate_scale);
}

/// MaxDpbMbs (Table A-1); 0 for a level that is not in it. Level 1b has no case of its own, deliberately.
std::int64_t maxDpbMbs(int level_idc) {
    switch (level_idc) {
        case 10:
            return 396;
        case 11:
            return 900;
        case 12:
        case 13:
        case 20:
            return 2376;
        case 21:
            return 4752;
        case 22:
        case 30:
            return 8100;
        case 31:
            return 18000;
        case 32:
            return 20480;
        case 40:
        case 41:
            return 32768;
        case 42:
            return 34816;
        case 50:
            return 110400;
        case 51:
        case 52:
            return 184320;
        case 60:
        case 61:
        case 62:
            return 696320;
        default:
            return 0;
    }
}

bool isIntraOnly(const SPS264struct& sps) {
    switch (sps.profile_idc) {
        case 44:
        case 86:
        case 100:
        case 110:
        case 122:
        case 244:
            return sps.constraint_set3_flag != 0;
        default:
            return false;
    }
}

}  // namespace

int H264ConfigurationParser::Parse(unsigned char* data, int size, int flags) {
    clear(sps);
    clear(pps);
    spsHeader = DefaultSpsHeader;
    input = data;
    inputSize = size;
    if (data == nullptr || size < 1) {
        return Failed;
    }
    const Bytes bytes(data, static_cast<std::size_t>(size));
    if (bytes[0] != AnnexBMark && bytes[0] != AvcConfigurationRecord::Version) {
        return parseUnits(flags > 0);
    }
    const FirstParameterSets sets =
        bytes[0] == AnnexBMark ? firstSetsOfStream(bytes) : AvcConfigurationRecord::ReadFirstSets(bytes);
    parseSet(Rbsp(sets.sps).Unit());
    parseSet(Rbsp(sets.pps).Unit());
    return Parsed;
}

int H264ConfigurationParser::parseUnits(bool prefixed) {
    constexpr std::size_t PrefixSize = 3;
    const Rbsp whole(Bytes(input, static_cast<std::size_t>(inputSize)));
    Bytes rest = whole.Unit();
    if (rest.empty()) {
        return Failed;
    }
    while (!rest.empty()) {
        std::size_t length = 0;
        if (prefixed) {
            if (rest.size() < PrefixSize) {
                return Failed;
            }
            length = rest[PrefixSize - 1];  // the bytes in front of it are passed over on purpose
            rest = rest.subspan(PrefixSize);
        }
        if (length > rest.size() || !parseSet(rest.first(length == 0 ? rest.size() : length))) {
            return Failed;
        }
        rest = rest.subspan(length == 0 ? rest.size() : length);
    }
    return Parsed;
}

// A unit that is no parameter set, or nothing, is passed over.
bool H264ConfigurationParser::parseSet(Bytes unit) {
    if (unit.empty()) {
        return true;
    }
    const Bytes payload = unit.subspan(1);
    switch (nalUnitType(unit)) {
        case NalUnitTypes::SequenceParameterSet:
            spsHeader = (unit[0] & NalRefIdcMask) != 0 ? unit[0] & HeaderMask : DefaultSpsHeader;
            return readSequenceParameterSet(payload, sps);
        case NalUnitTypes::PictureParameterSet:
            return readPictureParameterSet(payload, sps.chroma_format_idc, pps,
                                           namesSequence(payload, sps) ? sps.profile_idc : 0);
        default:
            return true;
    }
}

// ChromaArrayType (7.4.2.1.1).
int H264ConfigurationParser::getChromaArrayType() const {
    return sps.separate_colour_plane_flag != 0 ? 0 : sps.chroma_format_idc;
}

// SubWidthC (Table 6-1), and 1 without chroma (7.4.2.1.1).
int H264ConfigurationParser::getCropUnitX() const {
    const int type = getChromaArrayType();
    return type == Chroma420 || type == Chroma422 ? 2 : 1;
}

int H264ConfigurationParser::getCropUnitY() const {
    return (getChromaArrayType() == Chroma420 ? 2 : 1) * (2 - sps.frame_mbs_only_flag);
}

std::int64_t H264ConfigurationParser::codedWidth() const {
    return (std::int64_t{sps.pic_width_in_mbs_minus1} + 1) * MacroblockSize;
}

std::int64_t H264ConfigurationParser::codedHeight() const {
    return (std::int64_t{sps.pic_height_in_map_units_minus1} + 1) * MacroblockSize *
           (2 - sps.frame_mbs_only_flag);
}

int H264ConfigurationParser::GetWidth() const {
    const std::int64_t cropped = std::int64_t{sps.frame_crop_left_offset} + sps.frame_crop_right_offset;
    return hasSps() ? toSamples(codedWidth() - cropped * getCropUnitX()) : 0;
}

int H264ConfigurationParser::GetHeight() const {
    const std::int64_t cropped = std::int64_t{sps.frame_crop_top_offset} + sps.frame_crop_bottom_offset;
    return hasSps() ? toSamples(codedHeight() - cropped * getCropUnitY()) : 0;
}

Rational H264ConfigurationParser::GetAspectRatio() const {
    const VuiParameters_t& vui = sps.vui_parameters;
    if (sps.vui_parameters_present_flag == 0 || vui.aspect_ratio_info_present_flag == 0) {
        return {};
    }
    if (vui.aspect_ratio_idc != Extended_SAR) {
        const bool known = vui.aspect_ratio_idc < SampleAspectRatioCount;
        const SampleAspectRatio ratio = SampleAspectRatios[known ? vui.aspect_ratio_idc : 0];
        return {ratio.width, ratio.height};
    }
    const bool unspecified = vui.sar_width == 0 || vui.sar_height == 0;
    return unspecified ? Rational() : Rational(vui.sar_width, vui.sar_height);
}

// A tick is a field's time, also where the pictures are frames (E.2.1): so a frame takes two. A fraction that
// does not fit a Rational becomes the nearest that does.
Rational H264ConfigurationParser::GetFrameRate() const {
    const VuiParameters_t& vui = sps.vui_parameters;
    if (sps.vui_parameters_present_flag == 0 || vui.timing_info_present_flag == 0 ||
        vui.num_units_in_tick == 0 || vui.time_scale == 0) {
        return {};
    }
    const std::int64_t ticksPerSecond = vui.time_scale;
    const std::int64_t unitsPerFrame = std::int64_t{vui.num_units_in_tick} * 2;
    const Rational exact(ticksPerSecond, unitsPerFrame);
    return exact.IsNull() ? Rational(static_cast<double>(ticksPerSecond) / static_cast<double>(unitsPerFrame))
                          : exact;
}

std::int64_t H264ConfigurationParser::GetBitrate() const {
    const HrdParameters_t* hrd = hrdOf(sps);
    return hrd != nullptr ? bitRate(*hrd, 0) : 0;
}

std::int64_t H264ConfigurationParser::GetMaxBitrate() const {
    const HrdParameters_t* hrd = hrdOf(sps);
    std::int64_t fastest = 0;
    for (int i = 0; hrd != nullptr && i <= hrd->cpb_cnt_minus1; ++i) {
        fastest = std::max(fastest, bitRate(*hrd, i));
    }
    return fastest;
}

int H264ConfigurationParser::GetProfileLevel() const {
    const int constraints = sps.constraint_set0_flag << 7 | sps.constraint_set1_flag << 6 |
                            sps.constraint_set2_flag << 5 | sps.constraint_set3_flag << 4 |
                            sps.reserved_zero_4bits;
    return sps.profile_idc << 16 | constraints << 8 | sps.level_idc;
}

int H264ConfigurationParser::GetReorderingQueueDepth() const {
    int depth = 0;
    TryGetReorderingQueueDepth(&depth);
    return depth;
}

bool H264ConfigurationParser::TryGetReorderingQueueDepth(int* depth) const {
    if (sps.vui_parameters_present_flag != 0 && sps.vui_parameters.bitstream_restriction_flag != 0) {
        *depth = sps.vui_parameters.max_num_reorder_frames;
        return true;
    }
    if (isIntraOnly(sps)) {
        *depth = 0;
        return false;
    }
    // An estimate that players were tuned to: map units count as macroblocks, also where they are pairs.
    const std::int64_t width = std::int64_t{sps.pic_width_in_mbs_minus1} + 1;
    const std::int64_t height = std::int64_t{sps.pic_height_in_map_units_minus1} + 1;
    *depth = static_cast<int>(std::min(MaxDpbFrames, maxDpbMbs(sps.level_idc) / width / height));
    return false;
}

bool H264ConfigurationParser::IsCudaCompatible() const {
    constexpr int HighProfile = 100;
    Common::LogLine(Common::FileLog::Debug,
                    "H264ConfigurationParser::IsCudaCompatible: profile %d, chroma_format_idc %d, "
                    "bit_depth_luma_minus8 %d",
                    sps.profile_idc, sps.chroma_format_idc, sps.bit_depth_luma_minus8);
    return sps.profile_idc <= HighProfile && sps.chroma_format_idc == Chroma420 &&
           sps.bit_depth_luma_minus8 == 0;
}

bool H264ConfigurationParser::IsSpsEqual(const SPS264struct& left, const SPS264struct& right) {
    return left == right;
}

bool H264ConfigurationParser::IsPpsEqual(const PPS264struct& left, const PPS264struct& right) {
    return left == right;
}

}  // namespace Mivra::Codecs::H264
