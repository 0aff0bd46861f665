#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "mivra/media/IMediaSource.h"

namespace Mivra::Media {

/// What a user asks of an interactive source.
struct ActionRequiredEventArgs {
    /// The action of a seek; the other numbers are the concrete source's.
    static constexpr std::int32_t Seek = 3;

    std::int32_t action = 0;
    std::int64_t position = std::numeric_limits<std::int64_t>::min();  // 100 ns; the minimum: none
    double value = 0.0;
};

/// A source that a user can steer: seek, pause, loop, play at another rate. Its settings may change only
/// before it is opened: each setter throws GeneralException ("Value can't be changed after the source
/// opened") in any state but None. Positions and durations are in 100 ns.
class MIVRA_API IInteractiveMediaSource : public IMediaSource {
public:
    IInteractiveMediaSource();
    ~IInteractiveMediaSource() override;

    virtual std::int64_t GetPosition() const;
    /// Asks the concrete source to seek, in any state; the position changes when it has done so.
    virtual void SetPosition(std::int64_t value);
    virtual void Pause() = 0;
    virtual void Resume() = 0;
    virtual void OnActionRequired(std::shared_ptr<ActionRequiredEventArgs> args) = 0;

    /// Listeners of a change of the underlying media; ids are those of the source's other events.
    std::int64_t AddSourceChangedListener(SourceChangedCallback callback);
    void RemoveSourceChangedListener(std::int64_t id);

    bool GetAllowEos() const { return allowEos; }
    void SetAllowEos(bool value);
    std::string GetCachePath() const;
    void SetCachePath(const std::string& value);
    bool IsMonitor() const { return monitor; }
    void SetMonitor(bool value);
    bool IsLoop() const { return loop; }
    void SetLoop(bool value);
    /// The largest double until a rate is set.
    double GetPlaybackRate() const { return playbackRate; }
    void SetPlaybackRate(double value);

    bool CanSeek() const { return canSeek; }
    bool CanPause() const { return canPause; }
    std::int64_t GetDuration() const;
    bool IsEos() const { return eos; }
    bool IsChangeable() const { return changeable; }

protected:
    void onSourceChanged();

    std::atomic<bool> allowEos{true};
    std::string cachePath MIVRA_GUARDED_BY(lock);
    std::atomic<bool> canSeek{false};
    std::atomic<bool> canPause{false};
    std::int64_t duration MIVRA_GUARDED_BY(lock) = 0;
    std::atomic<bool> eos{false};
    std::atomic<bool> changeable{false};
    std::atomic<bool> monitor{false};
    std::atomic<bool> loop{false};
    std::atomic<double> playbackRate{std::numeric_limits<double>::max()};
    std::int64_t position MIVRA_GUARDED_BY(lock) = 0;

private:
    void requireUnopened() const;

    ListenerMap<SourceChangedCallback> sourceChangedListeners;
};

}  // namespace Mivra::Media
