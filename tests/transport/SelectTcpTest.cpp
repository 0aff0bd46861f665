// Streams: whole lives with their notifications, ids, partial sends, ends of every kind.

#include <fcntl.h>
#include <sys/resource.h>

#include <atomic>
#include <thread>

#include "tests/support/FaultInjection.h"
#include "tests/transport/TransportFixture.h"

namespace Mivra::Test {
namespace {

using Events = std::vector<std::string>;

std::string receiveError(int client, int error) {
    return "SelectTransport::workerRoutine: client " + std::to_string(client) +
           " receive error: " + std::to_string(error);
}

class SelectTcp : public TransportFixture {
protected:
    /// The engine's client, and the other end of its connection.
    PosixPeer connectPeer(NetConnectionParameters parameters) {
        parameters.remoteAddress = Loopback(server.Port());
        EXPECT_TRUE(engine->Connect(parameters));
        return server.Accept();
    }
    PosixPeer connectPeer() { return connectPeer(parametersFor(IPPROTO_TCP, {})); }

    PosixPeer server = PosixPeer::Bind(SOCK_STREAM);
};

TEST_F(SelectTcp, LivesOfAnAcceptedClientInOrder) {
    std::string reply = "answer";
    recorder->data = [&](NetClientContext* context, PacketBuffer*) {
        EXPECT_EQ(context->Protocol(), IPPROTO_TCP);
        EXPECT_EQ(context->RemoteAddress().sin_addr.s_addr, htonl(INADDR_LOOPBACK));
        EXPECT_EQ(context->AllowedQueueBytes(), 4 * 1024 * 1024);
        EXPECT_TRUE(send(context->ClientId(), reply));
        EXPECT_EQ(context->QueuedBytes(), 6);
    };
    recorder->sent = [](NetClientContext* context, PacketBuffer* packet) {
        EXPECT_EQ(context->QueuedBytes(), 0);
        EXPECT_EQ(packet->AddRef(), 2);  // beside the one of its sender
        packet->Release();
    };
    start();
    NetConnectionParameters listeners;
    listeners.sendQueueLimit = 5;  // an accepted client has the defaults
    const int port = listen(&listeners);
    PosixPeer peer = PosixPeer::Connect(port);
    ASSERT_TRUE(recorder->Await("connected 2"));
    EXPECT_TRUE(engine->StopListen(port));  // which its clients do not feel
    ASSERT_TRUE(peer.Send("question"));
    EXPECT_EQ(peer.Receive(6), "answer");
    ASSERT_TRUE(recorder->Await("sent 2"));
    peer.EndSending();
    ASSERT_TRUE(recorder->Await("released 2"));
    EXPECT_EQ(peer.ReceiveEnd(), 0);
    EXPECT_EQ(recorder->Events(),
              (Events{"connected 2", "data 2 question", "sent 2 6", "disconnecting 2", "released 2"}));
    EXPECT_TRUE(log.Contains("ERROR " + receiveError(2, 0)));
}

TEST_F(SelectTcp, ConnectedClientsCountFromOneAndEndQuietlyWhenAsked) {
    start();
    std::vector<PosixPeer> peers;
    for (int i = 0; i < 4; ++i)
        peers.push_back(connectPeer());
    ASSERT_TRUE(recorder->Await("connected 4"));  // so the worker is done with those before
    engine->DisconnectClient(1, true);
    EXPECT_EQ(recorder->Count("released 1"), 1);
    engine->DisconnectClient(2, false);
    engine->DisconnectClientAsync(3, false);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(peers[static_cast<std::size_t>(i)].ReceiveEnd(), 0);
    EXPECT_EQ(recorder->Events(), (Events{"connected 1", "connected 2", "connected 3", "connected 4",
                                          "disconnecting 1", "released 1"}));
    EXPECT_TRUE(
        log.Contains("DEBUG SelectTransport::DisconnectClientAsync: client 3 releasing notifications"));
    EXPECT_TRUE(awaitLine("DEBUG SelectTransport::disconnectClient: releasing context 3, 0x"));
    EXPECT_EQ(log.Count("SelectTransport::disconnectClient: releasing context"), 3);
    log.Clear();
    std::string text = "late";
    EXPECT_FALSE(send(1, text));
    EXPECT_EQ(log.Lines(), Events{});
    engine->DisconnectClient(1, true);
    EXPECT_TRUE(log.Contains("WARN  SelectTransport::disconnectClient: client context is NULL"));
}

TEST_F(SelectTcp, ConvenientConnectTakesDottedAddressesOnly) {
    start();
    EXPECT_FALSE(engine->Connect("localhost", server.Port(), recorder.get()));
    EXPECT_FALSE(engine->Connect(nullptr, server.Port(), recorder.get()));
    EXPECT_FALSE(engine->Connect("127.0.0.1", 65536, recorder.get()));
    ASSERT_TRUE(engine->Connect("127.0.0.1", server.Port(), recorder.get()));
    ASSERT_TRUE(recorder->Await("connected 1"));
    const std::string port = std::to_string(server.Port());
    expectErrors({"NetTransport::Connect: localhost, port " + port + " is no IPv4 address",
                  "NetTransport::Connect: null, port " + port + " is no IPv4 address",
                  "NetTransport::Connect: 127.0.0.1, port 65536 is no IPv4 address"});
}

TEST_F(SelectTcp, RefusedAndResetConnectionsFail) {
    start();
    const int nobody = PosixPeer::FreePort();
    EXPECT_FALSE(engine->Connect("127.0.0.1", nobody, recorder.get()));
    EXPECT_TRUE(log.Contains("DEBUG SelectTransport::Connect: connect failed: 111"));
    NetConnectionParameters noFamily = parametersFor(IPPROTO_TCP, sockaddr_in{});
    EXPECT_FALSE(engine->Connect(noFamily));
    EXPECT_TRUE(log.Contains("DEBUG SelectTransport::Connect: connect failed: 97"));
    PosixPeer peer = connectPeer();
    ASSERT_TRUE(recorder->Await("connected 1"));
    peer.Reset();
    ASSERT_TRUE(recorder->Await("released 1"));
    expectErrors({receiveError(1, ECONNRESET)});
}

// Small buffers at both ends: what is queued goes in many pieces, arrives whole and completes in order, and a
// packet that waits for several clients has a place of its own for each.
TEST_F(SelectTcp, OnePacketForManyClientsGoesInPieces) {
    constexpr int kClients = 5;
    std::string big(900'000, '\0');
    for (std::size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 7 + i / 251);
    std::string small = "tail";
    start();
    std::vector<PosixPeer> peers;
    for (int i = 0; i < kClients; ++i) {
        server.SetOption(SO_RCVBUF, 4096);
        NetConnectionParameters parameters = parametersFor(IPPROTO_TCP, {});
        parameters.sendBufferSize = 4096;
        peers.push_back(connectPeer(parameters));
    }
    const auto packet = packetOf(big);
    packet->Position() = 17;
    for (unsigned id = 1; id <= kClients; ++id) {
        EXPECT_TRUE(engine->SendAsync(id, packet.get()));
        EXPECT_TRUE(send(id, small));
    }
    EXPECT_EQ(packet->Position(), 0);
    std::vector<std::thread> readers;
    for (PosixPeer& peer : peers) {
        readers.emplace_back([&] { EXPECT_EQ(peer.Receive(big.size() + small.size()), big + small); });
    }
    for (std::thread& reader : readers)
        reader.join();
    for (int id = 1; id <= kClients; ++id) {
        const std::string sent = "sent " + std::to_string(id);
        ASSERT_TRUE(recorder->Await(sent + " 4"));
        EXPECT_EQ(recorder->Count(sent), 2);
    }
    EXPECT_EQ(packet->AddRef(), 2);
    packet->Release();
}

TEST_F(SelectTcp, QueueLimitOfZeroAdmitsTwoPackets) {
    std::atomic<bool> go{false};
    recorder->connected = [&](NetClientContext*) {
        while (!go)
            std::this_thread::yield();
    };
    start();
    NetConnectionParameters parameters = parametersFor(IPPROTO_TCP, {});
    parameters.sendQueueLimit = 0;
    PosixPeer peer = connectPeer(parameters);
    std::string first = "first";
    std::string second = "second";
    std::string third = "third";
    EXPECT_TRUE(send(1, first));
    EXPECT_TRUE(send(1, second));
    NetConnectionParameters wider;
    engine->Update(1, wider);  // which changes nothing
    const auto refused = packetOf(third);
    refused->Position() = 3;
    EXPECT_FALSE(engine->SendAsync(1, refused.get()));
    EXPECT_EQ(refused->Position(), 3);
    EXPECT_TRUE(
        log.Contains("WARN  NetClientContext::PushWritePacket: Send queue is too long: allowed 0 current "
                     "11, dropping packet"));
    wider.sendQueueLimit = 16;
    engine->Update(1, wider);
    EXPECT_TRUE(engine->SendAsync(1, refused.get()));
    engine->DisconnectClientAsync(1, true);  // after what is queued
    go = true;
    EXPECT_EQ(peer.Receive(100), "firstsecondthird");
    ASSERT_TRUE(recorder->Await("released 1"));
    EXPECT_EQ(recorder->Count("sent"), 3);
}

TEST_F(SelectTcp, ClientsGoToTheWorkerWithTheFewest) {
    std::vector<int> workers;
    recorder->connected = [&](NetClientContext* context) {
        workers.push_back(static_cast<Transport::SelectClientContext*>(context)->WorkerIndex());
    };
    start(3);
    std::vector<PosixPeer> peers;
    for (int i = 1; i <= 6; ++i) {
        if (i == 5) engine->DisconnectClient(2, true);
        peers.push_back(connectPeer());
        ASSERT_TRUE(recorder->Await("connected", i));
    }
    EXPECT_EQ(workers, (std::vector{0, 1, 2, 0, 1, 1}));
}

// The 101st context (the listener is one) is reset and takes no id.
TEST_F(SelectTcp, HundredContextsAreTheMost) {
    start(3);
    const int port = listen();
    std::vector<PosixPeer> peers;
    for (int i = 1; i <= 99; ++i) {
        peers.push_back(PosixPeer::Connect(port));
        ASSERT_TRUE(recorder->Await("connected", i));  // the backlog is short
    }
    EXPECT_EQ(PosixPeer::Connect(port).ReceiveEnd(), ECONNRESET);
    EXPECT_TRUE(
        awaitLine("WARN  SelectTransport::createContext: maximum number of connections is reached, new "
                  "connection rejected"));
    engine->DisconnectClient(50, true);
    peers.push_back(PosixPeer::Connect(port));
    EXPECT_TRUE(recorder->Await("connected 101"));
    EXPECT_EQ(recorder->Count("connected 102"), 0);
}

TEST_F(SelectTcp, HandlersMayEndTheirOwnClient) {
    const auto end = [&](NetClientContext* context) {
        engine->DisconnectClient(context->ClientId(), true);
        EXPECT_EQ(context->Socket(), NetClientContext::InvalidSocket);
    };
    std::string text = "text";
    // Client 1 ends when it is connected, 2 with its data, 3 when it has sent, 4 while it ends.
    recorder->connected = [&](NetClientContext* context) {
        if (context->ClientId() == 1) end(context);
        if (context->ClientId() == 3) {
            EXPECT_TRUE(send(3, text));
        }
    };
    recorder->data = [&](NetClientContext* context, PacketBuffer*) { end(context); };
    recorder->sent = [&](NetClientContext* context, PacketBuffer*) { end(context); };
    recorder->disconnecting = [&](NetClientContext* context) {
        if (context->ClientId() == 4) engine->DisconnectClient(4, true);
    };
    start();
    std::vector<PosixPeer> peers;
    for (int i = 0; i < 4; ++i)
        peers.push_back(connectPeer());
    EXPECT_EQ(peers[0].ReceiveEnd(), 0);
    ASSERT_TRUE(peers[1].Send("more than once"));
    EXPECT_EQ(peers[1].ReceiveEnd(), 0);
    EXPECT_EQ(peers[2].Receive(5), "text");
    engine->DisconnectClient(4, true);
    EXPECT_EQ(log.Count("WARN  SelectTransport::disconnectClient: client 4 socket is closed already"), 1);
    ASSERT_TRUE(recorder->Await("released", 4));
    EXPECT_EQ(recorder->Count("disconnecting"), 4);
}

TEST_F(SelectTcp, AnotherThreadEndsAClientAfterItsHandler) {
    std::atomic<bool> inside{false};
    std::atomic<bool> go{false};
    recorder->data = [&](NetClientContext*, PacketBuffer*) {
        inside = true;
        while (!go)
            std::this_thread::yield();
    };
    start();
    PosixPeer peer = connectPeer();
    ASSERT_TRUE(peer.Send("x"));
    while (!inside)
        std::this_thread::yield();
    std::thread ender([&] { engine->DisconnectClient(1, true); });
    std::string text = "text";
    while (!send(1, text))
        break;  // gives up as soon as the client closes
    go = true;
    ender.join();
    EXPECT_EQ(recorder->Events(), (Events{"connected 1", "data 1 x", "disconnecting 1", "released 1"}));
}

// Each handler sends to the client of the other worker, and ends it at last.
TEST_F(SelectTcp, WorkersWhoseHandlersMeetDoNotWaitForEver) {
    constexpr int kRounds = 2000;
    std::string text(200, 'm');
    const auto packet = packetOf(text);
    std::atomic<int> handled{0};
    std::atomic<int> met{0};
    recorder->quiet = true;
    recorder->data = [&](NetClientContext* context, PacketBuffer*) {
        const unsigned other = 3 - context->ClientId();
        const bool last = ++handled > kRounds;
        engine->SendAsync(other, packet.get());  // upon which the other handler runs once more
        if (!last) return;
        for (++met; met < 2;)
            std::this_thread::yield();
        engine->DisconnectClient(other, true);
    };
    start(2);
    PosixPeer first = connectPeer();
    PosixPeer second = connectPeer();
    std::vector<std::thread> feeders;
    for (PosixPeer* peer : {&first, &second}) {
        feeders.emplace_back([&, peer] {
            while (peer->Send(text) && !peer->Receive(text.size()).empty()) {
            }
        });
    }
    EXPECT_TRUE(recorder->Await("released", 2));
    engine->DisconnectAll();
    for (std::thread& feeder : feeders)
        feeder.join();
    EXPECT_GT(handled, kRounds);
}

TEST_F(SelectTcp, ShutsDownInTrafficAndStartsAgain) {
    recorder->quiet = true;
    recorder->data = [&](NetClientContext* context, PacketBuffer* packet) {
        engine->SendAsync(context->ClientId(), packet);
    };
    for (unsigned round = 0; round < 3; ++round) {
        start(2);
        const int port = listen();
        std::vector<std::thread> talkers;
        for (int i = 0; i < 4; ++i) {
            talkers.emplace_back([&] {
                PosixPeer peer = PosixPeer::Connect(port);
                while (peer.Send("0123456789") && peer.Receive(10).size() == 10) {
                }
            });
        }
        // Ids go on where they were: the listener, then four.
        for (unsigned id = round * 5 + 2; id <= round * 5 + 5; ++id) {
            EXPECT_TRUE(recorder->Await("data " + std::to_string(id), 20));
        }
        engine->Shutdown();
        for (std::thread& talker : talkers)
            talker.join();
        std::string text = "x";
        EXPECT_FALSE(send(round * 5 + 2, text));
    }
    EXPECT_EQ(recorder->Count("connected"), 12);
    EXPECT_EQ(recorder->Count("released"), 12);
}

// Each end makes a client want another one: refused once the engine ends.
TEST_F(SelectTcp, ShutsDownThoughHandlersConnectAgain) {
    std::atomic<int> again{0};
    recorder->released = [&](NetClientContext*) {
        NetConnectionParameters parameters = parametersFor(IPPROTO_TCP, Loopback(server.Port()));
        again += engine->Connect(parameters);
    };
    start();
    PosixPeer peer = connectPeer();
    ASSERT_TRUE(recorder->Await("connected 1"));
    peer.Close();
    ASSERT_TRUE(recorder->Await("connected 2"));
    engine->Shutdown();
    EXPECT_EQ(again, 1);
    EXPECT_EQ(recorder->Count("released"), 2);
}

// A full table of descriptors: the connection is refused once, and the listener lives on.
TEST_F(SelectTcp, RefusesConnectionsWithoutDescriptors) {
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    start();
    const int port = listen();
    // The worker is at its work: a sanitizer that meets a type for the first time wants descriptors itself.
    const PosixPeer first = PosixPeer::Connect(port);
    ASSERT_TRUE(recorder->Await("connected 2"));
    {
        std::vector<PosixPeer> late;
        while (late.size() < 3)
            late.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const PosixPeer lowest(::fcntl(late[0].Descriptor(), F_DUPFD_CLOEXEC, 0));
        const rlimit none{static_cast<rlim_t>(lowest.Descriptor()) + 1, former.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
        for (const PosixPeer& peer : late) {
            EXPECT_TRUE(peer.ConnectTo(port));
            EXPECT_EQ(peer.ReceiveEnd(), ECONNRESET);
        }
        EXPECT_TRUE(
            awaitLine("WARN  SelectTransport::workerRoutine: listener 1 out of descriptors: 24, new "
                      "connection rejected"));
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
    }
    std::uint64_t calls;
    {
        const FaultPlan plan(FaultKind::Accept, 1, FaultPlan::Span::FromThenOn, EMFILE);
        PosixPeer waiting = PosixPeer::Connect(port);
        EXPECT_FALSE(waiting.IsReady(40));
        calls = plan.Calls();
    }
    EXPECT_LT(calls, 40U) << "the worker spins";
    PosixPeer peer = PosixPeer::Connect(port);
    EXPECT_TRUE(recorder->Await("connected 4"));
}

TEST_F(SelectTcp, WaitsForBuffersAndLosesNothing) {
    std::vector<PacketBuffer*> kept;
    recorder->data = [&](NetClientContext*, PacketBuffer* packet) {
        if (kept.size() < 20) {
            packet->AddRef();
            kept.push_back(packet);
        }
    };
    engine->SetAllocator(10, 2);  // grows to 20
    ASSERT_TRUE(engine->Start());
    PosixPeer peer = connectPeer();
    std::string text;
    for (int i = 0; i < 300; ++i)
        text += static_cast<char>('a' + i % 26);
    ASSERT_TRUE(peer.Send(text));
    ASSERT_TRUE(recorder->Await("data", 20));
    const FaultPlan looks(FaultKind::AwaitWatch, UINT64_MAX);
    EXPECT_FALSE(peer.IsReady(20));
    EXPECT_LT(looks.Calls(), 40U) << "the worker spins";
    EXPECT_EQ(recorder->Count("data"), 20);
    for (PacketBuffer* packet : kept)
        packet->Release();
    ASSERT_TRUE(recorder->Await("data", 30));
    std::string got;
    for (const std::string& event : recorder->Events()) {
        if (event.compare(0, 7, "data 1 ") == 0) got += event.substr(7);
    }
    EXPECT_EQ(got, text);
    ASSERT_FALSE(log.Errors().empty());
    expectErrors({log.Errors()[0]});
    EXPECT_NE(log.Errors()[0].find("auto-growth prevented"), std::string::npos);
}

TEST_F(SelectTcp, WhatHandlersMustNotDoEndsInTheLog) {
    recorder->connected = [&](NetClientContext*) {
        engine->Shutdown();
        throw std::runtime_error("no");
    };
    start();
    PosixPeer peer = connectPeer();
    ASSERT_TRUE(peer.Send("still there"));
    ASSERT_TRUE(recorder->Await("data 1 still there"));
    expectErrors({"SelectTransport::Shutdown: called by a worker thread",
                  "NetNotitications: client 1: exception out of a handler: no"});
}

TEST_F(SelectTcp, OverridingNotificationsGetDataOnly) {
    const auto other = Recorder::Make();
    recorder->connected = [&](NetClientContext* context) {
        other->AddRef();
        context->NotificationsOverride() = other.get();
    };
    std::string text = "back";
    start();
    PosixPeer peer = connectPeer();
    ASSERT_TRUE(recorder->Await("connected 1"));
    ASSERT_TRUE(peer.Send("in"));
    ASSERT_TRUE(other->Await("data 1 in"));
    EXPECT_TRUE(send(1, text));
    ASSERT_TRUE(other->Await("sent 1 4"));
    engine->DisconnectClientAsync(1, true);
    ASSERT_TRUE(recorder->Await("released 1"));
    EXPECT_EQ(recorder->Events(), (Events{"connected 1", "disconnecting 1", "released 1"}));
    EXPECT_EQ(other->Events(), (Events{"data 1 in", "sent 1 4"}));
    engine.reset();
    EXPECT_EQ(other->GetRefCount(), 1);
}

// Beyond what select() can represent, with data, urgent data (which counts as an exception) and an end.
TEST_F(SelectTcp, ServesDescriptorsFrom1024On) {
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    if (former.rlim_max < 2048) GTEST_SKIP() << "not as many descriptors here";
    const rlimit more{2048, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &more), 0);
    std::vector<PosixPeer> filling;
    do
        filling.emplace_back(::fcntl(server.Descriptor(), F_DUPFD_CLOEXEC, 3));
    while (filling.back().Descriptor() < 1100);
    std::atomic<int> socket{0};
    recorder->connected = [&](NetClientContext* context) { socket = context->Socket(); };
    start();
    PosixPeer peer = connectPeer();
    ASSERT_TRUE(peer.Send("high"));
    ASSERT_TRUE(recorder->Await("data 1 high"));
    EXPECT_GE(socket, 1024);
    PosixPeer urgent = connectPeer();
    ASSERT_EQ(::send(urgent.Descriptor(), "!", 1, MSG_OOB), 1);
    ASSERT_TRUE(recorder->Await("released 2"));
    engine->Shutdown();
    filling.clear();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
    expectErrors({"SelectTransport::workerRoutine: client 2 exceptfds error: 0"});
}

}  // namespace
}  // namespace Mivra::Test
