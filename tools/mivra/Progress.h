#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/mivra/Console.h"
#include "tools/mivra/Event.h"
#include "tools/mivra/NetworkBoard.h"

namespace Mivra::Tool {

/// Where a relay stands.
struct Progress {
    double elapsed = 0;                        ///< seconds since the start
    double position = 0;                       ///< seconds of media done
    double duration = 0;                       ///< seconds of media in all, 0 when unknown
    std::uint64_t packets = 0;                 ///< taken from the inputs; in a summary, written
    std::uint64_t bytes = 0;                   ///< payload of those
    bool pictures = false;                     ///< it is pictures that are counted, and no bytes
    std::optional<std::uint64_t> queued = {};  ///< packets on their way to the outputs, where that is known
};

/// So much media.
struct MediaCount {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;    ///< payload
    std::int64_t position = 0;  ///< the latest decoding time in it, in kPacketTimeBase
};

/// What one output got.
struct OutputSummary {
    std::string path;
    std::string format;
    std::vector<std::string> streams;  ///< such as "video h264 1280x720"
    MediaCount written;
};

struct Summary {
    std::string state;  ///< one word: done, interrupted, damaged, failed
    Progress progress;  ///< of what was written, into the output that got most
    std::vector<OutputSummary> outputs;
};

/// Tells how a relay goes on. Used by one thread.
class IProgressReporter {
public:
    virtual ~IProgressReporter() = default;

    /// May be called as often as the caller likes: the reporter itself tells only now and then, by
    /// Progress::elapsed.
    virtual void Update(const Progress& progress) = 0;
    /// At once, whenever something happens.
    virtual void Tell(const Event& event) = 0;
    /// Once, at the end.
    virtual void Finish(const Summary& summary) = 0;
};

/// Tells of the clients of a relay in the network, once in so many seconds.
class ClientReport {
public:
    /// seconds: 0 or less: never.
    explicit ClientReport(double seconds) : interval(seconds) {}

    void Update(const NetworkBoard& board, const Progress& progress, IProgressReporter& reporter);

private:
    const double interval;
    double last = 0;
};

/// One JSON object a line when json; else on a terminal one live line, redrawn at most 10 times a second;
/// else a line of key=value every statsSeconds (JSON likewise; 0 or less: the summary only). The console has
/// to outlive the reporter.
std::unique_ptr<IProgressReporter> makeProgressReporter(Console& console, bool json, double statsSeconds);

}  // namespace Mivra::Tool
