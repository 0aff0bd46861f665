#pragma once

#include <cstddef>
#include <cstdint>

#include "mivra/codecs/h264/ParameterSets.h"
#include "mivra/codecs/h264/SyntaxElement.h"
#include "mivra/common/binary/EndianBinaryWriter.h"

namespace Mivra::Codecs::H264 {

/// Writes syntax elements as bits, most significant first. What does not fit is the writer's
/// GeneralException.
class SyntaxWriter {
public:
    explicit SyntaxWriter(Common::EndianBinaryWriter& destination) : writer(destination) {}

    void u(ElementName, std::int64_t value, int bits) { writer.WriteBits(value, bits); }
    void flag(ElementName, std::int64_t value) { writer.WriteBits(value, 1); }
    void ue(ElementName, std::int64_t value, std::int64_t) {
        writer.WriteUnsignedExpGolomb(static_cast<unsigned>(value));
    }
    void se(ElementName, std::int32_t value, std::int64_t = MinSe, std::int64_t = MaxInt) {
        if (value == 0) {
            writer.WriteUnsignedExpGolomb(0);
        } else {
            writer.WriteSignedExpGolomb(value);
        }
    }

    void lastConstraints(std::int32_t value) { writer.WriteBits(value, 4); }
    void moreRbspData(std::int32_t) {}
    void sliceGroupIds(ElementName, const SliceGroupIds& ids, std::int64_t, int bits) {
        for (std::size_t i = 0; i < ids.Size(); ++i) {
            writer.WriteBits(ids[i], bits);
        }
    }
    void infer(std::int32_t, std::int32_t) {}

    /// rbsp_trailing_bits() (7.3.2.11).
    void trailingBits() {
        writer.WriteBits(1, 1);
        if (writer.BitPosition() != 0) {
            writer.WriteBits(0, 8 - writer.BitPosition());
        }
    }

private:
    Common::EndianBinaryWriter& writer;
};

}  // namespace Mivra::Codecs::H264
