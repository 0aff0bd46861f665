// Compiled for AVX2: nothing in here may run, and no inline function of others be made here, unless the
// processor has it.

#include <immintrin.h>

#include "mivra/codecs/h264/VectorLoops.h"

namespace Mivra::Codecs::H264 {

namespace {

struct Avx2Vector {
    static constexpr std::ptrdiff_t Width = 32;
    static constexpr int MaskBits = 1;
    static constexpr std::uint64_t FirstBit = 1;
    using Register = __m256i;

    static Register Load(const Byte* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
    static void Store(Byte* p, Register bytes) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), bytes); }
    static Register Repeat(Byte first, Byte second) {
        return _mm256_set1_epi16(static_cast<short>(first | second << 8));
    }
    static Register Or(Register a, Register b) { return _mm256_or_si256(a, b); }
    static Register And(Register a, Register b) { return _mm256_and_si256(a, b); }
    static Register Xor(Register a, Register b) { return _mm256_xor_si256(a, b); }
    static std::uint64_t ZeroBytes(Register bytes) {
        return static_cast<unsigned>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(bytes, _mm256_setzero_si256())));
    }
    static bool AnyZeroPair(Register a, Register b, Register c, Register d) {
        const Register least = _mm256_min_epu16(_mm256_min_epu16(a, b), _mm256_min_epu16(c, d));
        return _mm256_movemask_epi8(_mm256_cmpeq_epi16(least, _mm256_setzero_si256())) != 0;
    }
};

}  // namespace

extern const ByteKernels Avx2Kernels;
constinit const ByteKernels Avx2Kernels = Loops<Avx2Vector, WordVector>::Kernels("AVX2");

}  // namespace Mivra::Codecs::H264
