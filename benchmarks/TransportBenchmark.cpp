// The socket engine beside libuv, Asio and plain loops around epoll and select, each on one thread, over
// loopback, with one client program for all, which is this thread: echoes over one connection and over 99 (a
// round of all of them), streams of packets to one client (64 KiB) and to 99 (1500 B), in wall time and in
// the processor time of all but the client, connections that come and go, and datagrams (1316 B) to a socket
// that nobody reads, beside send() and sendmmsg().

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "benchmarks/TransportPeers.h"
#include "mivra/mivra.h"

namespace {

using Mivra::Common::PacketBuffer;
using Mivra::Transport::NetClientContext;
using Mivra::Transport::NetConnectionParameters;
using Mivra::Transport::SelectTransport;

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// A plain blocking socket.
class Peer {
public:
    explicit Peer(int type) : fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {}
    Peer(Peer&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    ~Peer() {
        const linger atOnce{1, 0};  // leaves no port in its after-life
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        ::close(fd);
    }
    static Peer Connect(int port) {
        Peer peer(SOCK_STREAM);
        const sockaddr_in address = loopback(port);
        if (::connect(peer.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            std::abort();
        return peer;
    }
    static Peer Bind(int type) {
        Peer peer(type);
        const sockaddr_in address = loopback(0);
        ::bind(peer.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        return peer;
    }
    int Port() const {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
        return ntohs(address.sin_port);
    }
    bool Send(const void* data, std::size_t size) const {
        return ::send(fd, data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }
    bool Receive(char* data, std::size_t size) const {
        return ::recv(fd, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    }
    int fd;
};

// ---- Ours

class Notifications : public Mivra::Transport::NetNotitications {
public:
    Notifications(SelectTransport& transport, Service wanted, int packetSize)
        : engine(transport),
          service(wanted),
          memory(static_cast<std::size_t>(packetSize), 'p'),
          packet(new PacketBuffer(memory.data(), packetSize)) {}
    ~Notifications() override { packet->Release(); }
    void OnClientConnected(NetClientContext* context) override {
        if (service == Service::Close) engine.DisconnectClient(context->ClientId(), true);
    }
    void OnClientAccepted(NetClientContext*) override {}
    void OnClientDisconnecting(NetClientContext*) override {}
    void OnDataReceived(NetClientContext* context, PacketBuffer* received) override {
        if (service == Service::Echo) {
            engine.SendAsync(context->ClientId(), received);
        } else {
            Stream& stream = streams[context->ClientId()];
            if (received->ActualSize() == sizeof stream.left)
                std::memcpy(&stream.left, received->Buffer(), sizeof stream.left);
            pump(context->ClientId(), stream);
        }
    }
    void OnSendCompleted(NetClientContext* context, PacketBuffer*) override {
        if (service != Service::Stream) return;
        Stream& stream = streams[context->ClientId()];
        --stream.underWay;
        pump(context->ClientId(), stream);
    }
    void OnClientReleased(NetClientContext*) override {}

private:
    struct Stream {
        std::uint32_t left = 0;
        int underWay = 0;
    };
    void pump(unsigned int client, Stream& stream) {
        for (; stream.left > 0 && stream.underWay < kStreamWindow; --stream.left, ++stream.underWay)
            if (!engine.SendAsync(client, packet)) return;
    }

    SelectTransport& engine;
    const Service service;
    std::vector<char> memory;
    PacketBuffer* const packet;
    std::map<unsigned int, Stream> streams;
};

class MivraServer : public Server {
public:
    MivraServer(Service service, int packetSize) {
        auto* const notifications = new Notifications(engine, service, packetSize);
        engine.SetAllocator(65536, 128);
        port = Peer::Bind(SOCK_STREAM).Port();
        if (!engine.Start() || !engine.Listen("127.0.0.1", port, notifications, nullptr)) std::abort();
    }
    ~MivraServer() override { engine.Shutdown(); }
    int Port() const override { return port; }

private:
    SelectTransport engine;
    int port = 0;
};

std::unique_ptr<Server> makeMivraServer(Service service, int packetSize) {
    return std::make_unique<MivraServer>(service, packetSize);
}

// ---- Workloads

using Maker = std::unique_ptr<Server> (*)(Service, int);

std::vector<Peer> connectAll(int port, std::size_t count) {
    std::vector<Peer> peers;
    while (peers.size() < count)
        peers.push_back(Peer::Connect(port));
    return peers;
}

void echo(benchmark::State& state, Maker make, std::size_t size, std::size_t connections) {
    const auto server = make(Service::Echo, 1);
    const std::vector<Peer> peers = connectAll(server->Port(), connections);
    std::vector<char> data(size, 'e');
    for (auto _ : state) {
        for (const Peer& peer : peers)
            if (!peer.Send(data.data(), size)) return state.SkipWithError("not sent");
        for (const Peer& peer : peers)
            if (!peer.Receive(data.data(), size)) return state.SkipWithError("no echo");
    }
}

double processorSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    timespec own{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &own);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime) - static_cast<double>(own.tv_sec) -
           static_cast<double>(own.tv_nsec) * 1e-9;
}

/// Until all have read so many bytes.
bool readAll(const std::vector<Peer>& peers, std::size_t bytes) {
    static std::vector<char> s_room(1 << 18);
    std::vector<std::size_t> left(peers.size(), bytes);
    std::vector<pollfd> polled;
    for (const Peer& peer : peers)
        polled.push_back({peer.fd, POLLIN, 0});
    for (std::size_t open = peers.size(); open > 0;) {
        if (::poll(polled.data(), polled.size(), 10'000) <= 0) return false;
        for (std::size_t i = 0; i < polled.size(); ++i) {
            if (polled[i].revents == 0) continue;
            const ssize_t count = ::recv(polled[i].fd, s_room.data(), s_room.size(), MSG_DONTWAIT);
            if (count <= 0) return false;
            left[i] -= static_cast<std::size_t>(count);
            if (left[i] != 0) continue;
            polled[i].fd = -1;
            --open;
        }
    }
    return true;
}

/// 2^26 bytes to all together; the processor time is that of everything but this thread.
void stream(benchmark::State& state, Maker make, std::size_t size, std::size_t connections, bool processor) {
    const auto server = make(Service::Stream, static_cast<int>(size));
    const std::vector<Peer> peers = connectAll(server->Port(), connections);
    const auto packets = static_cast<std::uint32_t>((std::size_t{1} << 26) / size / connections);
    for (auto _ : state) {
        const double before = processorSeconds();
        for (const Peer& peer : peers)
            if (!peer.Send(&packets, sizeof packets)) return state.SkipWithError("not sent");
        if (!readAll(peers, packets * size)) return state.SkipWithError("not all came");
        if (processor) state.SetIterationTime(processorSeconds() - before);
    }
}

void connectAndClose(benchmark::State& state, Maker make) {
    const auto server = make(Service::Close, 1);
    for (auto _ : state) {
        const Peer peer = Peer::Connect(server->Port());
        char byte;
        if (::recv(peer.fd, &byte, 1, 0) != 0) return state.SkipWithError("not closed");
    }
}

constexpr std::uint32_t kDatagrams = 4096;
constexpr int kDatagram = 1316;
constexpr int kWindow = 64;

/// Keeps a window of datagrams under way until so many have gone.
class DatagramNotifications : public Mivra::Transport::NetNotitications {
public:
    DatagramNotifications(SelectTransport& transport, PacketBuffer* shared)
        : engine(transport), packet(shared) {}
    void OnClientConnected(NetClientContext*) override { ready = true, ready.notify_all(); }
    void OnClientAccepted(NetClientContext*) override {}
    void OnClientDisconnecting(NetClientContext*) override {}
    void OnDataReceived(NetClientContext*, PacketBuffer*) override {}
    void OnSendCompleted(NetClientContext* context, PacketBuffer*) override {
        if (toQueue > 0) {
            --toQueue;
            engine.SendAsync(context->ClientId(), packet);
        }
        if (--toGo == 0) toGo.notify_all();
    }
    void OnClientReleased(NetClientContext*) override {}
    void Run() {
        toQueue = kDatagrams - kWindow;
        toGo = kDatagrams;
        for (int i = 0; i < kWindow; ++i)
            engine.SendAsync(1, packet);
        for (std::uint32_t left = toGo; left != 0; left = toGo)
            toGo.wait(left);
    }
    std::atomic<bool> ready{false};

private:
    SelectTransport& engine;
    PacketBuffer* const packet;
    std::atomic<std::uint32_t> toQueue{0};
    std::atomic<std::uint32_t> toGo{0};
};

void datagramsMivra(benchmark::State& state) {
    const Peer sink = Peer::Bind(SOCK_DGRAM);
    std::vector<char> data(kDatagram, 'd');
    auto* const packet = new PacketBuffer(data.data(), kDatagram);
    SelectTransport engine;
    engine.SetAllocator(65536, 16);
    auto* const notifications = new DatagramNotifications(engine, packet);
    NetConnectionParameters parameters;
    parameters.protocol = IPPROTO_UDP;
    parameters.notifications = notifications;
    notifications->AddRef();
    parameters.remoteAddress = loopback(sink.Port());
    parameters.hasLocalAddress = true;
    parameters.localAddress = loopback(0);
    if (!engine.Start() || !engine.Connect(parameters)) return state.SkipWithError("not connected");
    notifications->ready.wait(false);
    for (auto _ : state)
        notifications->Run();
    engine.Shutdown();
    packet->Release();
}

void datagramsSend(benchmark::State& state, int atOnce) {
    const Peer sink = Peer::Bind(SOCK_DGRAM);
    const Peer from = Peer::Bind(SOCK_DGRAM);
    sockaddr_in to = loopback(sink.Port());
    std::vector<char> data(kDatagram, 'd');
    iovec piece{data.data(), data.size()};
    std::vector<mmsghdr> messages(static_cast<std::size_t>(atOnce));
    for (mmsghdr& message : messages)
        message.msg_hdr = {&to, sizeof to, &piece, 1, nullptr, 0, 0};
    for (auto _ : state) {
        for (std::uint32_t sent = 0; sent < kDatagrams;) {
            const int count = atOnce == 1
                                  ? ::sendto(from.fd, data.data(), data.size(), 0,
                                             reinterpret_cast<sockaddr*>(&to), sizeof to) == kDatagram
                                  : ::sendmmsg(from.fd, messages.data(), static_cast<unsigned>(atOnce), 0);
            if (count <= 0) return state.SkipWithError("not sent");
            sent += static_cast<std::uint32_t>(count);
        }
    }
}

const bool s_registered = [] {
    const std::pair<std::string, Maker> peers[] = {{"Mivra", makeMivraServer},
                                                   {"libuv", MakeUvServer},
                                                   {"Asio", MakeAsioServer},
                                                   {"epoll", MakeEpollServer},
                                                   {"select", MakeSelectServer}};
    for (const auto& [peer, make] : peers) {
        const auto add = [&peer = peer](const std::string& workload, const std::string& arguments,
                                        auto body) {
            return benchmark::RegisterBenchmark((workload + '/' + peer + arguments).c_str(), body)
                ->Unit(benchmark::kMicrosecond);
        };
        for (const std::size_t size : {64U, 1500U})
            for (const std::size_t connections : {1U, 99U})
                add("Echo", '/' + std::to_string(size) + '/' + std::to_string(connections),
                    [make = make, size, connections](benchmark::State& state) {
                        echo(state, make, size, connections);
                    })
                    ->UseRealTime();
        for (const bool processor : {false, true}) {
            const std::string what = processor ? "Cpu" : "";
            for (const auto& [name, size, clients] :
                 {std::tuple{"NetBulk", 65536U, 1U}, std::tuple{"FanOut", 1500U, 99U}}) {
                auto* const row = add(name + what, "", [=, make = make](benchmark::State& state) {
                    stream(state, make, size, clients, processor);
                });
                processor ? row->UseManualTime() : row->UseRealTime();
            }
        }
        add("ConnectClose", "", [make = make](benchmark::State& state) {
            connectAndClose(state, make);
        })->UseRealTime();
    }
    const auto datagrams = [](const char* name, auto body) {
        benchmark::RegisterBenchmark(name, body)->Unit(benchmark::kMicrosecond)->UseRealTime();
    };
    datagrams("Datagrams/Mivra", datagramsMivra);
    datagrams("Datagrams/send", [](benchmark::State& state) { datagramsSend(state, 1); });
    datagrams("Datagrams/sendmmsg", [](benchmark::State& state) { datagramsSend(state, 64); });
    return true;
}();

}  // namespace
