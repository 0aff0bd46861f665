#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <vector>

#include "mivra/common/runtime/CritSec.h"
#include "tools/mivra/Console.h"
#include "tools/mivra/ExitCode.h"
#include "tools/mivra/NetworkBoard.h"
#include "tools/mivra/PacketBudget.h"
#include "tools/mivra/SourcePace.h"
#include "tools/mivra/StopSignal.h"

namespace Mivra::Tool {

/// Where the sources and sinks of a relay report to: what passes, what went wrong, and when all is done. Any
/// thread may call it.
class RelayMonitor {
public:
    RelayMonitor(int sources, Console& console);
    ~RelayMonitor();
    RelayMonitor(const RelayMonitor&) = delete;
    RelayMonitor& operator=(const RelayMonitor&) = delete;

    /// A source is about to deliver so many packets with so many bytes.
    void Delivered(std::size_t packets, std::int64_t bytes);
    /// A source has delivered its last packet. Once per source.
    void SourceEnded();
    /// The last of the sinks has got a packet.
    void Consumed();

    /// Ends the relay: all that was asked for is done.
    void End() { finish(); }
    bool HaveSourcesEnded() const { return ended.load() == sources; }

    /// Ends the relay; the first problem counts.
    void Fail(ExitCode code, const Problem& problem);
    /// Something was wrong with an input; the relay goes on.
    void Damaged(const Problem& problem);
    /// A line for people; the relay goes on.
    void Note(const std::string& text) { console.Warning(text); }

    /// Waits for the end (all done or failed), for Ctrl-C or another descriptor (-1: none), or for the time
    /// to pass. True at the end.
    bool Wait(int milliseconds, int interruptDescriptor, int otherDescriptor = -1);

    struct Failure {
        ExitCode code;
        Problem problem;
    };
    std::optional<Failure> FirstFailure();
    std::vector<Problem> Damages();

    std::uint64_t Packets() const { return delivered.load(); }
    std::uint64_t Bytes() const { return deliveredBytes.load(); }
    std::uint64_t Queued() const { return delivered.load() - consumed.load(); }

private:
    void checkDone();
    void finish();

    const int sources;
    Console& console;
    int descriptor = -1;
    // Written by different threads: apart, so that they do not take each other's cache line away.
    alignas(64) std::atomic<std::uint64_t> delivered{0};
    std::atomic<std::uint64_t> deliveredBytes{0};
    alignas(64) std::atomic<std::uint64_t> consumed{0};
    std::atomic<int> ended{0};
    std::atomic<bool> finished{false};
    Common::CritSec lock;
    std::optional<Failure> failure MIVRA_GUARDED_BY(lock);
    std::vector<Problem> damages MIVRA_GUARDED_BY(lock);
};

/// What the sources and sinks of one relay share; all of them keep it alive.
struct RelayShared {
    RelayShared(int sources, Console& console, std::int64_t budgetBytes = PacketBudget::kDefaultBytes);

    StopSignal stop;  ///< raised when the relay is to end: nobody waits any more for others that are stuck
    NetworkBoard board;
    PacketBudget budget;
    SourcePace pace;
    RelayMonitor monitor;
};

}  // namespace Mivra::Tool
