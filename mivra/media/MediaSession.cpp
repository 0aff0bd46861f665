#include "mivra/media/MediaSession.h"

#include <utility>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/media/SessionCore.h"

namespace Mivra::Media {

using Common::FileLog;
using Common::LogLine;

// The session may be destroyed from a callback while a call of another thread is on its way out: calls that
// wait for the session's lock hold the core.

MediaSession::MediaSession() : core(std::make_shared<SessionCore>(this)) {}

MediaSession::~MediaSession() {
    LogLine(FileLog::Debug, "MediaSession::~MediaSession[%p]: de-allocating", static_cast<void*>(this));
    core->Stop();
    core->Dispose();
    LogLine(FileLog::Debug, "MediaSession::~MediaSession[%p]: de-allocated", static_cast<void*>(this));
}

void MediaSession::AddSource(IMediaSource* source) {
    const std::shared_ptr<SessionCore> kept = core;
    kept->AddSource(source);
}

void MediaSession::AddSink(IMediaSink* sink) {
    const std::shared_ptr<SessionCore> kept = core;
    kept->AddSink(sink);
}

void MediaSession::Start() {
    const std::shared_ptr<SessionCore> kept = core;
    kept->Start();
}

void MediaSession::StartBuffering(int seconds, BufferingType type) {
    const std::shared_ptr<SessionCore> kept = core;
    kept->StartBuffering(seconds, type);
}

void MediaSession::Stop() {
    const std::shared_ptr<SessionCore> kept = core;
    kept->Stop();
}

std::int64_t MediaSession::AddErrorListener(ErrorCallback callback) {
    return core->AddErrorListener(std::move(callback));
}

void MediaSession::RemoveErrorListener(std::int64_t id) {
    core->RemoveErrorListener(id);
}

bool MediaSession::IsRunning() const {
    return core->IsRunning();
}

MediaState MediaSession::State() const {
    return core->State();
}

std::int64_t MediaSession::SourceOpenTimeout() const {
    return core->sourceOpenTimeout;
}

std::int64_t MediaSession::SinkOpenTimeout() const {
    return core->sinkOpenTimeout;
}

std::int64_t MediaSession::NoCaptureTimeout() const {
    return core->noCaptureTimeout;
}

void MediaSession::SetSourceOpenTimeout(std::int64_t value) {
    core->sourceOpenTimeout = value;
}

void MediaSession::SetSinkOpenTimeout(std::int64_t value) {
    core->sinkOpenTimeout = value;
}

void MediaSession::SetNoCaptureTimeout(std::int64_t value) {
    core->noCaptureTimeout = value;
}

}  // namespace Mivra::Media
