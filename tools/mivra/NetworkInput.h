#pragma once

#include <atomic>
#include <deque>

#include "tools/mivra/MediaIo.h"
#include "tools/mivra/NetworkEndpoint.h"

namespace Mivra::Tool {

/// Reads what comes from the network for libavformat. What has come waits in the engine's own buffers, of
/// which it keeps references: a stream (TCP) is not read on while all buffers are out, which holds the sender
/// back; of datagrams (UDP) those that come while kMostDatagrams wait are lost, and counted. A peer that
/// closes its connection is the end; one that breaks it off is an error (ECONNRESET) behind what came. A
/// listening input takes one publisher, and waits for it as long as it takes; from then on, and any other
/// from the beginning, one that brings nothing for the address's time-out has failed. Ctrl-C ends a read too.
class NetworkInput : public IMediaInput, private INetworkHandler {
public:
    static constexpr std::size_t kMostDatagrams = 4096;

    /// ProblemError when it cannot be opened.
    NetworkInput(const NetworkAddress& address, NetworkBoard* board);
    ~NetworkInput() override;

    AVIOContext* Context() override { return context.get(); }
    void Interrupt() override;
    std::int64_t Size() const override { return -1; }
    std::int64_t BytesRead() const override { return bytesRead; }
    void Check() const override;

private:
    using Clock = std::chrono::steady_clock;
    using Packet = Common::Reference<Common::PacketBuffer>;

    void Connected(unsigned client) override;
    void Received(unsigned client, Common::PacketBuffer& packet) override;
    void Reset(unsigned client) override;
    void Gone(unsigned client) override;

    static int read(void* self, std::uint8_t* data, int size);
    int awaitData();
    int take(std::uint8_t* data, int size);

    const bool datagrams;
    std::mutex gate;
    std::condition_variable gateChanged;
    std::deque<Packet> arrived;  // under gate, as all down to the time-out
    unsigned publisher = 0;
    bool reset = false;
    bool ended = false;
    Clock::time_point lastArrival;
    std::atomic<bool> timedOut{false};
    std::atomic<bool> interrupted{false};
    // The reader's own.
    Packet current;
    int consumed = 0;
    std::int64_t bytesRead = 0;
    NetworkEndpoint endpoint;  // its thread ends before what it calls goes
    AvioPointer context;
};

}  // namespace Mivra::Tool
