#include <emmintrin.h>

#include "mivra/codecs/h264/VectorLoops.h"

namespace Mivra::Codecs::H264 {

namespace {

struct Sse2Vector {
    static constexpr std::ptrdiff_t Width = 16;
    static constexpr int MaskBits = 1;
    static constexpr std::uint64_t FirstBit = 1;
    using Register = __m128i;

    static Register Load(const Byte* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
    static void Store(Byte* p, Register bytes) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), bytes); }
    static Register Repeat(Byte first, Byte second) {
        return _mm_set1_epi16(static_cast<short>(first | second << 8));
    }
    static Register Or(Register a, Register b) { return _mm_or_si128(a, b); }
    static Register And(Register a, Register b) { return _mm_and_si128(a, b); }
    static Register Xor(Register a, Register b) { return _mm_xor_si128(a, b); }
    static std::uint64_t ZeroBytes(Register bytes) {
        return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_setzero_si128())));
    }
    static bool AnyZeroPair(Register a, Register b, Register c, Register d) {
        const auto zero = [](Register pairs) { return _mm_cmpeq_epi16(pairs, _mm_setzero_si128()); };
        return _mm_movemask_epi8(Or(Or(zero(a), zero(b)), Or(zero(c), zero(d)))) != 0;
    }
};

}  // namespace

extern const ByteKernels Sse2Kernels;
constinit const ByteKernels Sse2Kernels = Loops<Sse2Vector, WordVector>::Kernels("SSE2");

}  // namespace Mivra::Codecs::H264
