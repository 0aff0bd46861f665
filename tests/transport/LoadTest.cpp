// Many packets, many connections, many threads: nothing is lost, and everything goes back to where it was.

#include <malloc.h>
#include <sys/resource.h>

#include "tests/transport/LoadFixture.h"

namespace Mivra::Test {
namespace {

constexpr int kPacket = 1316;

class SelectLoad : public LoadFixture {
protected:
    /// Every packet to every client, at most so many on their way.
    void broadcast(const std::vector<unsigned int>& ids, std::int64_t packets) {
        constexpr std::uint64_t kAhead = 512;
        for (std::int64_t number = 0; number < packets; ++number) {
            const auto due = static_cast<std::uint64_t>(number);
            for (const unsigned int id : ids) {
                if (due >= kAhead && due % 64 == 0) {
                    ASSERT_TRUE(ledger->Await([&] { return ledger->Of(id).sentPackets + kAhead >= due; }));
                }
            }
            const auto made = packet(number, kPacket);
            for (const unsigned int id : ids)
                ASSERT_TRUE(ledger->Send(*engine, id, made.get())) << "packet " << number << " to " << id;
        }
    }
    void carry(int clients, std::int64_t packets) {
        start();
        std::vector<unsigned int> ids;
        const std::vector<PosixPeer> peers = accept(listen(), clients, ids);
        NetConnectionParameters narrow;  // so that packets go out in parts
        narrow.sendBufferSize = 100'000;
        for (const unsigned int id : ids)
            engine->Update(id, narrow);
        StreamReaders readers(peers, kPacket);
        std::thread reading([&] { readers.Run(packets); });
        broadcast(ids, packets);
        reading.join();
        EXPECT_EQ(readers.Bytes(), packets * clients * kPacket);
        for (const unsigned int id : ids) {
            EXPECT_TRUE(ledger->Await([&] { return ledger->Of(id).queued.empty(); }));
            EXPECT_EQ(ledger->Of(id).sentPackets, static_cast<std::uint64_t>(packets));
        }
    }
};

TEST_F(SelectLoad, EveryPacketReachesOneClient) {
    carry(1, LoadCount(50'000, 1'000'000));
}

TEST_F(SelectLoad, EveryPacketReachesEachOf99Clients) {
    carry(99, LoadCount(1'000, 1'000'000 / 99 + 1));
}

class SelectLatency : public SelectLoad {
protected:
    static constexpr int kReaders = 98;  // with the listener and the deaf one as many as an engine takes
    static constexpr int kRound = 100;   // packets

    /// How long 99 of 100 packets take at most to come in whole, in ms, when each goes to everybody as soon
    /// as all have the one before; to the deaf one, if any, first.
    double round(const std::vector<PosixPeer>& peers, const std::vector<unsigned int>& ids,
                 unsigned int deaf) {
        std::vector<double> latencies;
        for (int i = 0; i < kRound; ++i, ++number) {
            const auto made = packet(number, kPacket);
            const auto begin = std::chrono::steady_clock::now();
            if (deaf != 0) ledger->Send(*engine, deaf, made.get());
            for (const unsigned int id : ids)
                EXPECT_TRUE(ledger->Send(*engine, id, made.get()));
            StreamReaders readers(peers, kPacket, number, [&] {
                const std::chrono::duration<double, std::milli> time =
                    std::chrono::steady_clock::now() - begin;
                latencies.push_back(time.count());
            });
            readers.Run(1);
            if (latencies.size() != static_cast<std::size_t>(i + 1) * kReaders) {
                ADD_FAILURE() << "packet " << number << " came " << latencies.size() % kReaders << " times";
                return 1e9;
            }
        }
        const auto at = latencies.begin() + static_cast<std::ptrdiff_t>(latencies.size() * 99 / 100);
        std::nth_element(latencies.begin(), at, latencies.end());
        return *at;
    }
    /// One that never reads, with its socket full; what is sent to it from now on is refused, or is queued.
    PosixPeer connectDeaf(int port, bool queues) {
        NetConnectionParameters limit;
        limit.sendBufferSize = 10'000;
        limit.sendQueueLimit = 20 * kPacket;
        const unsigned int id = expectedId++;
        PosixPeer deaf = PosixPeer::Connect(port, 10'000);
        EXPECT_TRUE(ledger->Await([&] { return ledger->Of(id).connected; }));
        engine->Update(id, limit);
        const auto filling = packet(0, kPacket);
        std::uint64_t sent;
        do {
            sent = ledger->Of(id).sentPackets;
            while (ledger->Send(*engine, id, filling.get())) {
            }
        } while (ledger->Await([&] { return ledger->Of(id).sentPackets != sent; }, 20));
        if (queues) {
            limit.sendQueueLimit = INT32_MAX;
            engine->Update(id, limit);
        }
        return deaf;
    }

    std::int64_t number = 0;
};

// In turn without it and with it, for as long as the machine's other business blurs the best rounds.
TEST_F(SelectLatency, OneThatNeverReadsHoldsUpNobody) {
    constexpr double kFactor = 3;
    constexpr double kMilliseconds = 5;
    constexpr int kMostRounds = 40;
    const int rounds = LoadCount(8, 100);
    start();
    const int port = listen();
    std::vector<unsigned int> ids;
    const std::vector<PosixPeer> peers = accept(port, kReaders, ids);
    double without = 1e9;
    double with[2] = {1e9, 1e9};  // refused, queued
    const auto isHeldUp = [&] { return std::max(with[0], with[1]) > without * kFactor + kMilliseconds; };
    for (int i = 0; !HasFailure() && (i < rounds || (isHeldUp() && i < kMostRounds)); ++i) {
        without = std::min(without, round(peers, ids, 0));
        const bool queues = i % 2 != 0;
        const unsigned int id = expectedId;
        PosixPeer deaf = connectDeaf(port, queues);
        with[queues] = std::min(with[queues], round(peers, ids, id));
        deaf.Reset();
        EXPECT_TRUE(ledger->Await([&] { return ledger->Of(id).released; }));
    }
    EXPECT_FALSE(isHeldUp());
    RecordProperty("without_ms", std::to_string(without));
    RecordProperty("refused_ms", std::to_string(with[0]));
    RecordProperty("queued_ms", std::to_string(with[1]));
}

TEST_F(SelectLoad, HandlersOfTwoWorkersSendToEachOthersClients) {
    constexpr int kPairs = 4;
    const int packets = LoadCount(2'000, 20'000);
    // Clients of one pair stand with different workers; what one gets, its partner sends.
    ledger->data = [&](NetClientContext* context, PacketBuffer* received) {
        const unsigned int id = context->ClientId();
        EXPECT_TRUE(engine->SendAsync(id % 2 == 0 ? id + 1 : id - 1, received));
    };
    start(2);
    std::vector<unsigned int> ids;
    const std::vector<PosixPeer> peers = accept(listen(), kPairs * 2, ids);
    NetConnectionParameters limit;
    limit.sendQueueLimit = INT32_MAX;
    for (const unsigned int id : ids)
        engine->Update(id, limit);
    StreamReaders readers(peers, kPacket);
    std::thread reading([&] { readers.Run(packets); });
    std::vector<std::thread> writing;
    for (const PosixPeer& peer : peers) {
        writing.emplace_back([&peer, packets] {
            for (int number = 0; number < packets; ++number)
                ASSERT_EQ(::send(peer.Descriptor(), Pattern(number), kPacket, MSG_NOSIGNAL), kPacket);
        });
    }
    for (std::thread& thread : writing)
        thread.join();
    reading.join();
    EXPECT_EQ(readers.Bytes(), std::int64_t{packets} * kPairs * 2 * kPacket);
}

TEST_F(SelectLoad, DatagramsComeAndGo) {
    constexpr int kWindow = 32;
    const int rounds = LoadCount(20'000, 100'000) / kWindow;
    const PosixPeer peer = PosixPeer::Bind(SOCK_DGRAM);
    ledger->data = [&](NetClientContext* context, PacketBuffer* received) {
        EXPECT_EQ(ntohs(received->RemoteAddr().sin_port), peer.Port());
        EXPECT_TRUE(engine->SendAsync(context->ClientId(), received));
    };
    start();
    NetConnectionParameters parameters;
    parameters.protocol = IPPROTO_UDP;
    parameters.notifications = ledger.get();
    ledger->AddRef();
    parameters.remoteAddress = Loopback(peer.Port());
    parameters.hasLocalAddress = true;
    parameters.localAddress = Loopback(PosixPeer::FreePort(SOCK_DGRAM));
    ASSERT_TRUE(engine->Connect(parameters));
    std::int64_t sent = 0;
    std::int64_t back = 0;
    for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < kWindow; ++i, ++sent) {
            ASSERT_EQ(
                ::sendto(peer.Descriptor(), Pattern(sent), kPacket, 0,
                         reinterpret_cast<const sockaddr*>(&parameters.localAddress), sizeof(sockaddr_in)),
                kPacket);
        }
        for (; back < sent; ++back) {
            char room[kPacket + 1];
            ASSERT_TRUE(peer.IsReady()) << "datagram " << back << " was lost";
            ASSERT_EQ(::recv(peer.Descriptor(), room, sizeof room, 0), kPacket);
            ASSERT_EQ(std::memcmp(room, Pattern(back), kPacket), 0) << "datagram " << back;
        }
    }
    EXPECT_TRUE(ledger->Await([&] { return ledger->Of(1).sentPackets == static_cast<std::uint64_t>(sent); }));
}

// By the peer in order and not, and out of each handler.
TEST_F(SelectLoad, ConnectionsThatEndLeaveNothingBehind) {
    enum End { PeerCloses, PeerResets, InConnected, InData, InSent, Quietly, Asynchronously, Ends };
    const int rounds = LoadCount(100, 20'000 / Ends + 1);
    std::atomic<int> end{0};
    const auto endIn = [&](int handler) {
        return [&, handler](NetClientContext* context, auto*...) {
            if (end == handler) engine->DisconnectClient(context->ClientId(), true);
        };
    };
    ledger->connected = endIn(InConnected);
    ledger->data = [&](NetClientContext* context, PacketBuffer* received) {
        endIn(InData)(context);
        engine->SendAsync(context->ClientId(), received);
    };
    ledger->sent = endIn(InSent);
    start(2);
    const int port = listen();
    const auto live = [&] {
        const unsigned int id = expectedId++;
        PosixPeer peer = PosixPeer::Connect(port);
        ASSERT_TRUE(ledger->Await([&] { return ledger->Of(id).connected; }));
        if (end == InData || end == InSent) {
            ASSERT_TRUE(peer.Send("text"));
        } else if (end == PeerCloses) {
            peer.Close();
        } else if (end == PeerResets) {
            peer.Reset();
        } else if (end == Quietly || end == Asynchronously) {
            engine->DisconnectClientAsync(id, end == Asynchronously);
        }
        if (end == Quietly) {
            EXPECT_EQ(peer.ReceiveEnd(), 0);
            ledger->Forget(id);
        } else {
            ASSERT_TRUE(ledger->Await([&] { return ledger->Of(id).released; })) << "end " << end;
            ledger->Forget(id);
        }
    };
    std::size_t memory = 0;
    int open = 0;
    for (int round = 0; round < rounds && !HasFatalFailure(); ++round) {
        if (round == 10) {
            memory = ::mallinfo2().uordblks;
            open = descriptors();
        }
        for (end = 0; end < Ends && !HasFatalFailure(); ++end)
            live();
    }
    end = Ends;
    PosixPeer last = PosixPeer::Connect(port);  // behind everything that was left to the workers
    ASSERT_TRUE(ledger->Await([&] { return ledger->Of(expectedId).connected; }));
    last.Reset();
    ASSERT_TRUE(ledger->Await([&] { return ledger->Of(expectedId).released; }));
    if (rounds <= 10) return;
    EXPECT_EQ(descriptors(), open);
    if (!kSanitized) {
        EXPECT_NEAR(static_cast<double>(::mallinfo2().uordblks), static_cast<double>(memory), 65536);
    }
}

TEST_F(SelectLoad, PacketsForAListenerWaitForItsEnd) {
    start();
    const int port = listen();
    EXPECT_TRUE(engine->SendAsync(1, packet(1, kPacket).get()));
    std::vector<unsigned int> ids;
    const std::vector<PosixPeer> peers = accept(port, 2, ids);
    EXPECT_EQ(pool.FreeBufferCount(), pool.BufferCount() - 1);
    EXPECT_TRUE(engine->StopListen(port));
}

TEST_F(SelectLoad, DescriptorsBeyondTheSetsOfSelect) {
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit former = limit;
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 1400);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0) << "no 1400 descriptors here";
    {
        std::vector<PosixPeer> filling;
        while (filling.empty() || filling.back().Descriptor() < FD_SETSIZE + 100)
            filling.emplace_back(::dup(STDERR_FILENO));
        ledger->data = [&](NetClientContext* context, PacketBuffer* received) {
            EXPECT_GE(context->Socket(), FD_SETSIZE);
            EXPECT_TRUE(engine->SendAsync(context->ClientId(), received));
        };
        start();
        std::vector<unsigned int> ids;
        std::vector<PosixPeer> peers = accept(listen(), 99, ids);
        for (int round = 0; round < 3; ++round) {
            for (PosixPeer& peer : peers)
                ASSERT_TRUE(peer.Send("echo"));
            for (PosixPeer& peer : peers)
                ASSERT_EQ(peer.Receive(4), "echo");
        }
        // Out of band, which is looked at socket by socket.
        ASSERT_EQ(::send(peers[0].Descriptor(), "!", 1, MSG_OOB), 1);
        EXPECT_TRUE(ledger->Await([&] { return ledger->Of(ids[0]).released; }));
        EXPECT_EQ(ledger->Open(), 98);
        engine->Shutdown();
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
}

TEST_F(SelectLoad, ShutdownInTheMiddleOfTrafficAndStartAgain) {
    const int lives = LoadCount(6, 200);
    ledger->data = [&](NetClientContext* context, PacketBuffer* received) {
        engine->SendAsync(context->ClientId(), received);
    };
    for (int life = 0; life < lives; ++life) {
        start(1 + life % 3);
        const int port = listen();
        const auto first = static_cast<unsigned int>(ledger->Connects());
        std::vector<PosixPeer> peers;
        for (int i = 0; i < 6; ++i)
            peers.push_back(PosixPeer::Connect(port));
        ASSERT_TRUE(ledger->Await([&] { return ledger->Connects() == static_cast<int>(first) + 6; }));
        const unsigned int newest = static_cast<unsigned int>(ledger->Connects() + life + 1);
        std::atomic<bool> ended{false};
        std::vector<std::thread> threads;
        for (unsigned int sender = 0; sender < 2; ++sender) {
            threads.emplace_back([&, sender] {
                for (unsigned int i = sender; !ended; ++i)
                    engine->SendAsync(newest - i % 6, packet(i, kPacket).get());
            });
        }
        threads.emplace_back([&] {
            char room[4096];
            for (std::size_t i = 0; !ended; ++i) {
                const PosixPeer& peer = peers[i % peers.size()];
                ::send(peer.Descriptor(), "question", 8, MSG_NOSIGNAL | MSG_DONTWAIT);
                ::recv(peer.Descriptor(), room, sizeof room, MSG_DONTWAIT);
            }
        });
        threads.emplace_back([&] {
            ledger->Await([&] { return ledger->Of(newest).sentPackets > 20; }, 1000);
            engine->DisconnectClient(newest, true);
            engine->Shutdown();
        });
        const auto isDue = [&] {
            const Ledger::Life last = ledger->Of(newest - 1);
            return last.sentPackets > 30 || last.released;
        };
        ledger->Await(isDue, 1000);
        engine->Shutdown();
        EXPECT_EQ(ledger->Open(), 0);
        ended = true;
        for (std::thread& thread : threads)
            thread.join();
    }
    EXPECT_EQ(ledger->Releases(), lives * 6);
}

}  // namespace
}  // namespace Mivra::Test
