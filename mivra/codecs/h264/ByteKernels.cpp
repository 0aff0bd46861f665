#include "mivra/codecs/h264/ByteKernels.h"

namespace Mivra::Codecs::H264 {

namespace {

const unsigned char* findPrefix(const unsigned char* begin, const unsigned char* end) {
    for (const unsigned char* p = begin; end - p >= 3; ++p) {
        if (p[0] == 0 && p[1] == 0 && p[2] == 1) {
            return p;
        }
    }
    return end;
}

std::size_t removePrevention(const unsigned char* begin, const unsigned char* end, unsigned char* out) {
    unsigned char* write = out;
    int zeros = 0;
    for (const unsigned char* p = begin; p != end; ++p) {
        if (zeros >= 2 && *p == 3) {
            zeros = 0;
            continue;
        }
        zeros = *p == 0 ? zeros + 1 : 0;
        *write++ = *p;
    }
    return static_cast<std::size_t>(write - out);
}

std::size_t countEmulations(const unsigned char* begin, const unsigned char* end) {
    std::size_t count = 0;
    int zeros = 0;
    for (const unsigned char* p = begin; p != end; ++p) {
        if (zeros == 2 && *p <= 3) {
            ++count;
            zeros = 0;
        }
        zeros = *p == 0 ? zeros + 1 : 0;
    }
    return count;
}

std::size_t insertPrevention(const unsigned char* begin, const unsigned char* end, unsigned char* out) {
    unsigned char* write = out;
    int zeros = 0;
    for (const unsigned char* p = begin; p != end; ++p) {
        if (zeros == 2 && *p <= 3) {
            *write++ = 3;
            zeros = 0;
        }
        zeros = *p == 0 ? zeros + 1 : 0;
        *write++ = *p;
    }
    return static_cast<std::size_t>(write - out);
}

constexpr ByteKernels Portable{"portable", findPrefix, removePrevention, countEmulations, insertPrevention};
constexpr const ByteKernels* Usable[] = {&Portable};

}  // namespace

std::span<const ByteKernels* const> usableByteKernels() {
    return Usable;
}

const ByteKernels& byteKernels() {
    static const ByteKernels& best = *usableByteKernels().back();
    return best;
}

}  // namespace Mivra::Codecs::H264
