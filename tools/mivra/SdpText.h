#pragma once

#include <string>
#include <vector>

#include "mivra/common/model/MediaType.h"

namespace Mivra::Tool {

/// The media section that describes the stream for RTP (RFC 8866, RFC 6184 8.2, RFC 3640 4.1), payload type
/// 96 and the index; empty where there is none for the codec, or its configuration is not known.
std::vector<std::string> sdpLines(const Common::MediaType& type, int index);

}  // namespace Mivra::Tool
