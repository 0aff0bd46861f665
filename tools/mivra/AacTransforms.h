#pragma once

#include <memory>

#include "tools/mivra/MediaCopy.h"

namespace Mivra::Tool {

/// ADTS frames, no private data.
std::unique_ptr<PacketTransform> makeAdtsTransform();

/// Raw data blocks, an AudioSpecificConfig as private data.
std::unique_ptr<PacketTransform> makeAscTransform();

}  // namespace Mivra::Tool
