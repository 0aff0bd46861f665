#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "mivra/common/identity/Guid.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"
#include "mivra/common/runtime/IReferenceable.h"
#include "mivra/media/ListenerMap.h"
#include "mivra/media/MediaEvents.h"
#include "mivra/media/MediaState.h"
#include "mivra/network/Uri.h"

namespace Mivra::Media {

/// Base of everything that produces media. A concrete source announces every stream once with onNewStream, in
/// index order, goes to Started, and then delivers samples with onNewSample. Reference counted: whoever makes
/// one takes a reference (AddRef) before it can notify anyone. Any thread may add and remove listeners.
/// Samples and new streams reach listeners on the producer's thread, state changes and asynchronous errors on
/// a short thread of their own, which holds a reference to the source.
class MIVRA_API IMediaSource : public Common::IReferenceable {
public:
    IMediaSource();
    ~IMediaSource() override;

    virtual Network::Uri GetUri();
    virtual void SetUri(Network::Uri value);
    virtual void Open() = 0;
    virtual void Start() = 0;
    virtual void Stop() = 0;
    virtual int GetStreamCount() = 0;
    virtual Common::MediaType GetMediaType(int streamIndex) = 0;
    /// True for a stream index: the source drops that stream's samples.
    virtual void Discard(std::map<int, bool> streams) = 0;
    /// Asks the source to deliver a stream in the given type, for instance decoded.
    virtual void SetDesiredOutputType(int streamIndex, Common::MediaType type) = 0;

    /// Each returns the listener's id, which grows from 1 over all events of the source. A listener lives,
    /// with all it captures, until it is removed and no dispatch that began before is in flight any more.
    std::int64_t AddErrorListener(ErrorCallback callback);
    std::int64_t AddNewSampleListener(NewSampleCallback callback);
    std::int64_t AddNewStreamListener(NewStreamCallback callback);
    std::int64_t AddStateChangedListener(StateChangedCallback callback);

    /// A removal holds from the next dispatch on and never waits; an unknown id is ignored.
    void RemoveErrorListener(std::int64_t id);
    void RemoveNewSampleListener(std::int64_t id);
    void RemoveNewStreamListener(std::int64_t id);
    void RemoveMediaStateListener(std::int64_t id);

    MediaState State() const { return state.load(); }
    Common::Guid UniqueId() const { return uniqueId; }
    /// Before the source is added to a session, which knows it by this id.
    void SetUniqueId(const Common::Guid& value) { uniqueId = value; }
    bool IsNetworkSource() const { return isNetworkSource; }

protected:
    /// Announces a stream on the calling thread. The type is copied.
    void onNewStream(int streamIndex, int streamCount, Common::MediaType* type);
    void onNewStream(NewStreamEventArgs* args);
    /// Delivers one sample, which may be null, on the calling thread; takes a reference for the duration of
    /// the call and leaves the caller its own. Neither locks nor allocates.
    void onNewSample(int streamIndex, Common::PacketBuffer* sample);
    /// Tells the listeners of a state on the calling thread; does not store it.
    void onStateChanged(MediaState newState);
    /// Stores the state and tells the listeners from a thread of its own. Nothing happens when it is the
    /// present state, or once destruction has begun. std::system_error (resource_unavailable_try_again) when
    /// there is no thread to be had; the state is stored then, and no listener told.
    void setStateInThread(MediaState newState);
    /// Tells the listeners of an error on the calling thread.
    void onError(std::string message, bool fatal);
    /// The same from a thread of its own, as setStateInThread.
    void raiseErrorInThread(std::string message, bool fatal);

    /// Guards the listener maps and nextListenerId. No listener is called under it.
    mutable Common::CritSec lock;
    std::atomic<MediaState> state{MediaState::None};
    Common::Guid uniqueId;
    Network::Uri uri;
    bool isNetworkSource = false;  // set in the constructors of network sources
    /// Set first in every destructor of the hierarchy: from then on no notification thread starts.
    std::atomic<bool> destroying{false};
    std::int64_t nextListenerId = 1;  // guarded by lock

private:
    ListenerMap<ErrorCallback> errorListeners;
    ListenerMap<StateChangedCallback> stateChangedListeners;
    ListenerMap<NewStreamCallback> newStreamListeners;
    ListenerMap<NewSampleCallback> newSampleListeners;
};

}  // namespace Mivra::Media
