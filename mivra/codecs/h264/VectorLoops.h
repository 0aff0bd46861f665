#pragma once

// The loops of ByteKernels over a register of any width. They look for a third byte: one that matters (01,
// 03, or at most 03) behind two zeros. Strides in which no pair of bytes at an even place could be part of
// such a pattern are passed over at the cost of one look; other places are looked at byte by byte, a register
// at once.
//
// Everything has internal linkage on purpose: each source that includes this is compiled for a processor of
// its own, and no other may link to what it made of these functions.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "mivra/codecs/h264/ByteKernels.h"

namespace Mivra::Codecs::H264 {
namespace {

using Byte = unsigned char;

/// Eight bytes in a general register; the first byte is the lowest one. What a vector has: its width in
/// bytes, and masks with a bit for every byte, MaskBits apart, the first byte's being FirstBit.
struct WordVector {
    static constexpr std::ptrdiff_t Width = 8;
    static constexpr int MaskBits = 8;
    static constexpr std::uint64_t FirstBit = 0x80;
    using Register = std::uint64_t;

    static Register Load(const Byte* p) {
        Register bytes = 0;
        std::memcpy(&bytes, p, sizeof(bytes));
        return std::endian::native == std::endian::big ? __builtin_bswap64(bytes) : bytes;
    }
    static void Store(Byte* p, Register bytes) {
        bytes = std::endian::native == std::endian::big ? __builtin_bswap64(bytes) : bytes;
        std::memcpy(p, &bytes, sizeof(bytes));
    }
    static Register Repeat(Byte first, Byte second) { return (first | second << 8) * 0x0001000100010001U; }
    static Register Or(Register a, Register b) { return a | b; }
    static Register And(Register a, Register b) { return a & b; }
    static Register Xor(Register a, Register b) { return a ^ b; }
    /// The mask of the bytes that are zero.
    static std::uint64_t ZeroBytes(Register bytes) {
        constexpr Register LowBits = 0x7F7F7F7F7F7F7F7F;
        return ~(((bytes & LowBits) + LowBits) | bytes | LowBits);
    }
    /// Whether any pair of bytes at an even place is zero.
    static bool AnyZeroPair(Register a, Register b, Register c, Register d) {
        const auto borrows = [](Register pairs) { return (pairs - 0x0001000100010001) & ~pairs; };
        return ((borrows(a) | borrows(b) | borrows(c) | borrows(d)) & 0x8000800080008000) != 0;
    }
};

/// Where results go: nowhere, into memory, or into a count.
struct NoOutput {
    template <typename Vector>
    void Put(typename Vector::Register, std::ptrdiff_t) {}
    void Put(Byte) {}
};

struct Writer {
    Byte* next;

    /// The first count bytes; the rest of the register may be written too.
    template <typename Vector>
    void Put(typename Vector::Register bytes, std::ptrdiff_t count) {
        Vector::Store(next, bytes);
        next += count;
    }
    void Put(Byte byte) { *next++ = byte; }
};

struct Counter {
    std::size_t size = 0;

    template <typename Vector>
    void Put(typename Vector::Register, std::ptrdiff_t count) {
        size += static_cast<std::size_t>(count);
    }
    void Put(Byte) { ++size; }
};

/// What is left of the input; at least two bytes are in front of next. The loops take off what they have
/// dealt with.
struct Input {
    const Byte* next;
    const Byte* end;
    /// Insertion begins to count zeros anew behind each byte that it inserts: no third byte is in front of
    /// this place.
    const Byte* earliest;

    std::ptrdiff_t Left() const { return end - next; }
    bool BehindZeros() const { return (next[-2] | next[-1]) == 0; }
};

/// The mask of the third bytes: two zeros in front, and (byte & Bits) == Value.
template <typename Vector, Byte Bits, Byte Value>
std::uint64_t thirdBytes(const Byte* p) {
    typename Vector::Register last = Vector::Load(p);
    if constexpr (Bits != 0xFF) {
        last = Vector::And(last, Vector::Repeat(Bits, Bits));
    }
    if constexpr (Value != 0) {
        last = Vector::Xor(last, Vector::Repeat(Value, Value));
    }
    return Vector::ZeroBytes(Vector::Or(Vector::Or(Vector::Load(p - 2), Vector::Load(p - 1)), last));
}

template <typename Vector>
std::ptrdiff_t firstPlace(std::uint64_t mask) {
    return __builtin_ctzll(mask) / Vector::MaskBits;
}

/// Passes over strides that hold no third byte. Begins where no zeros are in front, and ends so: a third byte
/// at an odd place makes a pair with the zero in front of it, one at an even place has a pair of zeros in
/// front. LastBits are the bits that no third byte has.
template <typename Vector, Byte LastBits, typename Output>
void passQuietStrides(Input& in, Output& out) {
    constexpr std::ptrdiff_t Width = Vector::Width;
    if (in.BehindZeros()) {
        return;
    }
    const auto bits = Vector::Repeat(0xFF, LastBits);
    // In registers: what is written could be anybody's memory for all that the compiler knows.
    const Byte* next = in.next;
    Output local = out;
    for (; in.end - next >= 4 * Width; next += 4 * Width) {
        const auto a = Vector::Load(next);
        const auto b = Vector::Load(next + Width);
        const auto c = Vector::Load(next + 2 * Width);
        const auto d = Vector::Load(next + 3 * Width);
        if (Vector::AnyZeroPair(Vector::And(a, bits), Vector::And(b, bits), Vector::And(c, bits),
                                Vector::And(d, bits))) {
            break;
        }
        local.template Put<Vector>(a, Width);
        local.template Put<Vector>(b, Width);
        local.template Put<Vector>(c, Width);
        local.template Put<Vector>(d, Width);
    }
    in.next = next;
    out = local;
}

/// Calls part() for each register of the input, in strides of four behind what passQuietStrides() passes, as
/// long as it returns true.
template <typename Vector, Byte LastBits, typename Output, typename Part>
void forEachRegister(Input& in, Output& out, Part part) {
    while (in.Left() >= Vector::Width) {
        passQuietStrides<Vector, LastBits>(in, out);
        for (int i = 0; i < 4 && in.Left() >= Vector::Width; ++i) {
            if (!part()) {
                return;
            }
            in.next += Vector::Width;
        }
    }
}

/// Leaves in.next at the third byte of a prefix, or at less than a register; what is in front of it goes out.
template <typename Vector, typename Output>
bool findThirdByte(Input& in, Output& out) {
    bool found = false;
    forEachRegister<Vector, 0xFE>(in, out, [&] {
        const std::uint64_t mask = thirdBytes<Vector, 0xFF, 1>(in.next);
        found = mask != 0;
        const std::ptrdiff_t count = found ? firstPlace<Vector>(mask) : Vector::Width;
        out.template Put<Vector>(Vector::Load(in.next), count);
        in.next += found ? count : 0;
        return !found;
    });
    return found;
}

/// A register with third bytes needs another one of input behind it, since a run of bytes is copied by the
/// register.
template <typename Vector>
void removeThirdBytes(Input& in, Writer& out) {
    forEachRegister<Vector, 0xFC>(in, out, [&] {
        std::uint64_t mask = thirdBytes<Vector, 0xFF, 3>(in.next);
        if (mask != 0 && in.Left() < 2 * Vector::Width) {
            return false;
        }
        const Byte* run = in.next;
        for (; mask != 0; mask &= mask - 1) {
            const Byte* third = in.next + firstPlace<Vector>(mask);
            out.Put<Vector>(Vector::Load(run), third - run);
            run = third + 1;
        }
        out.Put<Vector>(Vector::Load(run), in.next + Vector::Width - run);
        return true;
    });
}

template <typename Vector, typename Output>
void insertBeforeThirdBytes(Input& in, Output& out) {
    forEachRegister<Vector, 0xFC>(in, out, [&] {
        std::uint64_t mask = thirdBytes<Vector, 0xFC, 0>(in.next);
        if (in.next < in.earliest) {  // by one
            mask &= ~Vector::FirstBit;
        }
        if (mask != 0 && in.Left() < 2 * Vector::Width) {
            return false;
        }
        const Byte* run = in.next;
        while (mask != 0) {
            const Byte* third = in.next + firstPlace<Vector>(mask);
            out.template Put<Vector>(Vector::Load(run), third - run);
            out.Put(Byte{3});
            run = third;
            in.earliest = third + 2;
            const std::uint64_t bit = mask & -mask;
            mask &= ~(bit | bit << Vector::MaskBits);
        }
        out.template Put<Vector>(Vector::Load(run), in.next + Vector::Width - run);
        return true;
    });
}

/// The first two bytes are never a third one.
template <typename Output>
Input begin(const Byte* first, const Byte* end, Output& out) {
    for (int i = 0; i < 2 && first != end; ++i) {
        out.Put(*first++);
    }
    return {first, end, first};
}

/// The kernels made of vectors, each dealing with what the one before has left, the last bytes one by one.
template <typename... Vectors>
struct Loops {
    template <typename Output>
    static const Byte* Find(const Byte* first, const Byte* end, Output& out) {
        Input in = begin(first, end, out);
        if ((findThirdByte<Vectors>(in, out) || ...)) {
            return in.next - 2;
        }
        for (; in.next != end; ++in.next) {
            if (in.BehindZeros() && *in.next == 1) {
                return in.next - 2;
            }
            out.Put(*in.next);
        }
        return end;
    }

    static const Byte* FindPrefix(const Byte* first, const Byte* end) {
        NoOutput none;
        return Find(first, end, none);
    }

    static const Byte* CopyToPrefix(const Byte* first, const Byte* end, Byte* memory) {
        Writer out{memory};
        return Find(first, end, out);
    }

    static std::size_t RemovePrevention(const Byte* first, const Byte* end, Byte* memory) {
        Writer out{memory};
        Input in = begin(first, end, out);
        (removeThirdBytes<Vectors>(in, out), ...);
        for (; in.next != end; ++in.next) {
            if (!in.BehindZeros() || *in.next != 3) {
                out.Put(*in.next);
            }
        }
        return static_cast<std::size_t>(out.next - memory);
    }

    template <typename Output>
    static void Insert(const Byte* first, const Byte* end, Output& out) {
        Input in = begin(first, end, out);
        (insertBeforeThirdBytes<Vectors>(in, out), ...);
        for (; in.next != end; ++in.next) {
            if (in.next >= in.earliest && in.BehindZeros() && *in.next <= 3) {
                out.Put(Byte{3});
                in.earliest = in.next + 2;
            }
            out.Put(*in.next);
        }
    }

    static std::size_t PreventedSize(const Byte* first, const Byte* end) {
        Counter counter;
        Insert(first, end, counter);
        return counter.size;
    }

    static std::size_t InsertPrevention(const Byte* first, const Byte* end, Byte* memory) {
        Writer out{memory};
        Insert(first, end, out);
        return static_cast<std::size_t>(out.next - memory);
    }

    static constexpr ByteKernels Kernels(const char* name) {
        return {name, FindPrefix, CopyToPrefix, RemovePrevention, PreventedSize, InsertPrevention};
    }
};

}  // namespace
}  // namespace Mivra::Codecs::H264
