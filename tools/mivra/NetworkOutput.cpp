#include "tools/mivra/NetworkOutput.h"

#include <algorithm>
#include <cerrno>

namespace Mivra::Tool {
namespace {

using Common::PacketBuffer;

constexpr int kAvioBuffer = 16 * TransportPacker::kPieceBytes;
// What clients send is thrown away.
constexpr int kReceiveBytes = 64 << 10;
constexpr int kReceiveBuffers = 2;
constexpr std::int64_t kWindow = 1 << 20;  // bytes on their way to one peer
constexpr std::chrono::milliseconds kLook{100};
constexpr std::chrono::milliseconds kGrace{2000};
constexpr std::chrono::seconds kLongestDrain{10};

}  // namespace

NetworkOutput::NetworkOutput(const NetworkAddress& address, const StopSignal& signal, NetworkBoard* to)
    : stop(signal),
      board(to),
      listens(address.kind == NetworkAddress::Kind::TcpListen),
      packer([this] { return listens && endpoint.Clients().IsAwaited(); },
             [this](PacketBuffer& piece, bool entry) { send(piece, entry); }),
      endpoint(address, NetworkEndpoint::Use::Write, *this, kReceiveBytes, kReceiveBuffers, board),
      context(makeAvio(kAvioBuffer, true, this, nullptr, write, nullptr)) {
    context->min_packet_size = 0;
    endpoint.Open();
    filler = std::thread([this] { sendWhatWaits(); });
}

NetworkOutput::~NetworkOutput() {
    endFilling();
    endpoint.Close();
}

void NetworkOutput::Connected(unsigned client) {
    const std::lock_guard hold(gate);
    peer = client;
}

void NetworkOutput::Sent(unsigned, int bytes) {
    {
        const std::lock_guard hold(gate);
        waiting -= bytes;
        progress += 1;
    }
    taken += 1;
    gateChanged.notify_all();
}

void NetworkOutput::Gone(unsigned) {
    {
        const std::lock_guard hold(gate);
        lost = true;
        progress += 1;
    }
    gateChanged.notify_all();
}

int NetworkOutput::write(void* self, std::uint8_t* data, int size) {
    auto& output = *static_cast<NetworkOutput*>(self);
    if (output.writeError == 0 && !output.pack(data, size) && output.writeError == 0) {
        output.writeError = ENOMEM;
    }
    return output.writeError == 0 ? size : AVERROR(output.writeError.load());
}

bool NetworkOutput::pack(const std::uint8_t* data, int size) {
    const std::lock_guard hold(packing);
    const bool waited = packer.HasStarted();
    const std::uint64_t before = packer.PiecesEmitted();
    if (!packer.Add(data, size)) {
        return false;
    }
    if (packer.HasStarted() && (!waited || packer.PiecesEmitted() != before)) {
        begun = Clock::now();
        if (idle) {
            packingChanged.notify_one();
        }
    }
    return true;
}

/// On the filler's thread.
void NetworkOutput::sendWhatWaits() {
    std::unique_lock hold(packing);
    while (!fillingEnds) {
        idle = !packer.HasStarted();
        if (idle) {
            packingChanged.wait(hold);
        } else if (Clock::now() - begun >= kLongestFill) {
            packer.Finish();
        } else {
            packingChanged.wait_until(hold, begun + kLongestFill);
        }
    }
}

void NetworkOutput::endFilling() {
    {
        const std::lock_guard hold(packing);
        fillingEnds = true;
    }
    packingChanged.notify_one();
    if (filler.joinable()) {
        filler.join();
    }
}

void NetworkOutput::send(PacketBuffer& piece, bool entry) {
    if (writeError != 0) {
        return;
    }
    handed += 1;
    listens ? sendToClients(piece, entry) : sendToPeer(piece);
}

void NetworkOutput::sendToPeer(PacketBuffer& piece) {
    const int size = piece.ActualSize();
    if (!awaitRoom(size)) {
        return;
    }
    {
        const std::lock_guard hold(gate);
        waiting += size;
    }
    if (!endpoint.Send(peer, piece)) {
        writeError = errorOfLoss();
    }
}

/// A datagram that cannot be sent has no reader that could have gone.
int NetworkOutput::errorOfLoss() const {
    return endpoint.Address().kind == NetworkAddress::Kind::Udp ? ENETUNREACH : EPIPE;
}

/// False, with the error noted, when the peer is gone or, once the signal is raised, takes nothing.
bool NetworkOutput::awaitRoom(int bytes) {
    std::unique_lock hold(gate);
    std::uint64_t seen = progress;
    Clock::time_point since = Clock::now();
    while (!lost && waiting + bytes > kWindow) {
        gateChanged.wait_for(hold, kLook);
        const Clock::time_point now = Clock::now();
        if (!stop.IsRaised() || progress != seen) {
            seen = progress;
            since = now;
        } else if (now - since >= kGrace) {
            writeError = ECANCELED;
            return false;
        }
    }
    if (lost) {
        writeError = errorOfLoss();
    }
    return !lost;
}

void NetworkOutput::sendToClients(PacketBuffer& piece, bool entry) {
    endpoint.Clients().Recipients(entry, recipients, joining);
    if (!joining.empty()) {
        if (const TransportPacker::Packet tables = packer.Tables()) {
            for (const unsigned client : joining) {
                deliver(client, *tables.get());
            }
        }
    }
    for (const unsigned client : recipients) {
        deliver(client, piece);
    }
}

void NetworkOutput::deliver(unsigned client, PacketBuffer& piece) {
    if (endpoint.Send(client, piece)) {
        return;
    }
    if (const std::string address = endpoint.Clients().Dismiss(client); !address.empty()) {
        endpoint.Disconnect(client);
        if (board != nullptr) {
            board->Note("a client is too slow and was disconnected: " + address + "; the others go on");
        }
    }
}

/// False when something is left that nobody takes.
bool NetworkOutput::drain() {
    const Clock::time_point end = Clock::now() + kLongestDrain;
    std::unique_lock hold(gate);
    std::uint64_t seen = progress;
    Clock::time_point since = Clock::now();
    while (endpoint.Clients().QueuedBytes() > 0) {
        gateChanged.wait_for(hold, kLook);
        const Clock::time_point now = Clock::now();
        if (progress != seen) {
            seen = progress;
            since = now;
        } else if (now - since >= kGrace) {
            return false;
        }
        if (now >= end) {
            return false;
        }
    }
    return true;
}

void NetworkOutput::Close() {
    if (closed) {
        return;
    }
    closed = true;
    endFilling();
    packer.Finish();
    const bool all = drain();
    if (writeError == 0 && !listens && (!all || isLost())) {
        writeError = all ? errorOfLoss() : ECANCELED;
    }
    endpoint.Close();
}

bool NetworkOutput::isLost() {
    const std::lock_guard hold(gate);
    return lost;
}

}  // namespace Mivra::Tool
