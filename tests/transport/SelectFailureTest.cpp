// Every line of the engine's log that the lives of clients do not reach, with its level.

#include <atomic>
#include <cstring>
#include <future>
#include <thread>

#include "mivra/platform/System.h"
#include "tests/support/FaultInjection.h"
#include "tests/transport/TransportFixture.h"

namespace Mivra::Test {
namespace {

using Lines = std::vector<std::string>;

class SelectFailure : public TransportFixture {
protected:
    NetConnectionParameters tcp() { return parametersFor(IPPROTO_TCP, Loopback(server.Port())); }
    NetConnectionParameters group() {
        NetConnectionParameters parameters = udpParameters(0, Loopback(9, "239.1.1.230"));
        parameters.reuseAddress = true;
        parameters.disableMulticastLoop = true;
        return parameters;
    }
    PosixPeer connectPeer() {
        NetConnectionParameters parameters = tcp();
        EXPECT_TRUE(engine->Connect(parameters));
        return server.Accept();
    }
    /// A connect that has to fail with one line (none: null) while the nth call of the kind does.
    void failsToConnect(NetConnectionParameters parameters, FaultKind kind, std::uint64_t nth, int error,
                        const char* line) {
        log.Clear();
        {
            const FaultPlan plan(kind, nth, FaultPlan::Span::Once, error);
            EXPECT_FALSE(engine->Connect(parameters));
            EXPECT_TRUE(plan.Reached());
        }
        EXPECT_EQ(log.Lines(), line == nullptr ? Lines{} : Lines{line});
        log.Clear();
    }

    PosixPeer server = PosixPeer::Bind(SOCK_STREAM);
};

TEST_F(SelectFailure, NothingWorksBeforeStart) {
    std::string text = "x";
    sockaddr_in address{};
    NetConnectionParameters parameters = tcp();
    EXPECT_FALSE(engine->Connect(parameters));
    EXPECT_FALSE(engine->Listen(nullptr, 0, recorder.get(), nullptr));
    EXPECT_FALSE(engine->SetRemoteFilter(1, address));
    EXPECT_FALSE(send(1, text));
    EXPECT_FALSE(engine->Start());
    engine->SetAllocator(0, 5);
    EXPECT_FALSE(engine->Start());
    engine->SetAllocator(5, 0);
    EXPECT_FALSE(engine->Start());
    EXPECT_FALSE(send(1, text));
    // The log folds lines that repeat their predecessor.
    EXPECT_EQ(log.Lines(), (Lines{"WARN  SelectTransport::SendAsync: empty send buffer",
                                  "ERROR SelectTransport::Start: Allocators are not initialized",
                                  "WARN  SelectTransport::SendAsync: empty send buffer"}));
    log.Clear();
}

TEST_F(SelectFailure, LifeOfAnEngineIsLogged) {
    start(2);
    EXPECT_TRUE(engine->Start());
    EXPECT_FALSE(engine->SendAsync(1, nullptr));
    EXPECT_FALSE(engine->StopListen(80));
    engine->SetAllocator(0, 1);
    EXPECT_FALSE(engine->Start());  // looks at the sizes first, started or not
    ASSERT_TRUE(awaitLine("worker thread 1 started"));
    ASSERT_TRUE(awaitLine("worker thread 0 started"));
    engine.reset();
    Lines lines = log.Lines();
    ASSERT_GT(lines.size(), 2U);
    EXPECT_EQ(lines[0], "INFO  SelectTransport::Start: maximum number of connections: 100");
    EXPECT_EQ(lines[1].find("DEBUG SelectTransport::Start: created allocator 0x"), 0U) << lines[1];
    EXPECT_TRUE(lines[1].ends_with(", buffer size 65536, buffer count 32")) << lines[1];
    for (const char* line : {"INFO  SelectTransport::Start: engine successfully started.",
                             "DEBUG SelectTransport::workerRoutine: worker thread 0 started",
                             "WARN  SelectTransport::SendAsync: empty send buffer",
                             "ERROR SelectTransport::StopListen: port 80 not opened",
                             "INFO  SelectTransport::Shutdown: shutting down",
                             "DEBUG SelectTransport::Shutdown: all client contexts released",
                             "DEBUG SelectTransport::Shutdown: closing I/O worker threads",
                             "DEBUG SelectTransport::workerRoutine: worker thread 1 finished"}) {
        EXPECT_TRUE(log.Contains(line)) << line;
    }
    EXPECT_EQ(lines.back(), "DEBUG SelectTransport::~SelectTransport: released");
    expectErrors({"SelectTransport::StopListen: port 80 not opened",
                  "SelectTransport::Start: Allocators are not initialized"});
}

TEST_F(SelectFailure, StartsWholeOrNotAtAll) {
    engine->SetAllocator(-1, 4);
    EXPECT_FALSE(engine->Start());
    engine->SetAllocator(100, 4);
    engine->SetWorkerCount(2);
    {
        const FaultPlan plan(FaultKind::WakeDescriptor, 2);
        EXPECT_FALSE(engine->Start());
    }
    {
        const FaultPlan plan(FaultKind::StartThread, 2);
        EXPECT_FALSE(engine->Start());
    }
    ASSERT_EQ(log.Errors().size(), 3U);
    EXPECT_EQ(log.Errors()[1], "SelectTransport::Start: worker thread 1 could not be started: 24");
    EXPECT_EQ(log.Errors()[2], "SelectTransport::Start: worker thread 1 could not be started: 11");
    log.Clear();
    EXPECT_TRUE(engine->Start());
}

TEST_F(SelectFailure, ConnectSaysWhatFailed) {
    using enum FaultKind;
    start();
    ASSERT_TRUE(awaitLine("worker thread 0 started"));
    NetConnectionParameters udp = udpParameters(0, Loopback(9));
    udp.reuseAddress = true;
    NetConnectionParameters bound = tcp();
    bound.hasLocalAddress = true;
    bound.localAddress = Loopback(0);
    NetConnectionParameters noLocal = parametersFor(IPPROTO_UDP, Loopback(9));
    NetConnectionParameters other = parametersFor(132, Loopback(9));
    EXPECT_FALSE(engine->Connect(noLocal));
    EXPECT_FALSE(engine->Connect(other));
    EXPECT_EQ(log.Errors(), (Lines{"SelectTransport::Connect: local address is not specified",
                                   "SelectTransport::Connect: unsupported protocol 132"}));
    failsToConnect(tcp(), Socket, 1, EMFILE, "ERROR SelectTransport::Connect: could not create socket: 24");
    failsToConnect(udp, Socket, 1, ENFILE, "ERROR SelectTransport::Connect: could not create socket: 23");
    failsToConnect(bound, Bind, 1, EADDRINUSE, "ERROR SelectTransport::Connect: bind failed: 98");
    failsToConnect(tcp(), Connect, 1, ENETUNREACH, "DEBUG SelectTransport::Connect: connect failed: 101");
    failsToConnect(udp, Bind, 1, EADDRINUSE, nullptr);
    failsToConnect(udp, SocketOption, 2, EPERM,
                   "ERROR SelectTransport::Connect: setsockopt(SO_REUSEADDR) failed: 1");
    failsToConnect(group(), SocketOption, 3, EPERM,
                   "ERROR SelectTransport::Connect: setsockopt(IP_MULTICAST_LOOP) failed: 1");
    failsToConnect(group(), SocketOption, 4, EPERM,
                   "ERROR SelectTransport::Connect: setsockopt(IP_MULTICAST_TTL) failed: 1");
    failsToConnect(group(), SocketOption, 6, EPERM,
                   "ERROR SelectTransport::Connect: setsockopt(IP_ADD_MEMBERSHIP) failed: 1");
}

TEST_F(SelectFailure, BufferSizesAreAWishOnly) {
    start();
    NetConnectionParameters udp = udpParameters(0, Loopback(9));
    udp.receiveBufferSize = udp.sendBufferSize = 8192;
    {
        const FaultPlan plan(FaultKind::SocketOption, 2, FaultPlan::Span::FromThenOn);
        EXPECT_TRUE(engine->Connect(udp));
    }
    EXPECT_TRUE(
        log.Contains("WARN  SelectTransport::createContext: setting of SO_RCVBUF failed -1, last error 1"));
    EXPECT_TRUE(
        log.Contains("WARN  SelectTransport::createContext: setting of SO_SNDBUF failed -1, last error 1"));
}

TEST_F(SelectFailure, ListenSaysWhatFailed) {
    start();
    const int port = listen();
    EXPECT_FALSE(engine->Listen("127.0.0.1", port, recorder.get(), nullptr));
    EXPECT_FALSE(engine->Listen("nowhere", 0, recorder.get(), nullptr));
    EXPECT_FALSE(engine->Listen("127.0.0.1", server.Port(), recorder.get(), nullptr));
    for (const FaultKind kind : {FaultKind::Socket, FaultKind::Listen}) {
        const FaultPlan plan(kind, 1);
        EXPECT_FALSE(engine->Listen(nullptr, 0, recorder.get(), nullptr));
    }
    EXPECT_TRUE(engine->StopListen(port));
    EXPECT_FALSE(engine->StopListen(port));
    EXPECT_TRUE(engine->Listen(nullptr, port, recorder.get(), nullptr));
    PosixPeer peer = PosixPeer::Connect(port);
    EXPECT_TRUE(recorder->Await("connected 3"));
    engine->DisconnectAll();
    EXPECT_TRUE(engine->Listen(nullptr, port, recorder.get(), nullptr));
    const std::string number = std::to_string(port);
    expectErrors({"SelectTransport::Listen: port " + number + " already opened",
                  "SelectTransport::Listen: bind() error: 22", "SelectTransport::Listen: bind() error: 98",
                  "SelectTransport::Listen: could not create listen socket: 24",
                  "SelectTransport::Listen: listen() error: 98",
                  "SelectTransport::StopListen: port " + number + " not opened"});
}

TEST_F(SelectFailure, WithoutWorkersNothingCanBeServed) {
    start(0);
    EXPECT_TRUE(log.Contains(", buffer count 64"));
    NetConnectionParameters parameters = tcp();
    EXPECT_FALSE(engine->Connect(parameters));
    EXPECT_EQ(recorder->Events(), (Lines{"disconnecting 1", "released 1"}));
    EXPECT_FALSE(engine->Listen("127.0.0.1", PosixPeer::FreePort(), recorder.get(), nullptr));
    expectErrors({"SelectTransport::createContext: no suitable thread found",
                  "SelectTransport::Listen: no suitable thread found"});
}

TEST_F(SelectFailure, SocketsThatFailEndTheirClients) {
    start();
    NetConnectionParameters parameters = tcp();
    std::vector<PosixPeer> peers;
    const auto connect = [&] {
        ASSERT_TRUE(engine->Connect(parameters));
        peers.push_back(server.Accept());
        ASSERT_TRUE(recorder->Await("connected", static_cast<int>(peers.size())));
    };
    std::string text = "x";
    connect();
    {
        const FaultPlan plan(FaultKind::Send, 1, FaultPlan::Span::Once, EPIPE);
        EXPECT_TRUE(send(1, text));
        ASSERT_TRUE(recorder->Await("released 1"));
    }
    connect();
    {
        const FaultPlan noSet(FaultKind::AwaitWatch, 1, FaultPlan::Span::FromThenOn);
        const FaultPlan select(FaultKind::Select, 1, FaultPlan::Span::Once, EBADF);
        ASSERT_TRUE(peers[1].Send(text));  // ends the wait that is under way
        ASSERT_TRUE(recorder->Await("released 2"));
    }
    connect();
    ASSERT_EQ(::send(peers[2].Descriptor(), "!", 1, MSG_OOB), 1);
    ASSERT_TRUE(recorder->Await("released 3"));
    expectErrors({"SelectTransport::workerRoutine: client 1 send error: 32",
                  "SelectTransport::workerRoutine: client 2 select() error: 9",
                  "SelectTransport::workerRoutine: client 3 exceptfds error: 0"});
}

// Without a set of what is watched, or without a place in it, a socket is looked at by itself; a place is
// asked for again.
TEST_F(SelectFailure, SocketsAreServedUnwatched) {
    using enum FaultKind;
    recorder->data = [&](NetClientContext* context, PacketBuffer* packet) {
        EXPECT_TRUE(engine->SendAsync(context->ClientId(), packet));
    };
    for (const auto& [kind, span] : {std::pair{CreateWatch, FaultPlan::Span::Once},
                                     {ChangeWatch, FaultPlan::Span::Once},
                                     {ChangeWatch, FaultPlan::Span::FromThenOn},
                                     {AwaitWatch, FaultPlan::Span::FromThenOn}}) {
        const FaultPlan plan(kind, 1, span);
        start();
        PosixPeer peer = PosixPeer::Connect(listen());
        for (const char* text : {"one", "two", "three"}) {
            ASSERT_TRUE(peer.Send(text));
            EXPECT_EQ(peer.Receive(std::strlen(text)), text) << FaultName(kind);
        }
        EXPECT_TRUE(plan.Reached());
        engine->Shutdown();
    }
}

TEST_F(SelectFailure, ResolvesNamesToDottedAddresses) {
    EXPECT_EQ(SelectTransport::Resolve("localhost"), "127.0.0.1");
    EXPECT_EQ(SelectTransport::Resolve("10.1.2.3"), "10.1.2.3");
    const FaultPlan plan(FaultKind::Resolve, 1);
    EXPECT_EQ(SelectTransport::Resolve("localhost"), "");
    EXPECT_TRUE(log.Contains("DEBUG SelectTransport::Resolve: getaddrinfo() failed -1"));
}

TEST_F(SelectFailure, MembershipThatCannotBeLeftIsNoted) {
    start();
    NetConnectionParameters parameters = group();
    ASSERT_TRUE(engine->Connect(parameters));
    ASSERT_TRUE(recorder->Await("connected 1"));
    const FaultPlan plan(FaultKind::SocketOption, 1);
    engine->DisconnectClient(1, true);
    EXPECT_TRUE(
        log.Contains("DEBUG SelectTransport::disconnectClient: setsockopt(IP_DROP_MEMBERSHIP) failed: 1"));
}

// A thread that does not come back from its handler: the client is closed by force after a second, which is
// 1000 looks, beside the 100 of DisconnectAll.
TEST_F(SelectFailure, ShutdownDoesNotWaitForEver) {
    static std::atomic<int> s_looks{0};
    static const auto s_wait = Platform::g_system.waitWord;
    Platform::g_system.waitWord = [](const auto* word, std::uint32_t expected, std::int64_t nanoseconds) {
        if (nanoseconds != 1'000'000) return s_wait(word, expected, nanoseconds);
        ++s_looks;
    };
    std::promise<void> inside;
    std::promise<void> go;
    recorder->disconnecting = [&](NetClientContext*) {
        inside.set_value();
        go.get_future().wait();
    };
    start();
    PosixPeer peer = connectPeer();
    ASSERT_TRUE(recorder->Await("connected 1"));
    std::thread ender([&] { engine->DisconnectClient(1, true); });
    inside.get_future().wait();
    s_looks = 0;
    engine->Shutdown();
    EXPECT_EQ(s_looks, 1100);
    EXPECT_EQ(peer.ReceiveEnd(), ECONNRESET);
    EXPECT_TRUE(log.Contains("DEBUG SelectTransport::Shutdown: de-allocate client contexts"));
    EXPECT_TRUE(log.Contains("DEBUG SelectTransport::Shutdown: removed client context 1"));
    EXPECT_FALSE(log.Contains("all client contexts released"));
    go.set_value();
    ender.join();
    Platform::g_system.waitWord = s_wait;
    EXPECT_TRUE(log.Contains("DEBUG SelectTransport::disconnectClient: client 1 is deleted already"));
    EXPECT_EQ(recorder->Events(), (Lines{"connected 1", "disconnecting 1", "released 1"}));
}

// The worker's own handler: it is waited for, but the client's end is told to nobody then.
TEST_F(SelectFailure, ShutdownWaitsForHandlersOfWorkers) {
    std::promise<void> inside;
    std::promise<void> go;
    std::string text = "x";
    recorder->data = [&](NetClientContext*, PacketBuffer*) {
        EXPECT_TRUE(send(1, text));
        inside.set_value();
        go.get_future().wait();
    };
    start();
    PosixPeer peer = connectPeer();
    ASSERT_TRUE(peer.Send(text));
    inside.get_future().wait();
    std::thread ender([&] { engine->Shutdown(); });
    EXPECT_TRUE(awaitLine("DEBUG SelectTransport::Shutdown: closing I/O worker threads"));
    go.set_value();
    ender.join();
    EXPECT_EQ(recorder->Events().front(), "connected 1");
    EXPECT_EQ(recorder->Count("data"), 1);
    EXPECT_EQ(recorder->Count("released"), 0);
}

// The same of a listener, which is held up on its way out of the set.
TEST_F(SelectFailure, AListenerMayBeGoneBeforeItsEnd) {
    static std::promise<void> s_inside;
    static std::promise<void> s_go;
    static std::atomic<bool> s_isHeld{false};
    static const auto s_change = Platform::g_system.changeWatchSet;
    Platform::g_system.changeWatchSet = [](int set, int operation, int descriptor, epoll_event* event) {
        if (operation == EPOLL_CTL_DEL && !s_isHeld.exchange(true)) {
            s_inside.set_value();
            s_go.get_future().wait();
        }
        return s_change(set, operation, descriptor, event);
    };
    start();
    const int port = PosixPeer::FreePort();
    ASSERT_TRUE(engine->Listen("127.0.0.1", port, recorder.get(), nullptr));
    const PosixPeer peer = PosixPeer::Connect(port);
    ASSERT_TRUE(recorder->Await("connected 2"));
    std::thread ender([&] { engine->DisconnectClient(1, true); });
    s_inside.get_future().wait();
    engine->Shutdown();
    ASSERT_TRUE(engine->Start());
    EXPECT_TRUE(engine->Listen("127.0.0.1", port, recorder.get(), nullptr));
    s_go.set_value();
    ender.join();
    EXPECT_TRUE(engine->StopListen(port));
    engine->Shutdown();
    Platform::g_system.changeWatchSet = s_change;
    EXPECT_TRUE(log.Contains("DEBUG SelectTransport::Shutdown: removed client context 1"));
    EXPECT_TRUE(log.Contains("DEBUG SelectTransport::disconnectClient: listener 1 is deleted already"));
}

}  // namespace
}  // namespace Mivra::Test
