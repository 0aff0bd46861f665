#pragma once

#include <cstdint>
#include <memory>

#include "mivra/common/runtime/Export.h"
#include "mivra/media/MediaEvents.h"
#include "mivra/media/MediaState.h"

namespace Mivra::Media {

class IMediaSink;
class IMediaSource;
class SessionCore;

/// Connects media sources to media sinks and runs them on a thread of its own: opens all of them, numbers the
/// streams of all sources, in the order of the sources' ids, into one range, declares that range to every
/// sink, and hands every sample to every started sink. The first fatal error, of a source, a sink, a time-out
/// or the session itself, ends the session: it is reported once to the error listeners, on the session's
/// thread, and the state stays Stopped until Stop is called. Any thread may call it; Stop and the destructor
/// also from inside any callback, the session's own thread included, where they do not wait for that thread.
/// Times are in 100 ns.
class MIVRA_API MediaSession {
public:
    /// Where samples are kept until Start, when a session begins with StartBuffering.
    enum class BufferingType : std::int32_t { None = 0, Memory = 1, Disk = 2 };

    MediaSession();
    /// Stops the session and gives every source and sink back.
    virtual ~MediaSession();
    MediaSession(const MediaSession&) = delete;
    MediaSession& operator=(const MediaSession&) = delete;

    /// Takes a reference until Stop of a running session or destruction. An object whose id is known already
    /// is left out with a line in the log. GeneralException while running, or for null.
    void AddSource(IMediaSource* source);
    void AddSink(IMediaSink* sink);

    /// Begins, live; on a session that is buffering, lets the output begin: with what is buffered, in the
    /// order of its arrival, then live. While no sink is open yet, that waits for the first. A sink that
    /// comes later begins with a key frame.
    void Start();
    /// Begins, and keeps the last seconds of media until Start: at most as many by the samples' time stamps,
    /// as many as begin with a key frame of each source that has video. What goes wrong with that (a full
    /// disk, no memory) costs what is buffered and is a non-fatal error. GeneralException when seconds is
    /// below 1 or type is None. Nothing when the session runs already.
    void StartBuffering(int seconds, BufferingType type);
    /// Ends the session and lets go of all sources and sinks, each released on a short thread of its own.
    /// Waits for the session's thread, and so for a PushMedia that has not returned.
    void Stop();

    /// Ids grow from 0. Fatal errors arrive on the session's thread, non-fatal ones on the thread that
    /// reports them.
    std::int64_t AddErrorListener(ErrorCallback callback);
    void RemoveErrorListener(std::int64_t id);

    /// True from Start or StartBuffering until Stop, after a failure too.
    bool IsRunning() const;
    /// None; Opening the sources; Opened: all have started; Started: buffering; Running: live; Stopping:
    /// after Stop; Stopped: failed.
    MediaState State() const;

    /// How long a source may take to start, a sink to be opened, and a source to be without samples. The
    /// minimum 64-bit value is unset: then the default for the kind of source or sink holds. The maximum is
    /// never.
    std::int64_t SourceOpenTimeout() const;
    std::int64_t SinkOpenTimeout() const;
    std::int64_t NoCaptureTimeout() const;
    void SetSourceOpenTimeout(std::int64_t value);
    void SetSinkOpenTimeout(std::int64_t value);
    void SetNoCaptureTimeout(std::int64_t value);

private:
    // Lives on in the handlers that are registered on sources and sinks, and in the session's thread.
    std::shared_ptr<SessionCore> core;
};

}  // namespace Mivra::Media
