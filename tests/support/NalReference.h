#pragma once

// Start codes and emulation prevention byte by byte, as the standard tells them (ITU-T H.264 7.3.1, 7.4.1.1,
// Annex B): what tests and fuzz targets hold the library to.

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Mivra::Test {

using NalBytes = std::vector<unsigned char>;

/// The offset of the first 00 00 01, the size when there is none.
inline std::size_t ReferencePrefix(const NalBytes& in) {
    const unsigned char prefix[] = {0, 0, 1};
    return static_cast<std::size_t>(std::search(in.begin(), in.end(), prefix, prefix + 3) - in.begin());
}

/// nal_unit().
inline NalBytes ReferenceRemoved(const NalBytes& in) {
    NalBytes out;
    for (std::size_t i = 0; i < in.size(); ++i) {
        if (i + 2 < in.size() && in[i] == 0 && in[i + 1] == 0 && in[i + 2] == 3) {
            out.insert(out.end(), {0, 0});
            i += 2;
        } else {
            out.push_back(in[i]);
        }
    }
    return out;
}

/// The encapsulation of a payload, but for the byte behind a last zero.
inline NalBytes ReferenceInserted(const NalBytes& in) {
    NalBytes out;
    int zeros = 0;
    for (const unsigned char byte : in) {
        if (zeros == 2 && byte <= 3) {
            out.push_back(3);
            zeros = 0;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        out.push_back(byte);
    }
    return out;
}

}  // namespace Mivra::Test
