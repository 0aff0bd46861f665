#include "tools/mivra/PictureTurn.h"

#include <cstdint>
#include <cstring>

extern "C" {
#include <libavcodec/packet.h>
}

namespace Mivra::Tool {
std::string displayMatrixKey() {
    return "SideData." + std::to_string(static_cast<int>(AV_PKT_DATA_DISPLAYMATRIX));
}

PictureTurn::PictureTurn(const Common::MediaType& type) {
    std::int32_t matrix[9];  // a pixel (x, y) is shown at (m0 x + m3 y + m6, m1 x + m4 y + m7)
    const std::string key = displayMatrixKey();
    if (!type.CodecMetadata().ContainsKey(key)) {
        return;
    }
    Common::MediaType copy(type);
    const std::string& bytes = copy.CodecMetadata()[key];
    if (bytes.size() != sizeof(matrix)) {
        return;
    }
    std::memcpy(matrix, bytes.data(), sizeof(matrix));
    const bool straight = matrix[0] != 0 && matrix[4] != 0 && matrix[1] == 0 && matrix[3] == 0;
    swaps = matrix[1] != 0 && matrix[3] != 0 && matrix[0] == 0 && matrix[4] == 0;
    if (straight || swaps) {
        right = matrix[swaps ? 3 : 0] < 0 ? -1 : 1;
        down = matrix[swaps ? 1 : 4] < 0 ? -1 : 1;
    }
}

void PictureTurn::Apply(const char* from, int width, int height, std::ptrdiff_t stride, char* to) const {
    const int wide = swaps ? height : width;
    const int high = swaps ? width : height;
    const std::ptrdiff_t acrossStep = (swaps ? stride : kBytesOfPixel) * right;
    const std::ptrdiff_t downStep = (swaps ? kBytesOfPixel : stride) * down;
    const char* row =
        from + (right < 0 ? -acrossStep * (wide - 1) : 0) + (down < 0 ? -downStep * (high - 1) : 0);
    for (int y = 0; y < high; ++y, row += downStep) {
        const char* pixel = row;
        for (int x = 0; x < wide; ++x, pixel += acrossStep, to += kBytesOfPixel) {
            std::memcpy(to, pixel, kBytesOfPixel);
        }
    }
}

}  // namespace Mivra::Tool
