#pragma once

#include <cstdint>

namespace Mivra::Codecs::H264 {

struct SampleAspectRatio {
    std::int32_t width;
    std::int32_t height;
};

/// By aspect_ratio_idc (Table E-1); 0 is unspecified.
constexpr SampleAspectRatio SampleAspectRatios[] = {
    {0, 0},   {1, 1},   {12, 11}, {10, 11}, {16, 11},  {40, 33}, {24, 11}, {20, 11}, {32, 11},
    {80, 33}, {18, 11}, {15, 11}, {64, 33}, {160, 99}, {4, 3},   {3, 2},   {2, 1}};
constexpr int SampleAspectRatioCount = sizeof SampleAspectRatios / sizeof SampleAspectRatios[0];

/// aspect_ratio_idc that says that sar_width and sar_height follow.
constexpr int Extended_SAR = 255;

}  // namespace Mivra::Codecs::H264
