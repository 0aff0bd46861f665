#include "mivra/codecs/h264/ByteKernels.h"

#include "mivra/codecs/h264/VectorLoops.h"

namespace Mivra::Codecs::H264 {

namespace {

constexpr ByteKernels PortableKernels = Loops<WordVector>::Kernels("portable");

}  // namespace

#if defined(__x86_64__)

extern const ByteKernels Sse2Kernels;
extern const ByteKernels Avx2Kernels;

std::span<const ByteKernels* const> usableByteKernels() {
    static constexpr const ByteKernels* All[] = {&PortableKernels, &Sse2Kernels, &Avx2Kernels};
    const std::span<const ByteKernels* const> all(All);
    return __builtin_cpu_supports("avx2") != 0 ? all : all.first(2);
}

#else

std::span<const ByteKernels* const> usableByteKernels() {
    static constexpr const ByteKernels* All[] = {&PortableKernels};
    return All;
}

#endif

const ByteKernels& byteKernels() {
    static const ByteKernels& best = *usableByteKernels().back();
    return best;
}

}  // namespace Mivra::Codecs::H264
