#pragma once

// Emulation prevention (ITU-T H.264 7.3.1 and 7.4.1) in caller's memory. Input and output do not overlap.

#include <cstddef>
#include <span>

namespace Mivra::Codecs::H264 {

/// Copies without emulation_prevention_three_byte; out holds at least in.size() bytes, of which any may be
/// written. The bytes of the result.
std::size_t removeEmulationPrevention(std::span<const unsigned char> in, unsigned char* out);

/// The size that applyEmulationPrevention() needs; at most half as much again, and one.
std::size_t emulationPreventedSize(std::span<const unsigned char> in);

/// Copies with emulation_prevention_three_byte where the payload would look like a start code, and a 03
/// behind a last zero byte; of the latter, removal takes only one behind two zeros away, as cabac_zero_words
/// have it. The bytes written.
std::size_t applyEmulationPrevention(std::span<const unsigned char> in, unsigned char* out);

}  // namespace Mivra::Codecs::H264
