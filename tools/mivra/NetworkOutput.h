#pragma once

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "tools/mivra/MediaIo.h"
#include "tools/mivra/NetworkEndpoint.h"
#include "tools/mivra/TransportPacker.h"

namespace Mivra::Tool {

/// Sends what libavformat writes, a transport stream, into the network. To one peer (tcp://, udp://)
/// everything goes, and a peer that takes nothing holds the writer back, as the reader of a pipe does; one
/// that goes away is a write error. Of a listening output everybody who connects is a client: it gets the
/// tables and then all from the next key frame on, the same packets as all others; who does not keep up, so
/// that his queue is full, is disconnected, and nobody waits for anybody. A datagram waits to be filled for
/// kLongestFill after its first byte, then it goes as it is.
class NetworkOutput : public IMediaOutput, private INetworkHandler {
public:
    /// What 64 kbit/s, sound of the lowest usual rate, fill a datagram in, with some room.
    static constexpr std::chrono::milliseconds kLongestFill{200};

    /// ProblemError when it cannot be opened. The signal, which has to outlive this object, ends the wait for
    /// a peer that takes nothing.
    NetworkOutput(const NetworkAddress& address, const StopSignal& stop, NetworkBoard* board);
    ~NetworkOutput() override;

    bool Begin() override { return true; }
    void Discard() override {}
    AVIOContext* Context() override { return context.get(); }
    bool IsRegular() const override { return false; }
    int WriteError() const override { return writeError.load(); }
    std::uint64_t PiecesSent() const override { return handed.load(); }
    std::uint64_t PiecesWritten() const override { return listens ? handed.load() : taken.load(); }
    /// Waits until all queues are empty, as long as somebody takes something, 10 s at most; then ends all
    /// connections.
    void Close() override;

private:
    using Clock = std::chrono::steady_clock;

    void Connected(unsigned client) override;
    void Sent(unsigned client, int bytes) override;
    void Gone(unsigned client) override;

    static int write(void* self, std::uint8_t* data, int size);
    bool pack(const std::uint8_t* data, int size);
    void sendWhatWaits();
    void endFilling();
    void send(Common::PacketBuffer& piece, bool entry);
    void sendToPeer(Common::PacketBuffer& piece);
    bool awaitRoom(int bytes);
    void sendToClients(Common::PacketBuffer& piece, bool entry);
    void deliver(unsigned client, Common::PacketBuffer& piece);
    bool drain();
    bool isLost();
    int errorOfLoss() const;

    const StopSignal& stop;
    NetworkBoard* const board;
    const bool listens;
    std::atomic<int> writeError{0};
    std::atomic<std::uint64_t> handed{0};
    std::atomic<std::uint64_t> taken{0};
    std::mutex gate;
    std::condition_variable gateChanged;
    // Under gate:
    unsigned peer = 0;
    std::int64_t waiting = 0;  // bytes that the peer has not taken
    bool lost = false;         // the peer
    std::uint64_t progress = 0;
    bool closed = false;  // the writer's own
    // Held while something is packed and sent; no callback of the endpoint takes it.
    std::mutex packing;
    std::condition_variable packingChanged;
    // Under packing:
    bool fillingEnds = false;
    bool idle = false;        // the filler waits for a piece to begin
    Clock::time_point begun;  // the piece that waits
    std::vector<unsigned> recipients;
    std::vector<unsigned> joining;
    TransportPacker packer;
    NetworkEndpoint endpoint;  // its thread ends before what it calls goes
    AvioPointer context;
    std::thread filler;
};

}  // namespace Mivra::Tool
