#pragma once

#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"
#include "mivra/common/runtime/IReferenceable.h"

namespace Mivra::Common {
class PacketBuffer;
}

namespace Mivra::Transport {

class NetClientContext;

/// Takes the events of a connection. Reference-counted: whoever keeps a pointer (parameters, contexts,
/// listeners) holds a reference, so one that is released while an engine still holds it lives on.
/// The engine's worker threads call it; OnClientDisconnecting and OnClientReleased run on the thread that
/// disconnects. A context is valid for the duration of the call. A handler may send to any client and
/// disconnect any, its own too; it must not shut the engine down. An exception out of a handler is logged.
class MIVRA_API NetNotitications : public Common::IReferenceable {
public:
    NetNotitications();
    ~NetNotitications() override;

protected:
    bool onFinalRelease() override;

public:
    /// A connection (accepted or connected, never a listener) has its worker.
    virtual void OnClientConnected(NetClientContext* context) = 0;
    /// Not called by the select engine.
    virtual void OnClientAccepted(NetClientContext* context) = 0;
    /// The connection is going down; its socket is still open.
    virtual void OnClientDisconnecting(NetClientContext* context) = 0;
    /// A datagram, or what a stream had: ActualSize bytes, at least 1. The context's lock is held; the engine
    /// releases the packet afterwards, who wants to keep it takes a reference.
    virtual void OnDataReceived(NetClientContext* context, Common::PacketBuffer* packet) = 0;
    /// A queued packet has been written whole and has left the queue, in the order of sending. The context's
    /// lock is held. The engine has given its reference back, unless it was the last one: then the packet
    /// lives until the call returns. Who looks into a packet that others release holds a reference.
    virtual void OnSendCompleted(NetClientContext* context, Common::PacketBuffer* packet) = 0;
    /// The socket has been closed and is invalid.
    virtual void OnClientReleased(NetClientContext* context) = 0;

protected:
    /// For the use of derived classes; the engines never take it.
    Common::CritSec lock;
};

}  // namespace Mivra::Transport
