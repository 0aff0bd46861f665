#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/transport/NetClientContext.h"
#include "mivra/transport/NetNotitications.h"
#include "mivra/transport/select/SelectTransport.h"
#include "tools/mivra/NetworkAddress.h"
#include "tools/mivra/NetworkBoard.h"

namespace Mivra::Tool {

/// What happens at one end of the network; called by its engine's thread. What may wait for a lock of the
/// engine, SendAsync first of all, is not to be called with a lock held that these calls take.
class INetworkHandler {
public:
    virtual ~INetworkHandler() = default;

    virtual void Connected(unsigned client) = 0;
    virtual void Received(unsigned, Common::PacketBuffer&) {}
    /// Its peer has broken the connection off; Gone follows.
    virtual void Reset(unsigned) {}
    /// The oldest packet that was queued for it, of so many bytes, has gone.
    virtual void Sent(unsigned, int) {}
    /// The table does not have it any more.
    virtual void Gone(unsigned client) = 0;
};

/// An address of the command line, opened: an engine with one thread that serves it, and the table of its
/// clients. The handler has to outlive it.
class NetworkEndpoint {
public:
    using Use = NetworkAddress::Use;

    /// receiveBytes, receiveBuffers: of the engine's pool, which grows to ten times as many; a stream is not
    /// read on while all of them are out.
    NetworkEndpoint(const NetworkAddress& address, Use use, INetworkHandler& handler, int receiveBytes,
                    int receiveBuffers, NetworkBoard* board);
    /// Ends all connections; afterwards the handler is not called any more.
    ~NetworkEndpoint();
    NetworkEndpoint(const NetworkEndpoint&) = delete;
    NetworkEndpoint& operator=(const NetworkEndpoint&) = delete;

    /// Listens, connects (for 3 s at most) or binds. ProblemError when that fails, or when it is over before
    /// the name is resolved and the peer has answered.
    void Open();
    /// Nothing is to be waited for any more: the relay ends, or without a board the program.
    bool IsOver() const;
    /// Ends it before its time.
    void Close() { engine->Shutdown(); }
    /// Nobody else may connect.
    void StopListen() { engine->StopListen(address.port); }
    bool Send(unsigned client, Common::PacketBuffer& packet);
    void Disconnect(unsigned client) { engine->DisconnectClientAsync(client, true); }

    const NetworkAddress& Address() const { return address; }
    ClientTable& Clients() { return *clients; }

private:
    class Events;

    [[noreturn]] void fail(const std::string& why, const std::string& remedy) const;
    template <typename Task>
    auto await(Task task) const;
    void connectTcp();
    void openUdp();
    void awaitConnected();
    void prepare(Transport::NetClientContext& context);
    void prepareUdp(Transport::NetClientContext& context);
    bool isJoinedByEngine() const;

    const NetworkAddress address;
    const Use use;
    INetworkHandler& handler;
    NetworkBoard* const board;
    const std::shared_ptr<ClientTable> clients;
    sockaddr_in resolved{};
    std::mutex gate;
    std::condition_variable gateChanged;
    bool settled = false;  // under gate
    std::string problem;   // under gate
    Common::Reference<Events> events;
    // A connect that is given up keeps it until it has its answer, for which nobody is there then.
    std::shared_ptr<Transport::SelectTransport> engine = std::make_shared<Transport::SelectTransport>();
};

}  // namespace Mivra::Tool
