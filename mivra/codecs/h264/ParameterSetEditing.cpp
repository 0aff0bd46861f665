// SetCrop(), SetAspectRatio() and ToPacketBuffer(): a parsed sequence parameter set is changed and written.

#include <cstddef>
#include <cstdint>
#include <span>

#include "mivra/codecs/h264/AspectRatios.h"
#include "mivra/codecs/h264/EmulationPrevention.h"
#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/codecs/h264/ParameterSetCoding.h"
#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Codecs::H264 {

using Common::GeneralException;

namespace {

/// Cropping of one direction, in crop units, or an exception.
struct CropOffsets {
    std::int32_t before;
    std::int32_t after;
};

CropOffsets cropOffsets(int before, int after, int unit, std::int64_t size) {
    if (before < 0 || after < 0 || before % unit != 0 || after % unit != 0) {
        throw GeneralException(
            "H264ConfigurationParser::SetCrop: %d and %d are not both whole, positive multiples of %d",
            before, after, unit);
    }
    if (std::int64_t{before} + after >= size) {
        throw GeneralException("H264ConfigurationParser::SetCrop: %d and %d leave nothing of %lld samples",
                               before, after, static_cast<long long>(size));
    }
    return {before / unit, after / unit};
}

int aspectRatioIdc(Common::Rational ratio) {
    for (int idc = 1; idc < SampleAspectRatioCount; ++idc) {
        if (ratio == Common::Rational(SampleAspectRatios[idc].width, SampleAspectRatios[idc].height)) {
            return idc;
        }
    }
    return Extended_SAR;
}

}  // namespace

void H264ConfigurationParser::requireSps(const char* operation) const {
    if (!hasSps()) {
        throw GeneralException("H264ConfigurationParser::%s: there is no sequence parameter set", operation);
    }
}

void H264ConfigurationParser::SetCrop(int left, int right, int top, int bottom) {
    requireSps("SetCrop");
    const CropOffsets columns = cropOffsets(left, right, getCropUnitX(), codedWidth());
    const CropOffsets rows = cropOffsets(top, bottom, getCropUnitY(), codedHeight());
    const bool same = sps.frame_crop_left_offset == columns.before &&
                      sps.frame_crop_right_offset == columns.after &&
                      sps.frame_crop_top_offset == rows.before && sps.frame_crop_bottom_offset == rows.after;
    if (same) {
        return;  // even where a flag announces offsets of 0
    }
    sps.frame_crop_left_offset = columns.before;
    sps.frame_crop_right_offset = columns.after;
    sps.frame_crop_top_offset = rows.before;
    sps.frame_crop_bottom_offset = rows.after;
    sps.frame_cropping_flag = left != 0 || right != 0 || top != 0 || bottom != 0 ? 1 : 0;
}

void H264ConfigurationParser::SetAspectRatio(Common::Rational ratio) {
    requireSps("SetAspectRatio");
    constexpr int MaxPart = 65535;
    const bool none = ratio == Common::Rational();
    const bool valid =
        ratio.Num() >= 1 && ratio.Num() <= MaxPart && ratio.Den() >= 1 && ratio.Den() <= MaxPart;
    if (!none && !valid) {
        throw GeneralException("H264ConfigurationParser::SetAspectRatio: %d:%d cannot be written",
                               ratio.Num(), ratio.Den());
    }
    if (ratio == GetAspectRatio()) {
        return;
    }
    VuiParameters_t& vui = sps.vui_parameters;
    if (sps.vui_parameters_present_flag == 0) {
        vui = VuiParameters_t();
        sps.vui_parameters_present_flag = 1;
    }
    vui.aspect_ratio_info_present_flag = none ? 0 : 1;
    vui.aspect_ratio_idc = none ? 0 : aspectRatioIdc(ratio);
    const bool extended = vui.aspect_ratio_idc == Extended_SAR;
    vui.sar_width = extended ? ratio.Num() : 0;
    vui.sar_height = extended ? ratio.Den() : 0;
}

void H264ConfigurationParser::ToPacketBuffer(Common::PacketBuffer* buffer) const {
    if (buffer == nullptr) {
        throw GeneralException("H264ConfigurationParser::ToPacketBuffer: buffer is NULL");
    }
    requireSps("ToPacketBuffer");
    unsigned char unit[1 + MaxSpsSize];
    unit[0] = spsHeader;
    const std::size_t unitSize = 1 + writeSequenceParameterSet(sps, std::span(unit).subspan(1));
    unsigned char prevented[sizeof unit + sizeof unit / 2 + 1];
    const std::size_t size = applyEmulationPrevention({unit, unitSize}, prevented);
    const std::int64_t room = std::int64_t{buffer->Size()} - buffer->ActualSize();
    if (static_cast<std::int64_t>(size) > room) {
        throw GeneralException("H264ConfigurationParser::ToPacketBuffer: %d bytes do not fit in %lld",
                               static_cast<int>(size), static_cast<long long>(room));
    }
    buffer->Append(prevented, static_cast<int>(size));
}

}  // namespace Mivra::Codecs::H264
