#pragma once

#include <cstddef>
#include <span>

namespace Mivra::Codecs::H264 {

/// Emulation prevention (ITU-T H.264 7.3.1 and 7.4.1.1) in caller's memory. Input and output do not overlap.

/// Copies without emulation_prevention_three_byte; out holds at least in.size() bytes. The bytes written.
std::size_t removeEmulationPrevention(std::span<const unsigned char> in, unsigned char* out);

/// The size that applyEmulationPrevention() needs; at most half as much again, and one.
std::size_t emulationPreventedSize(std::span<const unsigned char> in);

/// Copies with emulation_prevention_three_byte where the payload would look like a start code, and behind a
/// last zero byte. The bytes written.
std::size_t applyEmulationPrevention(std::span<const unsigned char> in, unsigned char* out);

}  // namespace Mivra::Codecs::H264
