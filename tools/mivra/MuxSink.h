#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mivra/media/IMediaSink.h"
#include "tools/mivra/Muxer.h"
#include "tools/mivra/Progress.h"
#include "tools/mivra/RelayMonitor.h"

namespace Mivra::Tool {

struct MuxSinkOptions {
    std::string path;
    const OutputFormat* format = nullptr;
    bool last = false;  ///< of the relay's sinks: it tells the monitor of every packet
};

/// A file, or standard output, as a sink that writes the packets it gets in the file's format. Open makes
/// sure that the file can be written and leaves it as it is; Start, with all streams declared, begins it.
/// Stop finishes it; whoever stops the session calls it when the session has ended.
class MuxSink : public Media::IMediaSink {
public:
    MuxSink(MuxSinkOptions options, std::shared_ptr<RelayShared> shared);
    ~MuxSink() override;

    void Open() override;
    void Start(bool buffering) override;
    void Stop() override;
    void AddStream(int streamIndex, Common::MediaType* type) override;
    void PushMedia(int streamIndex, Common::PacketBuffer* sample) override;

    /// After Stop, or on the session's thread.
    OutputSummary GetSummary() const;

private:
    void write(int streamIndex, Common::PacketBuffer& sample);
    void refused();
    void fail(ExitCode code, const Problem& problem);

    const MuxSinkOptions options;
    const std::shared_ptr<RelayShared> shared;
    std::unique_ptr<Muxer> muxer;
    std::vector<Common::MediaType> types;
    bool started = false;
    bool badPackets = false;
};

}  // namespace Mivra::Tool
