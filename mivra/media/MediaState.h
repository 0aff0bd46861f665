#pragma once

#include <cstdint>

namespace Mivra::Media {

/// Where a source, a sink or a session stands. The numbers are part of the interface. None, Opened and the
/// last four belong to sources and sinks; a session uses None to Stopped, with the meanings given there
/// (MediaSession::State).
enum class MediaState : std::int32_t {
    None = 0,
    Opening = 1,
    Opened = 2,   // a sink is ready to be started; a source is open and waits for Start
    Started = 3,  // a source has announced all its streams and delivers samples
    Running = 4,
    Stopping = 5,
    Stopped = 6,
    Error = 7,  // a source cannot go on
};

}  // namespace Mivra::Media
