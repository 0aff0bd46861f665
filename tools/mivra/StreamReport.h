#pragma once

// What `mivra probe` tells of an input, as the JSON that the manual page describes. The text for people is
// made from it (ReportText.h), so that both say the same.

#include <nlohmann/json.hpp>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"

namespace Mivra::Tool {

/// A stream of the input. Where an AAC stream has no private data and its first packet is given (null: there
/// is none) and has an ADTS header, the type is described by it.
nlohmann::ordered_json reportStream(int index, Common::MediaType& type, Common::PacketBuffer* first,
                                    bool sdp);

}  // namespace Mivra::Tool
