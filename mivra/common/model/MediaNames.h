#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "mivra/common/model/Codec.h"
#include "mivra/common/model/ContentType.h"
#include "mivra/common/model/SampleFormat.h"

namespace Mivra::Common {

// Names of the media enumerations in text forms. The parsers take the name in the case in which their table
// has it and answer nothing for another.

/// "Video", "Audio", "Text", "Binary", else "Unknown".
const char* ContentName(ContentType_t type);
std::optional<ContentType_t> ParseContentName(std::string_view lowerCase);

/// "Codec " and the number for a code without a name.
std::string CodecName(Codec_t codec);
std::optional<Codec_t> ParseCodecName(std::string_view lowerCase);

const char* SampleFormatName(SampleFormat_t format);
std::optional<SampleFormat_t> ParseSampleFormatName(std::string_view upperCase);

}  // namespace Mivra::Common
