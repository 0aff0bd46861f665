#pragma once

// Codec private data in its two forms: a configuration record, whose first byte is 1, and Annex B. What makes
// new private data has it complete before it frees the old: the input may be the type's own, and after a
// failure the type is as before. Failures are logged; no memory is std::bad_alloc.

#include <cstddef>
#include <optional>
#include <span>

#include "mivra/codecs/h264/AvcConfigurationRecord.h"

namespace Mivra::Common {
class MediaType;
}

namespace Mivra::Codecs::H264 {

/// The sets of private data in either form; nothing when it is a malformed record.
std::optional<ParameterSetUnits> parameterSetsOf(std::span<const unsigned char> privateData);

/// Replaces the private data by a record, or the Annex B form, of the sets. False when the form does not hold
/// them; caller is the function that the log names.
bool makeAvcPrivateData(Common::MediaType& type, ParameterSetUnits sets, const char* caller);
bool makeAnnexBPrivateData(Common::MediaType& type, const ParameterSetUnits& sets, const char* caller);

/// A record becomes Annex B, anything else is left as it is.
bool convertPrivateDataToAnnexB(Common::MediaType& type);
/// Annex B becomes a record, a record is left as it is.
bool convertPrivateDataToAvc(Common::MediaType& type);

}  // namespace Mivra::Codecs::H264
