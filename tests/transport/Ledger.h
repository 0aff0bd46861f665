#pragma once

// Notifications that keep the books of an engine: every life must come in order (connected, then data and
// sent packets, then disconnecting and released, each of the ends once), and packets must be told sent in the
// order in which they were queued. What is wrong stands in Wrongs(). Without GoogleTest, for the fuzz target
// too.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/transport/NetClientContext.h"
#include "mivra/transport/NetNotitications.h"
#include "mivra/transport/NetTransport.h"

namespace Mivra::Test {

class Ledger : public Transport::NetNotitications {
public:
    using NetClientContext = Transport::NetClientContext;
    using PacketBuffer = Common::PacketBuffer;

    struct Life {
        bool connected = false;
        bool disconnecting = false;
        bool released = false;
        std::uint64_t receivedBytes = 0;
        std::uint64_t sentPackets = 0;
        std::deque<const PacketBuffer*> queued;  // by Send
    };

    static Common::Reference<Ledger> Make() { return Common::Reference<Ledger>(new Ledger); }

    // What a handler does beside the books, without their lock; to be set before the engine knows of them.
    std::function<void(NetClientContext*)> connected, disconnecting, released;
    std::function<void(NetClientContext*, PacketBuffer*)> data, sent;

    /// Queues a packet; the order is checked for clients to which one thread sends with this alone.
    bool Send(Transport::NetTransport& engine, unsigned int client, PacketBuffer* packet) {
        // Not under the lock: the engine may wait for a handler.
        update(client, [&](Life& life) { life.queued.push_back(packet); });
        if (engine.SendAsync(client, packet)) return true;
        update(client, [](Life& life) { life.queued.pop_back(); });
        return false;
    }

    void OnClientConnected(NetClientContext* context) override {
        update(context->ClientId(), [&](Life& life) {
            expect(!life.connected && !life.disconnecting, context, "connected");
            life.connected = true;
            ++connects;
        });
        if (connected) connected(context);
    }
    void OnClientAccepted(NetClientContext* context) override {
        update(context->ClientId(), [&](Life&) { expect(false, context, "accepted"); });
    }
    void OnClientDisconnecting(NetClientContext* context) override {
        update(context->ClientId(), [&](Life& life) {
            expect(!life.disconnecting && context->Socket() != NetClientContext::InvalidSocket, context,
                   "disconnecting");
            life.disconnecting = true;
        });
        if (disconnecting) disconnecting(context);
    }
    void OnDataReceived(NetClientContext* context, PacketBuffer* packet) override {
        update(context->ClientId(), [&](Life& life) {
            expect(life.connected && !life.disconnecting && packet->ActualSize() > 0, context, "data");
            life.receivedBytes += static_cast<std::uint64_t>(packet->ActualSize());
        });
        if (data) data(context, packet);
    }
    void OnSendCompleted(NetClientContext* context, PacketBuffer* packet) override {
        update(context->ClientId(), [&](Life& life) {
            expect(life.connected && !life.disconnecting, context, "sent");
            ++life.sentPackets;
            if (life.queued.empty()) return;  // not queued by Send
            expect(life.queued.front() == packet, context, "sent in order");
            life.queued.pop_front();
        });
        if (sent) sent(context, packet);
    }
    void OnClientReleased(NetClientContext* context) override {
        update(context->ClientId(), [&](Life& life) {
            expect(
                life.disconnecting && !life.released && context->Socket() == NetClientContext::InvalidSocket,
                context, "released");
            life.released = true;
            ++releases;
        });
        if (released) released(context);
    }

    Life Of(unsigned int client) {
        std::lock_guard guard(mutex);
        return lives[client];
    }
    int Connects() {
        std::lock_guard guard(mutex);
        return connects;
    }
    int Releases() {
        std::lock_guard guard(mutex);
        return releases;
    }
    /// The highest id that was heard of; 0: none.
    unsigned int Newest() {
        std::lock_guard guard(mutex);
        return lives.empty() ? 0 : lives.rbegin()->first;
    }
    std::uint64_t ReceivedBytes() {
        std::lock_guard guard(mutex);
        std::uint64_t bytes = 0;
        for (const auto& [id, life] : lives)
            bytes += life.receivedBytes;
        return bytes;
    }
    void Forget(unsigned int client) {
        std::lock_guard guard(mutex);
        lives.erase(client);
    }
    /// Clients that were heard of and have not been told released.
    int Open() {
        std::lock_guard guard(mutex);
        int open = 0;
        for (const auto& [id, life] : lives)
            open += (life.connected || life.disconnecting) && !life.released;
        return open;
    }
    std::vector<std::string> Wrongs() {
        std::lock_guard guard(mutex);
        return wrongs;
    }
    /// Until the condition, which may use what stands above, holds after a notification; false after the
    /// time.
    bool Await(const std::function<bool()>& condition, int milliseconds = 20000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        for (;;) {
            std::uint64_t seen;
            {
                std::lock_guard guard(mutex);
                seen = changes;
            }
            if (condition()) return true;
            std::unique_lock guard(mutex);
            if (!changed.wait_until(guard, end, [&] { return changes != seen; })) return false;
        }
    }

private:
    template <typename Change>
    void update(unsigned int client, Change change) {
        std::lock_guard guard(mutex);
        change(lives[client]);
        ++changes;
        changed.notify_all();
    }
    void expect(bool holds, NetClientContext* context, const char* what) {
        if (!holds) wrongs.push_back(std::to_string(context->ClientId()) + ": " + what);
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::map<unsigned int, Life> lives;
    std::vector<std::string> wrongs;
    std::uint64_t changes = 0;
    int connects = 0;
    int releases = 0;
};

}  // namespace Mivra::Test
