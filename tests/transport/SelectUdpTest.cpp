// Datagrams: addresses, failures in a row, groups.

#include <atomic>
#include <cstring>

#include "tests/support/FaultInjection.h"
#include "tests/transport/TransportFixture.h"

namespace Mivra::Test {
namespace {

class SelectUdp : public TransportFixture {
protected:
    /// The engine's client 1, which sends to the peer; its port.
    int open(const sockaddr_in& remote) {
        const int port = PosixPeer::FreePort(SOCK_DGRAM);
        NetConnectionParameters parameters = udpParameters(port, remote);
        EXPECT_TRUE(engine->Connect(parameters));
        EXPECT_TRUE(recorder->Await("connected 1"));
        return port;
    }

    PosixPeer peer = PosixPeer::Bind(SOCK_DGRAM);
};

TEST_F(SelectUdp, CarriesDatagramsWholeAndInOrder) {
    std::atomic<int> senderPort{0};
    recorder->data = [&](NetClientContext*, PacketBuffer* packet) {
        senderPort = ntohs(packet->RemoteAddr().sin_port);
        EXPECT_EQ(packet->RemoteAddrLen(), static_cast<int>(sizeof(sockaddr_in)));
        if (packet->Buffer()[0] == 'e') engine->DisconnectClient(1, true);
    };
    start();
    const int port = open(Loopback(peer.Port()));
    ASSERT_TRUE(peer.SendTo("ping", Loopback(port)));
    ASSERT_TRUE(recorder->Await("data 1 ping"));
    EXPECT_EQ(senderPort, peer.Port());
    std::vector<std::string> texts;
    for (int i = 0; i < 100; ++i)
        texts.push_back(std::string(static_cast<std::size_t>(i), 'd') + std::to_string(i));
    for (std::string& text : texts)
        EXPECT_TRUE(send(1, text));
    for (const std::string& text : texts)
        EXPECT_EQ(peer.ReceiveDatagram(), text);
    EXPECT_TRUE(recorder->Await("sent 1", 100));
    for (const char* text : {"end", "end"})
        ASSERT_TRUE(peer.SendTo(text, Loopback(port)));
    EXPECT_TRUE(recorder->Await("released 1"));
}

// Packets of one length go to the system as one message; each stays a datagram, also where that is refused.
TEST_F(SelectUdp, RunsOfOneLengthStayDatagrams) {
    std::vector<std::string> texts;
    for (const auto& [times, size] :
         {std::pair{70, 1316}, {1, 10}, {2, 0}, {3, 40}, {1, 41}, {1, 65507}, {2, 30000}}) {
        for (int i = 0; i < times; ++i) {
            texts.push_back(
                std::string(static_cast<std::size_t>(size), static_cast<char>('a' + texts.size() % 26)));
        }
    }
    recorder->quiet = true;
    recorder->connected = [&](NetClientContext* context) {
        for (std::string& text : texts)
            EXPECT_TRUE(send(context->ClientId(), text));
    };
    peer.SetOption(SO_RCVBUF, 1 << 20);
    start();
    for (int client = 1; client <= 2; ++client) {
        const FaultPlan plan(FaultKind::Send, client == 2 ? 1 : 1000, FaultPlan::Span::Once, EIO);
        NetConnectionParameters parameters = udpParameters(0, Loopback(peer.Port()));
        ASSERT_TRUE(engine->Connect(parameters));
        for (const std::string& text : texts)
            ASSERT_EQ(peer.ReceiveDatagram(), text);
        ASSERT_TRUE(recorder->Await("sent " + std::to_string(client), static_cast<int>(texts.size())));
    }
}

TEST_F(SelectUdp, ItsDestinationCanBeChanged) {
    PosixPeer second = PosixPeer::Bind(SOCK_DGRAM);
    PosixPeer third = PosixPeer::Bind(SOCK_DGRAM);
    start();
    open(Loopback(peer.Port()));
    std::string text = "where";
    sockaddr_in address = Loopback(second.Port());
    EXPECT_FALSE(engine->SetRemoteFilter(7, address));
    EXPECT_TRUE(engine->SetRemoteFilter(1, address));
    EXPECT_TRUE(send(1, text));
    EXPECT_EQ(second.ReceiveDatagram(), text);
    NetConnectionParameters change;
    change.sendBufferSize = 8192;
    engine->Update(1, change);  // no family: the address stays
    EXPECT_TRUE(send(1, text));
    EXPECT_EQ(second.ReceiveDatagram(), text);
    change.remoteAddress = Loopback(third.Port());
    engine->Update(1, change);
    EXPECT_TRUE(send(1, text));
    EXPECT_EQ(third.ReceiveDatagram(), text);
    EXPECT_FALSE(peer.IsReady(0));
    EXPECT_EQ(engine->GetStatistics(1), nullptr);
}

// An empty datagram counts as a failure; a good one in between begins the row anew.
TEST_F(SelectUdp, TenthFailureInARowDisconnects) {
    start();
    const sockaddr_in client = Loopback(open(Loopback(peer.Port())));
    for (int i = 0; i < 9; ++i)
        ASSERT_TRUE(peer.SendTo("", client));
    ASSERT_TRUE(peer.SendTo("good", client));
    ASSERT_TRUE(recorder->Await("data 1 good"));
    for (int i = 0; i < 9; ++i)
        ASSERT_TRUE(peer.SendTo("", client));
    ASSERT_TRUE(peer.SendTo("again", client));
    ASSERT_TRUE(recorder->Await("data 1 again"));
    EXPECT_EQ(recorder->Count("disconnecting"), 0);
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(peer.SendTo("", client));
    ASSERT_TRUE(recorder->Await("released 1"));
    EXPECT_TRUE(log.Contains("ERROR SelectTransport::workerRoutine: client 1 receive error: 0"));
}

TEST_F(SelectUdp, DatagramTooLongIsAFailedSend) {
    start();
    open(Loopback(peer.Port()));
    std::string text(70000, 'x');
    EXPECT_TRUE(send(1, text));
    ASSERT_TRUE(recorder->Await("released 1"));
    EXPECT_EQ(recorder->Count("sent"), 0);
    expectErrors({"SelectTransport::workerRoutine: client 1 send error: 90"});
}

// A full table of buffers in the kernel is waited out.
TEST_F(SelectUdp, NoBufferSpaceIsNoFailure) {
    start();
    open(Loopback(peer.Port()));
    std::string text = "later";
    const FaultPlan plan(FaultKind::Send, 1, FaultPlan::Span::Once, ENOBUFS);
    EXPECT_TRUE(send(1, text));
    EXPECT_EQ(peer.ReceiveDatagram(), text);
}

TEST_F(SelectUdp, JoinsAGroupWhoseLastNumberSaysSo) {
    PosixPeer listener = PosixPeer::Bind(SOCK_DGRAM, "239.1.1.230");
    const ip_mreq membership{Loopback(0, "239.1.1.230").sin_addr, Loopback(0).sin_addr};
    if (::setsockopt(listener.Descriptor(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) !=
        0) {
        GTEST_SKIP() << "no groups on loopback here";
    }
    const int port = listener.Port();
    NetConnectionParameters parameters = udpParameters(port, Loopback(port, "239.1.1.230"));
    parameters.reuseAddress = true;
    std::atomic<int> socket{-1};
    recorder->connected = [&](NetClientContext* context) { socket = context->Socket(); };
    const auto optionOf = [&](int name) {
        int value = -1;
        socklen_t size = sizeof value;
        EXPECT_EQ(::getsockopt(socket, IPPROTO_IP, name, &value, &size), 0);
        return value;
    };
    start();
    ASSERT_TRUE(engine->Connect(parameters));
    ASSERT_TRUE(recorder->Await("connected 1"));
    // Both ways, and back to itself.
    peer.SetOption(IP_MULTICAST_IF, static_cast<int>(htonl(INADDR_LOOPBACK)), IPPROTO_IP);
    ASSERT_TRUE(peer.SendTo("to all", Loopback(port, "239.1.1.230")));
    EXPECT_TRUE(recorder->Await("data 1 to all"));
    EXPECT_EQ(listener.ReceiveDatagram(), "to all");
    std::string text = "from one";
    EXPECT_TRUE(send(1, text));
    EXPECT_EQ(listener.ReceiveDatagram(), text);
    EXPECT_TRUE(recorder->Await("data 1 from one"));
    EXPECT_EQ(optionOf(IP_MULTICAST_LOOP), 1);
    EXPECT_EQ(optionOf(IP_MULTICAST_TTL), 1);
    parameters.disableMulticastLoop = true;  // which a loopback interface does not heed
    ASSERT_TRUE(engine->Connect(parameters));
    ASSERT_TRUE(recorder->Await("connected 2"));
    EXPECT_EQ(optionOf(IP_MULTICAST_LOOP), 0);
    engine->DisconnectAll();
    EXPECT_FALSE(log.Contains("IP_DROP_MEMBERSHIP"));
}

// The test looks at the last number: a group below 224 is bound and never joined, and no group is asked for
// by an address that only ends like one.
TEST_F(SelectUdp, OtherGroupsAreNotJoined) {
    start();
    NetConnectionParameters bound = udpParameters(PosixPeer::FreePort(SOCK_DGRAM), Loopback(9, "239.1.1.1"));
    {
        const FaultPlan plan(FaultKind::SocketOption, 2);  // the first is IP_MULTICAST_ALL
        EXPECT_TRUE(engine->Connect(bound));
        EXPECT_FALSE(plan.Reached());
    }
    for (const auto& [address, isJoined] : {std::pair{"127.0.0.223", false},
                                            {"127.0.0.224", true},
                                            {"127.0.0.239", true},
                                            {"127.0.0.240", false},
                                            {"239.1.2.0", false}}) {
        NetConnectionParameters parameters = udpParameters(0, Loopback(9, address));
        EXPECT_EQ(engine->Connect(parameters), !isJoined) << address;
    }
    EXPECT_TRUE(log.Contains("ERROR SelectTransport::Connect: setsockopt(IP_ADD_MEMBERSHIP) failed: 22"));
    log.Clear();
    EXPECT_TRUE(recorder->Await("connected", 4));
}

TEST_F(SelectUdp, ContextsKnowWhatTheyWereMadeFrom) {
    std::atomic<int> socket{-1};
    recorder->connected = [&](NetClientContext* context) {
        const bool first = context->ClientId() == 1;
        EXPECT_EQ(context->LocalAddress().sin_family, first ? AF_UNSPEC : AF_INET);
        EXPECT_EQ(context->Option1(), first ? 0 : 1);
        EXPECT_EQ(context->Option3(), !first);
        EXPECT_EQ(context->HostName(), std::string(first ? 0 : 1024, 'h'));  // no zero: as long as it is
        EXPECT_EQ(context->ServerName(), first ? "" : "server");
        EXPECT_EQ(context->Parameters().userData, first ? 0 : 2);
        socket = context->Socket();
    };
    const auto sizeOf = [&](int name) {  // which the system doubles
        int size = 0;
        socklen_t length = sizeof size;
        EXPECT_EQ(::getsockopt(socket, SOL_SOCKET, name, &size, &length), 0);
        return size / 2;
    };
    PosixPeer server = PosixPeer::Bind(SOCK_STREAM);
    NetConnectionParameters parameters = parametersFor(IPPROTO_TCP, Loopback(server.Port()));
    parameters.localAddress = Loopback(7);  // not valid
    start();
    ASSERT_TRUE(engine->Connect(parameters));
    const PosixPeer accepted = server.Accept();
    parameters.hasLocalAddress = parameters.option3 = true;
    parameters.protocol = IPPROTO_UDP;
    parameters.localAddress = Loopback(0, "127.0.0.7");
    parameters.option1 = 1;
    parameters.userData = 2;
    std::memset(parameters.hostName, 'h', sizeof parameters.hostName);
    std::strcpy(parameters.serverName, "server");
    parameters.receiveBufferSize = 10'000;
    parameters.sendBufferSize = 20'000;
    ASSERT_TRUE(engine->Connect(parameters));
    ASSERT_TRUE(recorder->Await("connected 2"));
    EXPECT_EQ(sizeOf(SO_RCVBUF), 10'000);
    EXPECT_EQ(sizeOf(SO_SNDBUF), 20'000);
    parameters.receiveBufferSize = 30'000;
    parameters.sendBufferSize = 40'000;
    engine->Update(2, parameters);
    EXPECT_EQ(sizeOf(SO_RCVBUF), 30'000);
    EXPECT_EQ(sizeOf(SO_SNDBUF), 40'000);
}

}  // namespace
}  // namespace Mivra::Test
