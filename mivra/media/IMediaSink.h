#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
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

/// Base of everything that takes media from a session. The session opens it; once it has gone to Opened, it
/// is told its streams one by one (AddStream), started, and given samples (PushMedia). Reference counted:
/// whoever makes one takes a reference (AddRef) before it can notify anyone. Open and PushMedia are called on
/// the session's thread, AddStream and Start there or on the sink's own notification thread, never two of
/// them at once. Any thread may add and remove listeners, but not from inside one of the same sink's
/// callbacks.
class MIVRA_API IMediaSink : public Common::IReferenceable {
public:
    /// Yields the next output location of a sink that rotates.
    using NextUriCallback = std::function<std::string()>;

    IMediaSink();
    ~IMediaSink() override;

    virtual Network::Uri GetUri();
    virtual void SetUri(Network::Uri value);
    virtual NextUriCallback GetNextUri();
    virtual void SetNextUri(NextUriCallback callback);
    /// 0: no rotation. The unit is the concrete sink's.
    virtual int GetRotationPeriod();
    virtual void SetRotationPeriod(int value);
    virtual void Open() = 0;
    /// buffering: true while the session only caches (StartBuffering without Start).
    virtual void Start(bool buffering) = 0;
    /// Not called by a session.
    virtual void Stop() = 0;
    /// Declares one output stream before Start. The type is valid for the duration of the call.
    virtual void AddStream(int streamIndex, Common::MediaType* type) = 0;
    /// Delivers one sample. The caller holds a reference for the duration of the call.
    virtual void PushMedia(int streamIndex, Common::PacketBuffer* sample) = 0;

    /// Each returns the listener's id, which grows from 1 over both events of the sink.
    std::int64_t AddErrorListener(ErrorCallback callback);
    std::int64_t AddStateChangedListener(StateChangedCallback callback);

    /// A removal holds from the next dispatch on and never waits; an unknown id is ignored.
    void RemoveErrorListener(std::int64_t id);
    void RemoveMediaStateListener(std::int64_t id);

    MediaState State() const { return state.load(); }
    Common::Guid UniqueId() const { return uniqueId; }
    /// Before the sink is added to a session, which knows it by this id.
    void SetUniqueId(const Common::Guid& value) { uniqueId = value; }
    bool IsNetworkSink() const { return isNetworkSink; }

protected:
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
    Common::Guid uniqueId;
    Network::Uri uri;
    std::atomic<MediaState> state{MediaState::None};
    bool isNetworkSink = false;  // set in the constructors of network sinks
    int rotationPeriod = 0;
    /// Set first in every destructor of the hierarchy: from then on no notification thread starts.
    std::atomic<bool> destroying{false};
    std::int64_t nextListenerId = 1;  // guarded by lock
    NextUriCallback nextUri;

private:
    ListenerMap<ErrorCallback> errorListeners;
    ListenerMap<StateChangedCallback> stateChangedListeners;
};

}  // namespace Mivra::Media
