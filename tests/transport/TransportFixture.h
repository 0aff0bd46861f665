#pragma once

// A started select engine, a recorder of its notifications and a capture of its log. Every test ends with the
// engine shut down, every reference on the recorder given back, and no line at level 1 that it did not
// expect.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/transport/NetClientContext.h"
#include "mivra/transport/NetNotitications.h"
#include "mivra/transport/select/SelectTransport.h"
#include "tests/support/LogCapture.h"
#include "tests/transport/PosixPeer.h"

namespace Mivra::Test {

using Common::PacketBuffer;
using Transport::NetClientContext;
using Transport::NetConnectionParameters;
using Transport::SelectTransport;

/// Notes every notification as "connected 1", "data 1 text", "sent 1 SIZE", "disconnecting 1", "released 1".
/// One that is to do something has it done by the function of its name, before it is noted.
class Recorder : public Transport::NetNotitications {
public:
    using Handler = std::function<void(NetClientContext*)>;
    using PacketHandler = std::function<void(NetClientContext*, PacketBuffer*)>;

    /// With one reference, its maker's.
    static Common::Reference<Recorder> Make() { return Common::Reference<Recorder>(new Recorder); }

    void OnClientConnected(NetClientContext* context) override { note("connected", context, connected); }
    void OnClientAccepted(NetClientContext* context) override { note("accepted", context, {}); }
    void OnClientDisconnecting(NetClientContext* context) override {
        EXPECT_NE(context->Socket(), NetClientContext::InvalidSocket);
        note("disconnecting", context, disconnecting);
    }
    void OnDataReceived(NetClientContext* context, PacketBuffer* packet) override {
        if (data) data(context, packet);
        add("data", context,
            quiet ? "" : ' ' + std::string(packet->Buffer(), static_cast<std::size_t>(packet->ActualSize())));
    }
    void OnSendCompleted(NetClientContext* context, PacketBuffer* packet) override {
        if (sent) sent(context, packet);
        add("sent", context, quiet ? "" : ' ' + std::to_string(packet->ActualSize()));
    }
    void OnClientReleased(NetClientContext* context) override {
        EXPECT_EQ(context->Socket(), NetClientContext::InvalidSocket);
        note("released", context, released);
    }

    std::vector<std::string> Events() {
        std::lock_guard guard(mutex);
        return events;
    }
    int Count(const std::string& event) {
        std::lock_guard guard(mutex);
        return count(event);
    }
    /// Until so many notifications begin as the text does; false after 5 s.
    bool Await(const std::string& event, int times = 1) {
        std::unique_lock guard(mutex);
        const bool come =
            changed.wait_for(guard, std::chrono::seconds(5), [&] { return count(event) >= times; });
        EXPECT_TRUE(come) << count(event) << " instead of " << times << " times '" << event << "'";
        return come;
    }

    // To be set before the engine knows of the recorder.
    Handler connected, disconnecting, released;
    PacketHandler data, sent;
    bool quiet = false;  // notes no contents

private:
    int count(const std::string& event) {
        int number = 0;
        for (const std::string& each : events)
            number += each.compare(0, event.size(), event) == 0;
        return number;
    }
    void note(const char* what, NetClientContext* context, const Handler& handler) {
        if (handler) handler(context);
        add(what, context, "");
    }
    void add(const char* what, NetClientContext* context, const std::string& more) {
        std::lock_guard guard(mutex);
        events.push_back(what + (' ' + std::to_string(context->ClientId())) + more);
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> events;
};

class TransportFixture : public ::testing::Test {
protected:
    static constexpr int kBufferSize = 65536;

    void start(int workers = 1, int bufferSize = kBufferSize) {
        engine->SetAllocator(bufferSize, 64);
        engine->SetWorkerCount(workers);
        ASSERT_TRUE(engine->Start());
    }
    /// A free port that the engine listens to.
    int listen(NetConnectionParameters* parameters = nullptr) {
        const int port = PosixPeer::FreePort();
        EXPECT_TRUE(engine->Listen("127.0.0.1", port, recorder.get(), parameters));
        return port;
    }
    /// For the recorder, with a reference.
    NetConnectionParameters parametersFor(int protocol, const sockaddr_in& remote) {
        NetConnectionParameters parameters;
        parameters.protocol = protocol;
        parameters.remoteAddress = remote;
        parameters.notifications = recorder.get();
        recorder->AddRef();
        return parameters;
    }
    NetConnectionParameters udpParameters(int localPort, const sockaddr_in& remote) {
        NetConnectionParameters parameters = parametersFor(IPPROTO_UDP, remote);
        parameters.hasLocalAddress = true;
        parameters.localAddress = Loopback(localPort);
        return parameters;
    }
    /// A packet of its own memory, with one reference.
    static Common::Reference<PacketBuffer> packetOf(std::string& text) {
        return Common::Reference<PacketBuffer>::Adopt(
            new PacketBuffer(text.data(), static_cast<int>(text.size())));
    }
    /// The packet lives as long as the test, since the recorder looks at what has been sent.
    bool send(unsigned int client, std::string& text) {
        const auto packet = packetOf(text);
        {
            const std::lock_guard guard(mutex);
            packets.push_back(packet);
        }
        return engine->SendAsync(client, packet.get());
    }
    /// Some lines are written after what a peer sees.
    bool awaitLine(const std::string& line) {
        for (int look = 0; look < 5000 && !log.Contains(line); ++look)
            ::usleep(1000);
        return log.Contains(line);
    }
    /// The lines of level 1 that a test has expected, but those of peers that end in an orderly way.
    void expectErrors(const std::vector<std::string>& lines) { expectedErrors = lines; }

    void TearDown() override {
        engine.reset();
        EXPECT_EQ(recorder->GetRefCount(), 1);
        std::vector<std::string> errors = log.Errors();
        std::erase_if(errors, [](const std::string& line) { return line.ends_with(" receive error: 0"); });
        EXPECT_EQ(errors, expectedErrors);
    }

    LogCapture log;
    Common::Reference<Recorder> recorder = Recorder::Make();
    std::unique_ptr<SelectTransport> engine = std::make_unique<SelectTransport>();
    std::vector<std::string> expectedErrors;

private:
    std::mutex mutex;
    std::vector<Common::Reference<PacketBuffer>> packets;
};

}  // namespace Mivra::Test
