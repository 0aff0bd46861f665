#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"
#include "mivra/transport/NetTransport.h"
#include "mivra/transport/select/SelectClientContext.h"

namespace Mivra::Common {
class DefaultPacketBufferAllocator;
class WakeEvent;
}  // namespace Mivra::Common

namespace Mivra::Transport {

class SelectWorker;

/// The portable engine: TCP clients, TCP listeners, UDP unicast and multicast, 100 of them at most, polled by
/// worker threads (one unless told otherwise), each of which serves its own. See NetTransport.
class MIVRA_API SelectTransport : public NetTransport {
public:
    SelectTransport();
    /// Shuts down.
    ~SelectTransport() override;

    void SetAllocator(int bufferSize, int bufferCount) override;
    void SetWorkerCount(int count) override;
    bool Start() override;
    void Shutdown() override;
    bool Connect(NetConnectionParameters& parameters) override;
    bool Connect(const char* address, int port, NetNotitications* notifications) override;
    bool Listen(const char* address, int port, NetNotitications* notifications,
                NetConnectionParameters* parameters) override;
    bool StopListen(int port) override;
    bool SendAsync(unsigned int clientId, Common::PacketBuffer* packet) override;
    void Update(unsigned int clientId, NetConnectionParameters& parameters) override;
    void DisconnectClient(unsigned int clientId, bool notify) override;
    void DisconnectClientAsync(unsigned int clientId, bool notify) override;
    void DisconnectAll() override;
    bool SetRemoteFilter(unsigned int clientId, sockaddr_in& address) override;
    /// Always null.
    std::shared_ptr<NetTransportStat> GetStatistics(unsigned int clientId) override;

    /// The first IPv4 address of a host in dotted form; empty when there is none.
    static std::string Resolve(std::string name);

protected:
    using ContextPointer = std::shared_ptr<SelectClientContext>;

    /// Makes a client of a socket, which is closed on failure. The membership is that of the group which the
    /// socket has joined, or null.
    bool createContext(int socket, const NetConnectionParameters& parameters, const ip_mreq* membership);
    /// Ends a client. Waits until no other thread serves it, unless told not to or in a handler: then its
    /// worker does it.
    void disconnectClient(const ContextPointer& context, bool wait, bool notify);

private:
    friend class SelectWorker;

    enum class Turn { Taken, Busy, Gone };

    bool isOwnWorker() const;
    bool makeAllocator();
    bool startWorkers() MIVRA_EXCLUDES(engineLock);
    void stopWorkers() MIVRA_EXCLUDES(engineLock);
    void awaitRelease() MIVRA_EXCLUDES(engineLock);
    void dropContexts() MIVRA_EXCLUDES(engineLock);

    ContextPointer find(unsigned int clientId) MIVRA_EXCLUDES(engineLock);
    /// The one with the lowest id above the given one, or null. Walks over all without taking memory.
    ContextPointer next(unsigned int clientId) MIVRA_EXCLUDES(engineLock);

    bool connectTcp(const NetConnectionParameters& parameters);
    bool connectUdp(const NetConnectionParameters& parameters);
    static int openListener(const char* address, int port);
    static ContextPointer makeListener(const char* address, int port, NetNotitications* notifications,
                                       const NetConnectionParameters* parameters);
    static void setBufferSizes(int socket, const NetConnectionParameters& parameters, const char* operation);
    /// Takes the next id.
    void enter(const ContextPointer& context) MIVRA_REQUIRES(engineLock);
    /// Gives it to the worker with the fewest; false when there is none.
    bool assign(const ContextPointer& context) MIVRA_REQUIRES(engineLock);

    static Turn takeTurn(SelectClientContext& context, bool wait);
    void tearDown(const ContextPointer& context, bool notify);
    void forget(const ContextPointer& context) MIVRA_EXCLUDES(engineLock);

    Common::CritSec engineLock;
    std::atomic<bool> started{false};
    std::atomic<bool> ending{false};  // no new clients
    std::int32_t maxConnections = 100;
    std::uint32_t nextClientId MIVRA_GUARDED_BY(engineLock) = 1;
    std::atomic<std::int32_t> bufferSize{0};
    std::atomic<std::int32_t> bufferCount{0};
    std::unique_ptr<Common::DefaultPacketBufferAllocator> allocator;
    std::atomic<std::int32_t> workerCount{1};
    std::map<std::uint32_t, ContextPointer> clients MIVRA_GUARDED_BY(engineLock);
    std::vector<std::shared_ptr<SelectWorker>> workers MIVRA_GUARDED_BY(engineLock);
    std::map<int, ContextPointer> listeners MIVRA_GUARDED_BY(engineLock);

    // One Start or Shutdown at a time.
    Common::CritSec lifeLock;
    std::unique_ptr<Common::WakeEvent> contextGone;
};

}  // namespace Mivra::Transport
