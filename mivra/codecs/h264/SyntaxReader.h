#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "mivra/codecs/h264/BitCursor.h"
#include "mivra/codecs/h264/ParameterSets.h"
#include "mivra/codecs/h264/SyntaxElement.h"

namespace Mivra::Codecs::H264 {

/// Takes syntax elements from a payload. An element out of its range is a failure, which lasts; elements
/// behind it are 0, so no loop runs on.
class SyntaxReader {
public:
    explicit SyntaxReader(std::span<const unsigned char> rbsp) : cursor(rbsp) {}

    template <typename T>
    void u(ElementName, T& value, unsigned bits) {
        value = static_cast<T>(cursor.Bits(bits));
    }
    void flag(ElementName, std::int32_t& value) { value = cursor.Flag() ? 1 : 0; }

    template <typename T>
    void ue(ElementName, T& value, std::int64_t max) {
        const std::uint64_t code = cursor.ExpGolomb();
        if (code > static_cast<std::uint64_t>(max)) [[unlikely]] {
            cursor.Fail();
            value = 0;
            return;
        }
        value = static_cast<T>(code);
    }

    void se(ElementName, std::int32_t& value, std::int64_t min = MinSe, std::int64_t max = MaxInt) {
        const std::int64_t number = SignedFromCodeNumber(cursor.ExpGolomb());
        if (number < min || number > max) [[unlikely]] {
            cursor.Fail();
            value = 0;
            return;
        }
        value = static_cast<std::int32_t>(number);
    }

    /// constraint_set4_flag, constraint_set5_flag and reserved_zero_2bits.
    void lastConstraints(std::int32_t& value) { value = static_cast<std::int32_t>(cursor.Bits(4)); }

    void moreRbspData(std::int32_t& value) { value = cursor.MoreRbspData() ? 1 : 0; }

    /// count elements of u(bits). What the payload cannot hold takes no memory.
    void sliceGroupIds(ElementName, SliceGroupIds& ids, std::int64_t count, unsigned bits) {
        if (static_cast<std::uint64_t>(count) * bits > cursor.Left()) {
            cursor.Fail();
            return;
        }
        ids.Reserve(static_cast<std::size_t>(count));
        for (std::int64_t i = 0; i < count; ++i) {
            ids.Append(static_cast<int>(cursor.Bits(bits)));
        }
    }

    /// What the standard infers for an element that is not there.
    void infer(std::int32_t& value, std::int32_t inferred) { value = inferred; }

    /// Everything was read, and rbsp_trailing_bits() follow.
    bool IsWhole() const { return cursor.AtTrailingBits(); }

private:
    BitCursor cursor;
};

}  // namespace Mivra::Codecs::H264
