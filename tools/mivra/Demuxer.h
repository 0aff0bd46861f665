#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mivra/common/model/MediaType.h"
#include "tools/mivra/FfmpegSupport.h"
#include "tools/mivra/InputTimeline.h"
#include "tools/mivra/MediaFile.h"

namespace Mivra::Tool {

/// One input, taken apart with libavformat: its streams, and its packets on a timeline that begins at 0.
/// Video and audio are read, other streams only listed. One thread at a time; Interrupt from any.
class Demuxer {
public:
    enum class Result { Packet, End, Interrupted };

    /// Opens the file. ProblemError when it cannot be opened.
    explicit Demuxer(const std::string& path);
    ~Demuxer();
    Demuxer(const Demuxer&) = delete;
    Demuxer& operator=(const Demuxer&) = delete;

    /// Looks into it; may wait for data. ProblemError when it holds nothing to read.
    void Open();

    int StreamCount() const { return static_cast<int>(types.size()); }
    const Common::MediaType& Type(int stream) const { return types[static_cast<std::size_t>(stream)]; }
    /// In kPacketTimeBase; 0 when unknown.
    std::int64_t Duration() const;
    void SetDiscarded(int stream, bool discarded);

    /// Reads the next packet. End after the last one, and where nothing more can be read.
    Result Read();
    /// The packet read last: times in its stream's time base. Valid until the next Read.
    AVPacket& Packet() { return *packet; }
    AVRational TimeBase(int stream) const;
    /// Decoding time of the stream's last packet, in kPacketTimeBase.
    std::int64_t LastDts(int stream) const { return timeline->LastDts(stream); }

    /// What was wrong with the input so far; empty: nothing.
    const std::string& Damage() const { return damage; }

    void Interrupt() { file.Interrupt(); }

private:
    struct ContextDeleter {
        void operator()(AVFormatContext* input) const { FFmpeg::FfmpegProxy::avformat_close_input(&input); }
    };

    Result finish(int error);
    void noteDamage(const std::string& text);
    bool endsInsidePacket() const;

    const std::string path;
    FfmpegUse ffmpeg;
    InputFile file;
    std::unique_ptr<AVFormatContext, ContextDeleter> context;
    PacketPointer packet;
    std::vector<Common::MediaType> types;
    std::unique_ptr<InputTimeline> timeline;
    std::string damage;
};

}  // namespace Mivra::Tool
