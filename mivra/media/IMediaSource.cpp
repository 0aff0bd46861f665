#include "mivra/media/IMediaSource.h"

#include <utility>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/media/Notification.h"

namespace Mivra::Media {

using Common::FileLog;
using Common::LogLine;

IMediaSource::IMediaSource() : uniqueId(Common::Guid::NewGuid()) {}

IMediaSource::~IMediaSource() {
    destroying = true;
}

Network::Uri IMediaSource::GetUri() {
    return uri;
}

void IMediaSource::SetUri(Network::Uri value) {
    uri = std::move(value);
}

std::int64_t IMediaSource::AddErrorListener(ErrorCallback callback) {
    return AddListener(lock, nextListenerId, errorListeners, std::move(callback));
}

std::int64_t IMediaSource::AddNewSampleListener(NewSampleCallback callback) {
    return AddListener(lock, nextListenerId, newSampleListeners, std::move(callback));
}

std::int64_t IMediaSource::AddNewStreamListener(NewStreamCallback callback) {
    return AddListener(lock, nextListenerId, newStreamListeners, std::move(callback));
}

std::int64_t IMediaSource::AddStateChangedListener(StateChangedCallback callback) {
    return AddListener(lock, nextListenerId, stateChangedListeners, std::move(callback));
}

void IMediaSource::RemoveErrorListener(std::int64_t id) {
    RemoveListener(lock, errorListeners, id);
}

void IMediaSource::RemoveNewSampleListener(std::int64_t id) {
    RemoveListener(lock, newSampleListeners, id);
}

void IMediaSource::RemoveNewStreamListener(std::int64_t id) {
    RemoveListener(lock, newStreamListeners, id);
}

void IMediaSource::RemoveMediaStateListener(std::int64_t id) {
    RemoveListener(lock, stateChangedListeners, id);
}

void IMediaSource::onNewStream(int streamIndex, int streamCount, Common::MediaType* type) {
    if (newStreamListeners.Empty()) {
        return;
    }
    NewStreamEventArgs args{streamIndex, streamCount, *type};
    onNewStream(&args);
}

void IMediaSource::onNewStream(NewStreamEventArgs* args) {
    newStreamListeners.Dispatch(this, args);
}

void IMediaSource::onNewSample(int streamIndex, Common::PacketBuffer* sample) {
    if (newSampleListeners.Empty()) {
        return;
    }
    const Common::Reference<Common::PacketBuffer> held(sample);
    NewSampleEventArgs args{streamIndex, sample};
    newSampleListeners.Dispatch(this, &args);
}

void IMediaSource::onStateChanged(MediaState newState) {
    stateChangedListeners.Dispatch(this, newState);
}

void IMediaSource::setStateInThread(MediaState newState) {
    if (destroying || state.exchange(newState) == newState) {
        return;
    }
    startNotification(*this, [this, newState] {
        LogLine(FileLog::Debug, "IMediaSource::setStateInThread: started");
        notifyAndRelease(*this, "IMediaSource::setStateInThread", [&] { onStateChanged(newState); });
        LogLine(FileLog::Debug, "IMediaSource::setStateInThread: finished");
    });
}

void IMediaSource::onError(std::string message, bool fatal) {
    ErrorEventArgs args{std::move(message), fatal};
    errorListeners.Dispatch(this, &args);
}

void IMediaSource::raiseErrorInThread(std::string message, bool fatal) {
    if (destroying) {
        return;
    }
    startNotification(*this, [this, message = std::move(message), fatal] {
        notifyAndRelease(*this, "IMediaSource::raiseErrorInThread", [&] { onError(message, fatal); });
    });
}

}  // namespace Mivra::Media
