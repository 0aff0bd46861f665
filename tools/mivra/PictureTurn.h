#pragma once

#include <cstddef>
#include <string>

#include "mivra/common/model/MediaType.h"

namespace Mivra::Tool {

/// Key of CodecMetadata for how a stream's pictures are turned and mirrored to be shown: FFmpeg's display
/// matrix, nine numbers of 32 bits.
std::string displayMatrixKey();

/// The quarter turn, mirrored or not, with which a stream asks for its pictures to be shown. A plain value.
class PictureTurn {
public:
    static constexpr std::ptrdiff_t kBytesOfPixel = 3;

    /// No turn when the type tells none, or one by another angle.
    explicit PictureTurn(const Common::MediaType& type);

    bool IsNone() const { return !swaps && right > 0 && down > 0; }
    /// Width and height change places.
    bool SwapsSides() const { return swaps; }
    /// Turns a picture of 3 bytes a pixel, its rows `stride` bytes apart, into one without gaps at `to`.
    void Apply(const char* from, int width, int height, std::ptrdiff_t stride, char* to) const;

private:
    bool swaps = false;
    // Which way across and down the shown picture the columns and rows of the decoded one go, 1 or -1; across
    // is along its rows, unless the sides are swapped.
    int right = 1;
    int down = 1;
};

}  // namespace Mivra::Tool
