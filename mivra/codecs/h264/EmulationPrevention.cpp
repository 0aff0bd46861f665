#include "mivra/codecs/h264/EmulationPrevention.h"

#include "mivra/codecs/h264/ByteKernels.h"

namespace Mivra::Codecs::H264 {

namespace {

constexpr unsigned char PreventionByte = 3;  // emulation_prevention_three_byte

bool endsInZero(std::span<const unsigned char> in) {
    return !in.empty() && in.back() == 0;
}

}  // namespace

std::size_t removeEmulationPrevention(std::span<const unsigned char> in, unsigned char* out) {
    return byteKernels().removePrevention(in.data(), in.data() + in.size(), out);
}

std::size_t emulationPreventedSize(std::span<const unsigned char> in) {
    return byteKernels().preventedSize(in.data(), in.data() + in.size()) + (endsInZero(in) ? 1 : 0);
}

std::size_t applyEmulationPrevention(std::span<const unsigned char> in, unsigned char* out) {
    std::size_t size = byteKernels().insertPrevention(in.data(), in.data() + in.size(), out);
    if (endsInZero(in)) {
        out[size++] = PreventionByte;
    }
    return size;
}

}  // namespace Mivra::Codecs::H264
