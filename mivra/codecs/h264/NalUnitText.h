#pragma once

#include <span>
#include <string>

namespace Mivra::Codecs::H264 {

/// One line a unit, each with its line feed: offset of the header byte, type, size in bytes, nal_ref_idc, and
/// the kind of a slice, as in "5: SliceIdr, 2771 bytes, ref 3, I". A length prefix that is wrong ends the
/// list with a line that says so. Length size 1 to 4, or 0 for Annex B.
std::string describeUnits(std::span<const unsigned char> data, int lengthSize);

}  // namespace Mivra::Codecs::H264
