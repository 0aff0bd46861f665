#include "mivra/media/IMediaSink.h"

#include <utility>

#include "mivra/media/Notification.h"

namespace Mivra::Media {

IMediaSink::IMediaSink() : uniqueId(Common::Guid::NewGuid()) {}

IMediaSink::~IMediaSink() {
    destroying = true;
}

Network::Uri IMediaSink::GetUri() {
    return uri;
}

void IMediaSink::SetUri(Network::Uri value) {
    uri = std::move(value);
}

IMediaSink::NextUriCallback IMediaSink::GetNextUri() {
    return nextUri;
}

void IMediaSink::SetNextUri(NextUriCallback callback) {
    nextUri = std::move(callback);
}

int IMediaSink::GetRotationPeriod() {
    return rotationPeriod;
}

void IMediaSink::SetRotationPeriod(int value) {
    rotationPeriod = value;
}

std::int64_t IMediaSink::AddErrorListener(ErrorCallback callback) {
    return AddListener(lock, nextListenerId, errorListeners, std::move(callback));
}

std::int64_t IMediaSink::AddStateChangedListener(StateChangedCallback callback) {
    return AddListener(lock, nextListenerId, stateChangedListeners, std::move(callback));
}

void IMediaSink::RemoveErrorListener(std::int64_t id) {
    RemoveListener(lock, errorListeners, id);
}

void IMediaSink::RemoveMediaStateListener(std::int64_t id) {
    RemoveListener(lock, stateChangedListeners, id);
}

void IMediaSink::onStateChanged(MediaState newState) {
    stateChangedListeners.Dispatch(this, newState);
}

void IMediaSink::setStateInThread(MediaState newState) {
    if (destroying || state.exchange(newState) == newState) {
        return;
    }
    startNotification(*this, [this, newState] {
        notifyAndRelease(*this, "IMediaSink::setStateInThread", [&] { onStateChanged(newState); });
    });
}

void IMediaSink::onError(std::string message, bool fatal) {
    ErrorEventArgs args{std::move(message), fatal};
    errorListeners.Dispatch(this, &args);
}

void IMediaSink::raiseErrorInThread(std::string message, bool fatal) {
    if (destroying) {
        return;
    }
    startNotification(*this, [this, message = std::move(message), fatal] {
        notifyAndRelease(*this, "IMediaSink::raiseErrorInThread", [&] { onError(message, fatal); });
    });
}

}  // namespace Mivra::Media
