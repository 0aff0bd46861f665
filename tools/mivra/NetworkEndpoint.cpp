#include "tools/mivra/NetworkEndpoint.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <system_error>
#include <thread>

#include "tools/mivra/Interrupt.h"
#include "tools/mivra/ProblemError.h"

namespace Mivra::Tool {
namespace {

using Common::PacketBuffer;
using Transport::NetClientContext;

constexpr int kDatagramBuffer = 4 << 20;  // of the socket; the system gives what it allows
constexpr std::chrono::seconds kAdoption{5};
constexpr std::chrono::milliseconds kLook{50};

std::string errorMessage(int number) {
    return std::generic_category().message(number);
}

/// A connection that its peer has broken off, rather than closed after its last byte.
bool isReset(int socket) {
    tcp_info info{};
    socklen_t size = sizeof(info);
    return ::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 && info.tcpi_state == TCP_CLOSE;
}

/// What the engine takes for a group, by the last number of the address.
bool looksLikeGroup(const sockaddr_in& address) {
    const unsigned last = ntohl(address.sin_addr.s_addr) & 0xFFU;
    return last >= 224 && last <= 239;
}

}  // namespace

/// Passes on what the engine tells; its contexts may hold it longer than the endpoint lives.
class NetworkEndpoint::Events : public Transport::NetNotitications {
public:
    explicit Events(NetworkEndpoint& to) : owner(to) {}

    void OnClientConnected(NetClientContext* context) override {
        owner.prepare(*context);
        owner.clients->Add(context->ClientId(), context->RemoteAddress());
        owner.handler.Connected(context->ClientId());
        {
            const std::lock_guard hold(owner.gate);
            owner.settled = true;
        }
        owner.gateChanged.notify_all();
    }
    void OnClientAccepted(NetClientContext*) override {}
    void OnClientDisconnecting(NetClientContext* context) override {
        if (owner.address.kind != NetworkAddress::Kind::Udp && isReset(context->Socket())) {
            owner.handler.Reset(context->ClientId());
        }
    }
    void OnDataReceived(NetClientContext* context, PacketBuffer* packet) override {
        owner.clients->Received(context->ClientId(), packet->ActualSize());
        owner.handler.Received(context->ClientId(), *packet);
    }
    // The packet may be on its way with other bytes already: what it was stands in the table.
    void OnSendCompleted(NetClientContext* context, PacketBuffer*) override {
        owner.handler.Sent(context->ClientId(), owner.clients->Sent(context->ClientId()));
    }
    void OnClientReleased(NetClientContext* context) override {
        if (owner.clients->Remove(context->ClientId())) {
            owner.handler.Gone(context->ClientId());
        }
    }

private:
    NetworkEndpoint& owner;
};

NetworkEndpoint::NetworkEndpoint(const NetworkAddress& where, Use what, INetworkHandler& to, int receiveBytes,
                                 int receiveBuffers, NetworkBoard* on)
    : address(where), use(what), handler(to), board(on), clients(std::make_shared<ClientTable>()) {
    events = Common::Reference<Events>(new Events(*this));
    engine->SetAllocator(receiveBytes, receiveBuffers);
    if (board != nullptr) {
        board->Add(clients);
    }
}

NetworkEndpoint::~NetworkEndpoint() {
    engine->Shutdown();
}

void NetworkEndpoint::fail(const std::string& why, const std::string& remedy) const {
    const char* const what = use == Use::Read ? "cannot open the input: " : "cannot open the output: ";
    throw ProblemError(ExitCode::CannotOpen, {what + why, address.text, remedy});
}

bool NetworkEndpoint::IsOver() const {
    return board != nullptr ? board->IsEnding() : Interrupt::IsRequested();
}

/// Has a thread do what may take long and cannot be broken off; when it is over before, it is left to itself,
/// and so may touch nothing but its own.
template <typename Task>
auto NetworkEndpoint::await(Task task) const {
    std::packaged_task<decltype(task())()> work(std::move(task));
    auto outcome = work.get_future();
    std::thread thread;
    try {
        thread = std::thread(std::move(work));
    } catch (const std::system_error&) {
        fail("no thread or memory for it", "are the limits of the system too low?");
    }
    while (outcome.wait_for(kLook) != std::future_status::ready) {
        if (IsOver()) {
            thread.detach();
            fail("the wait for it was ended", use == Use::Read ? "nothing was read" : "nothing was written");
        }
    }
    thread.join();
    return outcome.get();
}

void NetworkEndpoint::Open() {
    resolved = await([where = address] { return where.Resolve(); });
    if (!engine->Start()) {
        fail("no thread or memory for it", "are the limits of the system too low?");
    }
    switch (address.kind) {
        case NetworkAddress::Kind::TcpListen: {
            char dotted[INET_ADDRSTRLEN] = "";
            ::inet_ntop(AF_INET, &resolved.sin_addr, dotted, sizeof(dotted));
            if (!engine->Listen(dotted, address.port, events.get(), nullptr)) {
                fail("nobody may listen there", "is the port in use, or the address another machine's?");
            }
            return;
        }
        case NetworkAddress::Kind::Tcp:
            connectTcp();
            break;
        case NetworkAddress::Kind::Udp:
            openUdp();
            break;
    }
    awaitConnected();
}

void NetworkEndpoint::connectTcp() {
    Transport::NetConnectionParameters parameters;
    parameters.notifications = events.get();
    events->AddRef();
    parameters.protocol = IPPROTO_TCP;
    parameters.remoteAddress = resolved;
    if (!await([own = engine, parameters]() mutable { return own->Connect(parameters); })) {
        fail("nobody listens there", "start the other side first");
    }
}

bool NetworkEndpoint::isJoinedByEngine() const {
    return address.IsGroup(resolved) && looksLikeGroup(resolved);
}

void NetworkEndpoint::openUdp() {
    const bool group = address.IsGroup(resolved);
    Transport::NetConnectionParameters parameters;
    parameters.notifications = events.get();
    events->AddRef();
    parameters.protocol = IPPROTO_UDP;
    parameters.hasLocalAddress = true;
    parameters.localAddress.sin_family = AF_INET;
    parameters.localAddress.sin_addr = address.interfaceAddress;
    if (use == Use::Read) {
        parameters.localAddress.sin_port = resolved.sin_port;
        parameters.reuseAddress = group;  // a group has many listeners
        parameters.receiveBufferSize = kDatagramBuffer;
        if (!group || !isJoinedByEngine()) {
            parameters.localAddress.sin_addr = resolved.sin_addr;
        }
    } else {
        parameters.sendBufferSize = kDatagramBuffer;
    }
    // A peer that the engine would take for a group gets its address once the socket is there.
    if (group ? isJoinedByEngine() || use == Use::Write : use == Use::Write && !looksLikeGroup(resolved)) {
        parameters.remoteAddress = resolved;
    }
    if (!engine->Connect(parameters)) {
        fail(group ? "the group cannot be joined there" : "the address cannot be used",
             use == Use::Read ? "is the port in use, or the address another machine's?"
                              : "is the interface one of this machine's?");
    }
}

/// On the engine's thread, before anybody else knows the connection.
void NetworkEndpoint::prepare(NetClientContext& context) {
    if (address.kind == NetworkAddress::Kind::Udp) {
        prepareUdp(context);
    } else if (address.kind == NetworkAddress::Kind::Tcp) {
        sockaddr_in peer{};
        socklen_t size = sizeof(peer);
        if (::getpeername(context.Socket(), reinterpret_cast<sockaddr*>(&peer), &size) != 0) {
            const std::lock_guard hold(gate);
            problem = "nobody answers there";  // the engine goes on with a connection that may yet come
        }
    }
}

void NetworkEndpoint::prepareUdp(NetClientContext& context) {
    if (!address.IsGroup(resolved)) {
        if (use == Use::Write && looksLikeGroup(resolved)) {
            engine->SetRemoteFilter(context.ClientId(), resolved);
        }
        return;
    }
    if (isJoinedByEngine()) {
        return;
    }
    const ip_mreq membership{.imr_multiaddr = resolved.sin_addr, .imr_interface = address.interfaceAddress};
    const int socket = context.Socket();
    const bool joined =
        ::setsockopt(socket, IPPROTO_IP, IP_MULTICAST_IF, &membership.imr_interface,
                     sizeof(membership.imr_interface)) == 0 &&
        ::setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)) == 0;
    if (!joined) {
        const std::string why = errorMessage(errno);
        const std::lock_guard hold(gate);
        problem = "the group cannot be joined: " + why;
    }
}

void NetworkEndpoint::awaitConnected() {
    std::unique_lock hold(gate);
    if (!gateChanged.wait_for(hold, kAdoption, [this] { return settled; })) {
        problem = "nothing came of it";
    }
    if (!problem.empty()) {
        const std::string why = problem;
        hold.unlock();
        fail(why, address.kind == NetworkAddress::Kind::Udp ? "name an interface with ?interface=ADDRESS"
                                                            : "check the address, and that it is reachable");
    }
}

bool NetworkEndpoint::Send(unsigned client, PacketBuffer& packet) {
    clients->Queued(client, packet.ActualSize());
    if (engine->SendAsync(client, &packet)) {
        return true;
    }
    clients->Refused(client);
    return false;
}

}  // namespace Mivra::Tool
