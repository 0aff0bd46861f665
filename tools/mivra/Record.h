#pragma once

#include <string>
#include <vector>

#include "mivra/media/MediaSession.h"
#include "tools/mivra/ExitCode.h"

namespace Mivra::Tool {

struct RecordOptions {
    std::vector<std::string> inputs;
    std::string output;  ///< pattern, RecordNames
    int preroll = 10;    ///< seconds
    Media::MediaSession::BufferingType cache = Media::MediaSession::BufferingType::Memory;
    std::string trigger = "key";  ///< makeRecordTrigger
    double seconds = 0;           ///< of media from the trigger on; 0: until the inputs end
    double rotation = 0;          ///< seconds of media in a file; 0: all in one
    double noSamples = 0;         ///< seconds without a packet that end it; 0: as the session has it
    double statsSeconds = 1;
    bool clients = false;  ///< each client of the network has a line of figures, too
    bool json = false;
    std::string log;
    int logLevel = 3;
};

/// Keeps the last seconds of the inputs until a trigger, and records them and what follows: sources, a
/// session that buffers, and a sink, until the inputs end, the time is over, a problem ends it or Ctrl-C asks
/// for the end. Inputs that are files come no faster than they play. Tells what goes wrong itself, in one
/// line each.
ExitCode record(const RecordOptions& options);

}  // namespace Mivra::Tool
