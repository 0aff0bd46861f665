#include "tools/mivra/NetworkInput.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "mivra/common/MivraCommon.h"
#include "mivra/common/runtime/FileLog.h"
#include "tools/mivra/ProblemError.h"

namespace Mivra::Tool {
namespace {

using Common::PacketBuffer;

constexpr int kAvioBuffer = 64 << 10;
constexpr int kReceiveBytes = 64 << 10;  // the largest datagram fits
constexpr int kStreamBuffers = 4;        // 40 when the pool has grown: 2.5 MiB at most
constexpr int kDatagramBuffers = 512;    // 5120: the queue is full before
constexpr std::chrono::milliseconds kLook{100};

}  // namespace

NetworkInput::NetworkInput(const NetworkAddress& address, NetworkBoard* board)
    : datagrams(address.kind == NetworkAddress::Kind::Udp),
      lastArrival(Clock::now()),
      endpoint(address, NetworkEndpoint::Use::Read, *this, kReceiveBytes,
               datagrams ? kDatagramBuffers : kStreamBuffers, board),
      context(makeAvio(kAvioBuffer, false, this, read, nullptr, nullptr)) {
    endpoint.Open();
}

NetworkInput::~NetworkInput() {
    endpoint.Close();
    if (const std::uint64_t lost = endpoint.Clients().Losses(); lost > 0) {
        MivraCommonGetLog()->Log(Common::FileLog::Warning, "NetworkInput: %s: %llu datagrams were lost",
                                 endpoint.Address().text.c_str(), static_cast<unsigned long long>(lost));
    }
}

void NetworkInput::Interrupt() {
    {
        const std::lock_guard hold(gate);
        interrupted = true;
    }
    gateChanged.notify_all();
}

void NetworkInput::Connected(unsigned client) {
    const bool listens = endpoint.Address().kind == NetworkAddress::Kind::TcpListen;
    bool first;
    {
        const std::lock_guard hold(gate);
        first = publisher == 0;
        publisher = first ? client : publisher;
        lastArrival = Clock::now();
    }
    if (listens && first) {
        endpoint.StopListen();
    } else if (!first) {
        endpoint.Disconnect(client);
    }
}

void NetworkInput::Received(unsigned client, PacketBuffer& packet) {
    {
        const std::lock_guard hold(gate);
        lastArrival = Clock::now();
        if (client != publisher || interrupted) {
            return;
        }
        if (datagrams && arrived.size() >= kMostDatagrams) {
            if (endpoint.Clients().Losses() == 0) {
                MivraCommonGetLog()->Log(Common::FileLog::Warning,
                                         "NetworkInput: %s: datagrams come faster than they are read",
                                         endpoint.Address().text.c_str());
            }
            endpoint.Clients().Lost();
            return;
        }
        arrived.emplace_back(&packet);
        endpoint.Clients().QueueLength(static_cast<int>(arrived.size()));
    }
    gateChanged.notify_all();
}

void NetworkInput::Reset(unsigned client) {
    const std::lock_guard hold(gate);
    reset = reset || client == publisher;
}

void NetworkInput::Gone(unsigned client) {
    {
        const std::lock_guard hold(gate);
        ended = ended || client == publisher;
    }
    gateChanged.notify_all();
}

void NetworkInput::Check() const {
    if (timedOut) {
        throw ProblemError(ExitCode::TimeOut, {"capture timeout: the input has brought nothing for " +
                                                   std::to_string(endpoint.Address().timeoutSeconds) + " s",
                                               endpoint.Address().text, "is the other side still sending?"});
    }
}

/// 0 once there is a packet to read from, else libavformat's number of why there will be none.
int NetworkInput::awaitData() {
    const std::chrono::seconds limit{endpoint.Address().timeoutSeconds};
    const bool listens = endpoint.Address().kind == NetworkAddress::Kind::TcpListen;
    const Clock::time_point begin = Clock::now();  // what waited in the socket meanwhile is no silence
    std::unique_lock hold(gate);
    while (arrived.empty() && !ended) {
        if (interrupted || endpoint.IsOver()) {
            return AVERROR_EXIT;
        }
        if ((!listens || publisher != 0) && Clock::now() - std::max(begin, lastArrival) >= limit) {
            timedOut = true;
            return AVERROR(ETIMEDOUT);
        }
        gateChanged.wait_for(hold, kLook);
    }
    if (interrupted) {
        return AVERROR_EXIT;
    }
    if (arrived.empty()) {
        return reset ? AVERROR(ECONNRESET) : AVERROR_EOF;
    }
    current = std::move(arrived.front());
    arrived.pop_front();
    endpoint.Clients().QueueLength(static_cast<int>(arrived.size()));
    consumed = 0;
    return 0;
}

int NetworkInput::take(std::uint8_t* data, int size) {
    const int count = std::min(size, current->ActualSize() - consumed);
    std::memcpy(data, current->Buffer() + consumed, static_cast<std::size_t>(count));
    consumed += count;
    bytesRead += count;
    if (consumed == current->ActualSize()) {
        current = Packet();
    }
    return count;
}

int NetworkInput::read(void* self, std::uint8_t* data, int size) {
    auto& input = *static_cast<NetworkInput*>(self);
    if (!input.current) {
        if (const int error = input.awaitData(); error != 0) {
            return error;
        }
    }
    return input.take(data, size);
}

}  // namespace Mivra::Tool
