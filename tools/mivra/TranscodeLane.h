#pragma once

// What happens to one stream of a transcode between the session and the file.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Reference.h"
#include "tools/mivra/RelayMonitor.h"
#include "tools/mivra/Rescale.h"
#include "tools/mivra/TranscodeOutput.h"

namespace Mivra::Tool {

/// The part of the input that is wanted, in the times of its packets. What plays at `begin` is at 0 in the
/// output.
struct TimeWindow {
    std::int64_t begin = 0;
    std::int64_t end = kUnsetTime;  ///< kUnsetTime: to its end
};

/// How a stream is made anew.
struct LaneSettings {
    Common::MediaType wanted;  ///< the encoder's output type: what it leaves open is as in the input
    std::string options;       ///< for the encoder
    AVRational rate{0, 1};     ///< pictures a second; 0: as they come
    int threads = 0;           ///< 0: the engines decide
    bool hardware = true;
    TimeWindow window;
    std::string path;  ///< of the input, for problems
};

/// One stream on its way. Push is for one thread, that of the session, and takes no longer than a lock. What
/// goes wrong is told to the monitor.
class TranscodeLane {
public:
    virtual ~TranscodeLane() = default;

    /// The type of what is written.
    virtual const Common::MediaType& Type() const = 0;
    /// The output has begun: the threads may.
    virtual void Start() = 0;
    /// Takes its own reference. The monitor is told when the packet has been consumed.
    virtual void Push(Common::PacketBuffer& packet) = 0;
    /// Drops what waits to be decoded, encodes what has been, writes it, and ends the threads.
    virtual void Finish() = 0;
};

/// Where a lane leads to.
struct LaneEnd {
    int stream = 0;
    TranscodeOutput& output;
    std::shared_ptr<RelayShared> shared;
};

/// Pictures: one thread decodes, another one encodes and writes. ProblemError when no engine can serve it.
std::unique_ptr<TranscodeLane> makePictureLane(const Common::MediaType& input, const LaneSettings& settings,
                                               LaneEnd end);
/// Samples: one thread for both, as audio is quickly done.
std::unique_ptr<TranscodeLane> makeSampleLane(const Common::MediaType& input, const LaneSettings& settings,
                                              LaneEnd end);
/// Packets as they are: whole ones, those whose time lies in the window. No thread.
std::unique_ptr<TranscodeLane> makeCopyLane(const Common::MediaType& input, const TimeWindow& window,
                                            LaneEnd end);

}  // namespace Mivra::Tool
