#include "mivra/media/IInteractiveMediaSource.h"

#include <utility>

#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Media {

using Common::AutoLock;

IInteractiveMediaSource::IInteractiveMediaSource() = default;

IInteractiveMediaSource::~IInteractiveMediaSource() {
    destroying = true;
}

std::int64_t IInteractiveMediaSource::GetPosition() const {
    AutoLock guard(lock);
    return position;
}

void IInteractiveMediaSource::SetPosition(std::int64_t value) {
    auto request = std::make_shared<ActionRequiredEventArgs>();
    request->action = ActionRequiredEventArgs::Seek;
    request->position = value;
    OnActionRequired(std::move(request));
}

std::int64_t IInteractiveMediaSource::AddSourceChangedListener(SourceChangedCallback callback) {
    return AddListener(lock, nextListenerId, sourceChangedListeners, std::move(callback));
}

void IInteractiveMediaSource::RemoveSourceChangedListener(std::int64_t id) {
    RemoveListener(lock, sourceChangedListeners, id);
}

void IInteractiveMediaSource::SetAllowEos(bool value) {
    requireUnopened();
    allowEos = value;
}

std::string IInteractiveMediaSource::GetCachePath() const {
    AutoLock guard(lock);
    return cachePath;
}

void IInteractiveMediaSource::SetCachePath(const std::string& value) {
    AutoLock guard(lock);
    requireUnopened();
    cachePath = value;
}

void IInteractiveMediaSource::SetMonitor(bool value) {
    requireUnopened();
    monitor = value;
}

void IInteractiveMediaSource::SetLoop(bool value) {
    requireUnopened();
    loop = value;
}

void IInteractiveMediaSource::SetPlaybackRate(double value) {
    requireUnopened();
    playbackRate = value;
}

std::int64_t IInteractiveMediaSource::GetDuration() const {
    AutoLock guard(lock);
    return duration;
}

void IInteractiveMediaSource::onSourceChanged() {
    sourceChangedListeners.Dispatch(this);
}

void IInteractiveMediaSource::requireUnopened() const {
    if (State() != MediaState::None) {
        throw Common::GeneralException("Value can't be changed after the source opened");
    }
}

}  // namespace Mivra::Media
