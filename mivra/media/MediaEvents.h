#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "mivra/common/model/MediaType.h"
#include "mivra/media/MediaState.h"

namespace Mivra::Common {
class PacketBuffer;
}

// What sources, sinks and sessions tell their listeners. A record belongs to the one who dispatches it and
// lives for the duration of the call only. The sender is the IMediaSource*, IMediaSink* or MediaSession*.

namespace Mivra::Media {

struct ErrorEventArgs {
    std::string message;
    bool fatal = false;  // the producer cannot go on
};

struct NewStreamEventArgs {
    std::int32_t streamIndex = 0;
    std::int32_t streamCount = 0;  // how many streams the source has in all
    Common::MediaType mediaType;
};

struct NewSampleEventArgs {
    std::int32_t streamIndex = 0;
    /// The dispatcher holds a reference for the duration of the call: who keeps the sample takes its own.
    Common::PacketBuffer* sample = nullptr;
};

using ErrorCallback = std::function<void(void* sender, ErrorEventArgs* args)>;
using NewSampleCallback = std::function<void(void* sender, NewSampleEventArgs* args)>;
using NewStreamCallback = std::function<void(void* sender, NewStreamEventArgs* args)>;
using StateChangedCallback = std::function<void(void* sender, MediaState state)>;
using SourceChangedCallback = std::function<void(void* sender)>;

}  // namespace Mivra::Media
