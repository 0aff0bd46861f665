#pragma once

// What the commands need to know of AAC beyond the library's parser: which of the two forms a stream has, and
// where the payload of an ADTS frame begins.

#include <optional>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"

namespace Mivra::Tool {

/// The part of a configuration that a decoder without SBR and PS needs (ISO/IEC 14496-3 1.6.2.1).
struct AacCore {
    unsigned objectType = 0;     ///< 1 Main, 2 LC, ...; behind the signalling of SBR or PS, which it is not
    unsigned rateIndex = 0;      ///< 0 to 12
    unsigned configuration = 0;  ///< of the channels; 0: told in the stream
};

/// The core of an AudioSpecificConfig; empty when it is cut off or uses escape values.
std::optional<AacCore> readAacCore(const Common::MediaType& type);

/// Whether a packet is one or more whole ADTS frames, going by the first one's header.
bool isAdts(Common::PacketBuffer& packet);

/// Bytes of the ADTS header at the beginning of the packet, a check word included: 7 or 9.
int adtsHeaderSize(Common::PacketBuffer& packet);

/// Raw data blocks in the frame: 1 to 4.
int adtsBlocks(Common::PacketBuffer& packet);

/// Describes the stream by the header of its packet: rate, channels, configuration as private data, and the
/// metadata "IsAdts".
void describeByAdts(Common::PacketBuffer& packet, Common::MediaType& type);

/// Puts the channel configuration into ChannelLayout, where the library's parser looks for it.
void setChannelConfiguration(Common::MediaType& type);

}  // namespace Mivra::Tool
