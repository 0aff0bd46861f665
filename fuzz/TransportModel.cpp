// A sequence of calls of the select engine, of what its peers do and of socket calls that fail, beside a
// model of its clients: each life is told in order and once, what is queued comes out, every packet comes
// back. Until a call is made to fail the model is exact; from then on until the next start it asks for the
// order and the accounts alone.

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "fuzz/OperationSource.h"
#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/platform/System.h"
#include "mivra/transport/select/SelectTransport.h"
#include "tests/transport/Ledger.h"

namespace {

using namespace Mivra::Transport;
using Mivra::Common::PacketBuffer;
using Mivra::Common::Reference;
using Mivra::Platform::g_system;
using Mivra::Platform::SystemTable;
using Mivra::Test::Ledger;

// The call that fails: of one kind, after so many others, once.
std::atomic<int> s_failing{-1};
std::atomic<int> s_before{0};
std::atomic<int> s_error{0};

bool fails(int kind) {
    if (s_failing.load() != kind || s_before.fetch_sub(1) != 0) return false;
    s_failing = -1;
    errno = s_error;
    return true;
}

template <int kind, auto entry>
struct Stand;

template <int kind, typename Result, typename... Arguments, Result (*SystemTable::*entry)(Arguments...)>
struct Stand<kind, entry> {
    static Result call(Arguments... arguments) { return fails(kind) ? -1 : s_real(arguments...); }
    static void install() { s_real = std::exchange(g_system.*entry, call); }
    static inline Result (*s_real)(Arguments...) = nullptr;
};

constexpr int kKinds = 10;
constexpr int kErrors[] = {EAGAIN, EINTR, ENOBUFS, ECONNRESET, EMFILE, ENOMEM, ECONNREFUSED, EPIPE, EINVAL};

const bool s_installed = [] {
    using T = SystemTable;
    Stand<0, &T::receive>::install();
    Stand<0, &T::receiveFrom>::install();
    Stand<1, &T::send>::install();
    Stand<1, &T::sendMessage>::install();
    Stand<1, &T::sendMessages>::install();
    Stand<2, &T::acceptSocket>::install();
    Stand<3, &T::connectSocket>::install();
    Stand<4, &T::createSocket>::install();
    Stand<5, &T::setSocketOption>::install();
    Stand<6, &T::awaitWatchSet>::install();
    Stand<7, &T::selectSockets>::install();
    Stand<8, &T::peerName>::install();
    Stand<9, &T::changeWatchSet>::install();
    return true;
}();

bool within(int milliseconds, const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    return true;
}

/// Waits for what must come.
void settle(const std::function<bool()>& condition) {
    Require(within(10'000, condition));
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// A plain socket, bound to a free port.
class Peer {
public:
    explicit Peer(int type) : fd(::socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        const sockaddr_in any = loopback(0);
        Require(::bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0);
    }
    static Peer Of(int descriptor) { return Peer(descriptor, 0); }
    Peer(Peer&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Peer& operator=(Peer&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~Peer() { Close(false); }
    void Close(bool reset) {
        if (fd == -1) return;
        const linger atOnce{1, 0};
        if (reset) ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        ::close(std::exchange(fd, -1));
    }
    int Port() const {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        Require(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0);
        return ntohs(address.sin_port);
    }
    int Descriptor() const { return fd; }

private:
    Peer(int descriptor, int) : fd(descriptor) {}
    int fd;
};

// What a peer asks for with a byte.
enum Command : unsigned char { Nothing, Echo, Disconnect, DisconnectSoon, Throw, Commands };

struct Client {
    unsigned int id;
    Peer peer;
    int enginePort = 0;  // of a datagram client; else 0
    bool deaf = false;   // its peer does not read
    bool limited = false;
    bool ended = false;
    std::uint64_t toPeer = 0;
    std::uint64_t fromPeer = 0;
    std::uint64_t read = 0;
    int emptyInARow = 0;
};

class TransportRun {
public:
    explicit TransportRun(OperationSource& from) : operations(from) {
        ledger->connected = [this](NetClientContext* context) {
            const int token = context->Parameters().userData;
            newest = {token != 0 ? token : ntohs(context->RemoteAddress().sin_port), context->ClientId()};
        };
        ledger->data = [this](NetClientContext* context, PacketBuffer* packet) {
            obey(context, packet->Buffer()[packet->ActualSize() - 1]);
        };
        start();
    }
    ~TransportRun() {
        engine.Shutdown();
        account();
        Require(ledger->GetRefCount() == 1);
    }

    void Step() {
        switch (operations.Small() % 14) {
            case 0:
                return listen();
            case 1:
                return connectDatagrams();
            case 2:
                return connectStream();
            case 3:
                return disconnect();
            case 4:
                return endPeer();
            case 5:
                return operations.Flag() ? restart() : change();
            case 6:
                return arm();
            case 7:
            case 8:
                return accept();
            case 9:
            case 10:
                return command();
            default:
                return send();
        }
    }
    void Check() {
        Require(ledger->Wrongs().empty());
        for (Client& client : clients)
            check(client);
    }

private:
    struct alignas(8) Newest {  // in one piece
        int token;
        unsigned int id;
    };

    void start() {
        s_failing = -1;
        exact = true;
        listening = 0;
        engine.SetAllocator(4096, 4);
        engine.SetWorkerCount(1 + operations.Small() % 3);
        Require(engine.Start());
    }
    void restart() {
        engine.Shutdown();
        clients.clear();
        idsKnown = idsKnown && exact;
        account();
        start();
    }
    void account() {
        Require(ledger->Open() == 0 && ledger->Wrongs().empty());
        Require(pool.FreeBufferCount() == pool.BufferCount());
    }
    void arm() {
        exact = false;
        s_failing = -1;
        s_before = operations.Small() % 6;
        s_error = kErrors[static_cast<std::size_t>(operations.Small()) % std::size(kErrors)];
        s_failing = operations.Small() % kKinds;
    }
    void listen() {
        if (listening != 0) {
            Require(!engine.Listen("127.0.0.1", listening, ledger.get(), nullptr) || !exact);
            Require(engine.StopListen(listening) || !exact);
            Require(!engine.StopListen(std::exchange(listening, 0)));
            return;
        }
        const int port = Peer(SOCK_STREAM).Port();
        const bool open = engine.Listen("127.0.0.1", port, ledger.get(), nullptr);
        Require(open || !exact);
        if (!open) return;
        ++ids;
        listening = port;
    }
    void accept() {
        if (listening == 0) return;
        Peer peer(SOCK_STREAM);
        const sockaddr_in address = loopback(listening);
        const int port = peer.Port();
        newest = {0, 0};  // ports come again
        if (::connect(peer.Descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
            errno != EINPROGRESS) {
            Require(!exact);
            return;
        }
        enter(port, std::move(peer), 0);
    }
    void connectStream() {
        Peer door(SOCK_STREAM);
        Require(::listen(door.Descriptor(), 1) == 0);
        NetConnectionParameters parameters = parametersFor(IPPROTO_TCP, door.Port());
        const bool open = engine.Connect(parameters);
        Require(open || !exact);
        pollfd one{door.Descriptor(), POLLIN, 0};
        ::poll(&one, 1, open && exact ? 10'000 : 0);
        Peer peer = Peer::Of(::accept4(door.Descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (open) enter(parameters.userData, std::move(peer), 0);
    }
    void connectDatagrams() {
        Peer peer(SOCK_DGRAM);
        NetConnectionParameters parameters = parametersFor(IPPROTO_UDP, peer.Port());
        const int port = Peer(SOCK_DGRAM).Port();
        parameters.hasLocalAddress = true;
        parameters.localAddress = loopback(port);
        const bool open = engine.Connect(parameters);
        Require(open || !exact);
        if (open) enter(parameters.userData, std::move(peer), port);
    }
    NetConnectionParameters parametersFor(int protocol, int port) {
        NetConnectionParameters parameters;
        parameters.protocol = protocol;
        parameters.remoteAddress = loopback(port);
        parameters.userData = 100'000 + ++tokens;
        parameters.notifications = ledger.get();
        ledger->AddRef();
        return parameters;
    }
    /// A client whose OnClientConnected must come.
    void enter(int token, Peer peer, int enginePort) {
        const bool come = within(exact ? 10'000 : 20, [&] { return newest.load().token == token; });
        Require(come || !exact);
        if (!come) return;
        const unsigned int id = newest.load().id;
        ++ids;
        Require(!exact || !idsKnown || id == ids);
        idsKnown = exact;
        ids = id;
        clients.push_back({.id = id, .peer = std::move(peer), .enginePort = enginePort});
    }
    Client* pick() {
        const auto number = static_cast<std::size_t>(operations.Small());
        return clients.empty() ? nullptr : &clients[number % clients.size()];
    }

    void send() {
        Client* const client = pick();
        if (client == nullptr) {
            Require(!engine.SendAsync(12345, nullptr));
            return;
        }
        for (int count = 1 + operations.Small() % 12; count > 0; --count) {
            const auto packet = Reference<PacketBuffer>::Adopt(pool.LockBuffer(false));
            if (!packet) return;
            packet->ActualSize() = 1 + operations.Small() * 5;
            std::memset(packet->Buffer(), markOf(*client), static_cast<std::size_t>(packet->ActualSize()));
            const bool queued = ledger->Send(engine, client->id, packet.get());
            Require(!exact || (client->ended ? !queued : queued || client->deaf || client->limited));
            if (queued) client->toPeer += static_cast<std::uint64_t>(packet->ActualSize());
        }
    }
    static unsigned char markOf(const Client& client) {
        return static_cast<unsigned char>(client.id * 37 + 1);
    }

    void command() {
        Client* const client = pick();
        if (client == nullptr || client->peer.Descriptor() == -1) return;
        auto byte = static_cast<unsigned char>(operations.Small() % (Commands + 1));
        if (!exact && byte == Echo) byte = Nothing;
        if (byte == Commands) {
            client->deaf = true;
        } else if (client->enginePort == 0) {
            const bool went = ::send(client->peer.Descriptor(), &byte, 1, MSG_NOSIGNAL) == 1;
            Require(went || client->ended || !exact);
            if (!client->ended) heard(*client, byte);
        } else {
            datagram(*client, byte);
        }
    }
    /// One datagram of a byte, or some of none, the tenth of which in a row ends the client.
    void datagram(Client& client, unsigned char byte) {
        const int empty = byte == Throw ? 1 + operations.Small() % 12 : 0;
        const sockaddr_in address = loopback(client.enginePort);
        for (int i = 0; i < std::max(empty, 1); ++i) {
            Require(::sendto(client.peer.Descriptor(), &byte, empty == 0 ? 1 : 0, 0,
                             reinterpret_cast<const sockaddr*>(&address), sizeof address) >= 0);
        }
        if (client.ended) return;
        client.emptyInARow = empty == 0 ? 0 : client.emptyInARow + empty;
        if (client.emptyInARow >= 10) client.ended = true;
        if (empty == 0) heard(client, byte);
    }
    static void heard(Client& client, unsigned char byte) {
        ++client.fromPeer;
        if (byte == Echo) ++client.toPeer;
        if (byte == Disconnect || byte == DisconnectSoon) client.ended = true;
    }
    void obey(NetClientContext* context, char byte) {
        const unsigned int id = context->ClientId();
        if (byte == Disconnect) engine.DisconnectClient(id, true);
        if (byte == DisconnectSoon) engine.DisconnectClientAsync(id, true);
        if (byte == Throw) throw std::runtime_error("out of a handler");
        if (byte != Echo) return;
        const auto packet = Reference<PacketBuffer>::Adopt(pool.LockBuffer(false));
        if (!packet) return;
        packet->ActualSize() = 1;
        packet->Buffer()[0] = static_cast<char>(id * 37 + 1);
        ledger->Send(engine, id, packet.get());
    }
    void disconnect() {
        Client* const client = pick();
        if (client == nullptr) return engine.DisconnectClient(54321, true);
        const bool soon = operations.Flag();
        const bool told = operations.Flag() || !exact || client->ended;
        soon ? engine.DisconnectClientAsync(client->id, told) : engine.DisconnectClient(client->id, told);
        if (client->ended) return;
        client->ended = true;
        if (told) return;
        // Nobody says so; but its packets are refused.
        settle([&] {
            const auto packet = Reference<PacketBuffer>::Adopt(pool.LockBuffer(false));
            packet->ActualSize() = 1;
            return !engine.SendAsync(client->id, packet.get());
        });
        Require(!ledger->Of(client->id).disconnecting);
        ledger->Forget(client->id);
        clients.erase(clients.begin() + (client - clients.data()));
    }
    void endPeer() {
        Client* const client = pick();
        if (client == nullptr || client->enginePort != 0) return;
        client->peer.Close(operations.Flag());
        client->ended = true;
    }
    void change() {
        Client* const client = pick();
        sockaddr_in address = loopback(1);
        if (client == nullptr) return Require(!engine.SetRemoteFilter(4321, address));
        NetConnectionParameters limit;
        limit.sendQueueLimit = operations.Small() * 16;
        engine.Update(client->id, limit);
        client->limited = true;
        if (client->enginePort == 0) return;
        address.sin_port = htons(static_cast<std::uint16_t>(client->peer.Port()));
        Require(engine.SetRemoteFilter(client->id, address) == !client->ended || !exact);
    }

    void check(Client& client) {
        if (!exact) {
            drain(client);
            return;
        }
        if (client.ended) {
            settle([&] { return ledger->Of(client.id).released; });
            drain(client);
            return;
        }
        settle([&] {
            const Ledger::Life life = ledger->Of(client.id);
            if (!client.deaf) drain(client);
            return life.receivedBytes == client.fromPeer &&
                   (client.deaf || (life.queued.empty() && client.read == client.toPeer));
        });
        Require(!ledger->Of(client.id).disconnecting);
    }
    /// What has come is the client's, and not more than was queued.
    void drain(Client& client) {
        char room[8192];
        while (client.peer.Descriptor() != -1) {
            const ssize_t count = ::recv(client.peer.Descriptor(), room, sizeof room, 0);
            if (count <= 0) break;
            client.read += static_cast<std::uint64_t>(count);
            Require(std::all_of(room, room + count, [&](char byte) {
                return static_cast<unsigned char>(byte) == markOf(client);
            }));
        }
        Require(client.read <= client.toPeer);
    }

    OperationSource& operations;
    Mivra::Common::DefaultPacketBufferAllocator pool{1500, 64, true, 20.0F};
    Reference<Ledger> ledger = Ledger::Make();
    SelectTransport engine;
    std::atomic<Newest> newest{Newest{0, 0}};
    // The model.
    bool exact = true;
    int listening = 0;
    int tokens = 0;
    unsigned int ids = 0;  // the latest
    bool idsKnown = true;
    std::vector<Client> clients;
};

int descriptors() {
    int open = 0;
    for (int fd = 0; fd < 256; ++fd)
        open += ::fcntl(fd, F_GETFD) != -1;
    return open;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    OperationSource operations(data, size);
    const int before = descriptors();
    {
        TransportRun run(operations);
        for (int steps = 0; !operations.AtEnd() && steps < 40; ++steps) {
            run.Step();
            run.Check();
        }
    }
    Require(descriptors() == before);
    return 0;
}
