#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "mivra/media/IMediaSink.h"
#include "tools/mivra/OutputFormat.h"
#include "tools/mivra/Progress.h"
#include "tools/mivra/Transcode.h"
#include "tools/mivra/TranscodeLane.h"

namespace Mivra::Tool {

class FileSource;

/// A file as a sink that makes the streams anew: every stream has a lane of its own, whose threads decode,
/// encode and write while the session's thread goes on. Packets wait in the lanes, as many as the source's
/// buffers allow. Open, Start and Stop as those of MuxSink.
class TranscodeSink : public Media::IMediaSink {
public:
    /// The source has to be open when the sink is started, and to outlive it.
    TranscodeSink(const TranscodeOptions& options, const FileSource& source,
                  std::shared_ptr<RelayShared> shared);
    ~TranscodeSink() override;

    void Open() override;
    void Start(bool buffering) override;
    void Stop() override;
    void AddStream(int streamIndex, Common::MediaType* type) override;
    void PushMedia(int streamIndex, Common::PacketBuffer* sample) override;

    /// After Stop.
    OutputSummary GetSummary() const;
    /// What has been written so far, in kPacketTimeBase. Any thread.
    std::int64_t Position() const;

private:
    struct Plan {
        Common::MediaType type;  ///< as the output will have it, as far as is known
        bool copied = false;
    };

    void begin();
    void noteTurned() const;
    Plan planOf(const Common::MediaType& input) const;
    void checkChoice(const std::vector<Plan>& plans, const std::vector<std::size_t>& chosen) const;
    std::unique_ptr<TranscodeLane> makeLane(std::size_t index, const Plan& plan);
    void setPicture(const Common::MediaType& input, LaneSettings& settings) const;
    void setEngineOptions(const Common::MediaType& input, LaneSettings& settings) const;
    TimeWindow window() const;
    bool isAudioAlone() const;
    void fail(ExitCode code, const Problem& problem);

    const TranscodeOptions options;
    const OutputFormat& format;
    const FileSource& source;
    const std::shared_ptr<RelayShared> shared;
    std::unique_ptr<TranscodeOutput> output;
    std::atomic<TranscodeOutput*> written{nullptr};  // output, once it is there
    std::vector<Common::MediaType> inputs;
    std::vector<std::unique_ptr<TranscodeLane>> lanes;  // null: left out
    bool started = false;
};

}  // namespace Mivra::Tool
