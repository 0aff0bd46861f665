#pragma once

#include <cstddef>
#include <optional>
#include <span>

namespace Mivra::Codecs::H264 {

/// A unit of a byte stream (ITU-T H.264 Annex B): its header byte and payload, start code and trailing zeros
/// excluded.
using NalUnit = std::span<const unsigned char>;

/// Where a start code stands, and whether a zero_byte is in front of it (length 4) or not (length 3).
struct StartCode {
    std::size_t offset = 0;
    std::size_t length = 0;
};

/// The first start code in the data.
std::optional<StartCode> findStartCode(std::span<const unsigned char> data);

/// Takes the units of a byte stream off, one by one, empty ones passed over; bytes in front of the first
/// start code belong to none.
class AnnexBUnits {
public:
    explicit AnnexBUnits(std::span<const unsigned char> stream);
    std::optional<NalUnit> Next();

private:
    std::span<const unsigned char> rest;
};

}  // namespace Mivra::Codecs::H264
