#pragma once

// The configuration record of H.265 (ISO/IEC 14496-15 8.3.3.1), made from parameter sets in Annex B and taken
// apart again. No state; any thread. std::bad_alloc when there is no memory.

#include <cstdint>
#include <span>
#include <vector>

namespace Mivra::FFmpeg {

/// A record for units behind lengths of four bytes, with the video, sequence and picture parameter sets of
/// the data; other units are left out. Empty when one of the kinds is missing or the first sequence parameter
/// set is malformed.
std::vector<std::uint8_t> makeHevcRecord(std::span<const std::uint8_t> annexB);

/// All units of a record, behind start codes of four bytes. Empty when it is malformed or holds none.
std::vector<std::uint8_t> hevcRecordToAnnexB(std::span<const std::uint8_t> record);

}  // namespace Mivra::FFmpeg
