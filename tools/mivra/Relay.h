#pragma once

#include <string>
#include <vector>

#include "tools/mivra/ExitCode.h"

namespace Mivra::Tool {

struct RelayOptions {
    std::vector<std::string> inputs;
    std::vector<std::string> outputs;
    bool realtime = false;
    double seconds = 0;  ///< of media; 0: all
    double seek = 0;     ///< seconds into each input
    int loops = 0;       ///< rounds more; below 0: without end
    double rate = 0;     ///< so many times as fast as it plays; 0: not set
    double statsSeconds = 1;
    bool clients = false;  ///< each client of the network has a line of figures, too
    bool json = false;
    std::string log;
    int logLevel = 3;
};

/// Copies the streams of all inputs into every output: sources, a session and sinks, until the inputs end, a
/// problem ends it or Ctrl-C asks for the end. Tells what goes wrong itself, in one line each.
ExitCode relay(const RelayOptions& options);

}  // namespace Mivra::Tool
