// One script of an engine's life in which the Nth call of each kind fails, with each error that it can have:
// whatever becomes of the script, lives are complete, packets come back and no descriptor stays open.

#include <cerrno>
#include <optional>

#include "tests/support/FaultInjection.h"
#include "tests/transport/LoadFixture.h"

namespace Mivra::Test {
namespace {

struct FaultCase {
    FaultKind kind;
    std::vector<int> errors;
};

const FaultCase kCases[] = {
    {FaultKind::Socket, {EMFILE, ENFILE, ENOBUFS, ENOMEM, EACCES, EAFNOSUPPORT, EPROTONOSUPPORT, EINVAL}},
    {FaultKind::Bind, {EADDRINUSE, EADDRNOTAVAIL, EACCES, EINVAL, ENOMEM}},
    {FaultKind::Connect,
     {ECONNREFUSED, ENETUNREACH, EHOSTUNREACH, EADDRNOTAVAIL, EADDRINUSE, EAGAIN, EACCES, EPERM, ETIMEDOUT,
      EINTR, EINPROGRESS, EALREADY, EISCONN}},
    {FaultKind::Poll, {EINTR, EINVAL, ENOMEM}},
    {FaultKind::Listen, {EADDRINUSE, EOPNOTSUPP}},
    {FaultKind::Accept,
     {EMFILE, ENFILE, ENOBUFS, ENOMEM, ECONNABORTED, EINTR, EAGAIN, EPROTO, EPERM, EINVAL, ENETDOWN,
      EHOSTUNREACH}},
    {FaultKind::Receive,
     {ECONNRESET, ECONNREFUSED, ETIMEDOUT, EHOSTUNREACH, ENOTCONN, ENOMEM, EAGAIN, EINTR, ENOBUFS}},
    {FaultKind::Send,
     {EPIPE, ECONNRESET, ECONNREFUSED, EMSGSIZE, EPERM, EACCES, ENETUNREACH, EHOSTUNREACH, ENETDOWN, EINVAL,
      EAGAIN, EINTR, ENOBUFS, ENOMEM}},
    {FaultKind::SocketOption,
     {EPERM, EINVAL, ENOPROTOOPT, ENODEV, EADDRINUSE, EADDRNOTAVAIL, ENOBUFS, ENOMEM}},
    {FaultKind::SocketName, {ENOTCONN, ENOBUFS}},
    {FaultKind::CreateWatch, {EMFILE, ENOMEM}},
    {FaultKind::ChangeWatch, {ENOMEM, ENOSPC}},
    {FaultKind::AwaitWatch, {ENOMEM, EINTR, EINVAL}},
    {FaultKind::Select, {EBADF, EINTR, EINVAL, ENOMEM}},
    {FaultKind::WakeDescriptor, {EMFILE, ENOMEM}},
    {FaultKind::StartThread, {EAGAIN}},
    {FaultKind::Open, {EMFILE}},
    {FaultKind::Read, {EAGAIN}},
    {FaultKind::Write, {EAGAIN}},
    {FaultKind::Allocate, {ENOMEM}},
};
constexpr std::uint64_t kLimit = 500;
constexpr int kPatience = 20;  // milliseconds, for what may never come; a hundred times that for what must

/// Whether the engine tries again, so that all goes as without the fault.
bool isPassing(FaultKind kind, int error) {
    switch (kind) {
        case FaultKind::CreateWatch:
        case FaultKind::ChangeWatch:
        case FaultKind::AwaitWatch:
        case FaultKind::Poll:  // what has no outcome yet counts as none
        case FaultKind::Read:
        case FaultKind::Write:
            return true;
        case FaultKind::Accept:
            return error != EMFILE && error != ENFILE;  // then the connection is refused
        case FaultKind::Receive:
        case FaultKind::Send:
            return error == EAGAIN || error == EINTR || error == ENOBUFS;
        default:
            return false;
    }
}

/// Its own memory does not fail.
class PausedLedger : public Ledger {
public:
    std::function<void(NetClientContext*, PacketBuffer*)> answer;

    void OnClientConnected(NetClientContext* context) override {
        const FaultPause pause;
        Ledger::OnClientConnected(context);
    }
    void OnClientDisconnecting(NetClientContext* context) override {
        const FaultPause pause;
        Ledger::OnClientDisconnecting(context);
    }
    void OnDataReceived(NetClientContext* context, PacketBuffer* packet) override {
        {
            const FaultPause pause;
            Ledger::OnDataReceived(context, packet);
        }
        answer(context, packet);
    }
    void OnSendCompleted(NetClientContext* context, PacketBuffer* packet) override {
        const FaultPause pause;
        Ledger::OnSendCompleted(context, packet);
    }
    void OnClientReleased(NetClientContext* context) override {
        const FaultPause pause;
        Ledger::OnClientReleased(context);
    }
};

class SelectFault : public LoadFixture, public ::testing::WithParamInterface<FaultCase> {
protected:
    void SetUp() override {
        auto* const paused = new PausedLedger;
        ledger = Reference<Ledger>(paused);
        paused->answer = [this](NetClientContext* context, PacketBuffer* received) {
            if (!context->Parameters().option3) engine->SendAsync(context->ClientId(), received);
        };
    }
    void send(unsigned int client, int size) {
        Reference<PacketBuffer> made;
        {
            const FaultPause pause;
            made = packet(1, size);
        }
        engine->SendAsync(client, made.get());
    }
    /// The pause is for the condition alone: calls that fail are the workers', meanwhile.
    template <typename Condition>
    void await(Condition condition) {
        const auto isDue = [&] { return patient || !plan->Reached(); };
        for (int look = 0; look < (isDue() ? 100 : 1) * kPatience * 10; ++look) {
            {
                const FaultPause pause;
                if (condition()) return;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }
    NetConnectionParameters parametersFor(int protocol, int port) {
        NetConnectionParameters parameters;
        parameters.protocol = protocol;
        parameters.notifications = ledger.get();
        ledger->AddRef();
        parameters.remoteAddress = Loopback(port);
        parameters.option3 = true;  // sends only, and what comes is an echo
        parameters.receiveBufferSize = 65536;
        parameters.sendBufferSize = 65536;
        return parameters;
    }
    bool connectGroup(int port) {
        NetConnectionParameters parameters = parametersFor(IPPROTO_UDP, port);
        parameters.remoteAddress = Loopback(port, "239.255.7.230");
        parameters.hasLocalAddress = true;
        parameters.localAddress = Loopback(port);
        parameters.reuseAddress = true;
        return engine->Connect(parameters);
    }
    /// A server and a client of its own, which echo; a group that hears itself; a peer that comes too late.
    void script() {
        int streamPort = 0;
        int groupPort = 0;
        {
            const FaultPause pause;
            streamPort = PosixPeer::FreePort();
            groupPort = PosixPeer::FreePort(SOCK_DGRAM);
            engine->SetAllocator(4096, 8);
            engine->SetWorkerCount(2);
        }
        const int before = ledger->Connects();
        if (!engine->Start()) return;
        const bool listening = engine->Listen("127.0.0.1", streamPort, ledger.get(), nullptr);
        NetConnectionParameters stream = parametersFor(IPPROTO_TCP, streamPort);
        const bool connected = listening && engine->Connect(stream);
        const bool grouped = connectGroup(groupPort);
        await([&] { return ledger->Connects() - before == 2 * connected + grouped; });
        // Ids go on from life to life: three clients and a listener each, when nothing fails.
        for (unsigned int id = newest(); id + 4 > newest() && id > 0; --id) {
            for (int i = 0; i < 3; ++i)
                send(id, 1000);
        }
        await([&] { return received() >= expected(connected, grouped); });
        engine->DisconnectClientAsync(newest(), true);
        engine->StopListen(streamPort);
        engine->Shutdown();
    }
    unsigned int newest() {
        const FaultPause pause;
        return ledger->Newest();
    }
    std::uint64_t received() {
        const FaultPause pause;
        return ledger->ReceivedBytes() - receivedBefore;
    }
    /// Three there and three back, and three from the group to itself.
    static std::uint64_t expected(bool connected, bool grouped) {
        return (connected ? 9000U : 0U) + (grouped ? 3000U : 0U);
    }
    void run(FaultKind kind, int error) {
        for (std::uint64_t nth = 1; nth <= kLimit; ++nth) {
            patient = isPassing(kind, error);
            receivedBefore = ledger->ReceivedBytes();
            bool reached;
            {
                std::optional<FaultPlan> noSet;  // then each socket is looked at by itself
                if (kind == FaultKind::Select)
                    noSet.emplace(FaultKind::AwaitWatch, 1, FaultPlan::Span::FromThenOn);
                plan.emplace(kind, nth, FaultPlan::Span::Once, error);
                script();
                if (patient || !plan->Reached()) {
                    EXPECT_EQ(received(), expected(true, true));
                }
                reached = plan->Reached();
                plan.reset();
            }
            engine->Shutdown();
            EXPECT_EQ(ledger->Open(), 0);
            EXPECT_EQ(ledger->Wrongs(), std::vector<std::string>{});
            EXPECT_EQ(ledger->GetRefCount(), 1);
            EXPECT_EQ(pool.FreeBufferCount(), pool.BufferCount());
            EXPECT_EQ(descriptors(), descriptorsBefore);
            failures += reached;
            if (HasFailure()) {
                ADD_FAILURE() << FaultName(kind) << " " << nth << " with " << error;
                return;
            }
            if (!reached) return;
        }
    }

    std::optional<FaultPlan> plan;
    std::uint64_t receivedBefore = 0;
    int failures = 0;
    bool patient = false;
};

TEST_P(SelectFault, NothingIsLostOrKept) {
    const FaultCase& fault = GetParam();
    for (const int error : fault.errors)
        run(fault.kind, error);
    RecordProperty("failures", failures);
    EXPECT_GT(failures, 0);
}

INSTANTIATE_TEST_SUITE_P(Each, SelectFault, ::testing::ValuesIn(kCases),
                         [](const auto& each) { return FaultName(each.param.kind); });

}  // namespace
}  // namespace Mivra::Test
