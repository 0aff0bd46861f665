#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mivra/common/model/MediaType.h"
#include "tools/mivra/FfmpegSupport.h"
#include "tools/mivra/InputTimeline.h"
#include "tools/mivra/MediaIo.h"

namespace Mivra::Tool {

/// One input, taken apart with libavformat: its streams, and its packets on a timeline that begins at 0.
/// Video and audio are read, other streams only listed. What stands in it decides where a seek can go: the
/// leading stream, the first that carries video and is not discarded, else the first audio, has a key frame
/// there. One thread at a time; Interrupt from any.
class Demuxer {
public:
    enum class Result { Packet, End, Interrupted };

    /// Opens the file or address; the board hears of clients. ProblemError when it cannot be opened.
    explicit Demuxer(const std::string& path, NetworkBoard* board = nullptr);
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
    /// It is a file whose length is known.
    bool CanSeek() const { return IsFile() && Duration() > 0; }
    /// It is a file: it could be read again from its beginning.
    bool IsFile() const { return file->Size() >= 0; }

    /// Goes to the leading stream's last key frame that is shown at or before `time`, which is in
    /// kPacketTimeBase, or to its first one when none is. The next packet is that key frame; the other
    /// streams follow with what is shown from then on, video with a key frame. Returns when it is shown;
    /// nothing when there is none, and after an Interrupt: reading goes on wherever the input stands then.
    std::optional<std::int64_t> SeekToKeyFrame(std::int64_t time);

    /// Reads the next packet. End after the last one, and where nothing more can be read. ProblemError when a
    /// live input has fallen silent.
    Result Read();
    /// The packet read last: times in its stream's time base. Valid until the next Read.
    AVPacket& Packet() { return *packet; }
    AVRational TimeBase(int stream) const;
    /// Decoding time of the stream's last packet, in kPacketTimeBase.
    std::int64_t LastDts(int stream) const { return timeline->LastDts(stream); }

    /// What was wrong with the input so far; empty: nothing.
    const std::string& Damage() const { return damage; }

    void Interrupt() {
        interrupted = true;
        file->Interrupt();
    }

private:
    struct ContextDeleter {
        void operator()(AVFormatContext* input) const { FFmpeg::FfmpegProxy::avformat_close_input(&input); }
    };

    /// A packet of the leading stream, as the input has it.
    struct Mark {
        std::int64_t pts;
        std::int64_t dts;
        std::int64_t time;  // on the timeline
    };

    [[noreturn]] void failAtOpen(int error) const;
    int readWanted();
    int leadingStream() const;
    bool moveTo(int stream, std::int64_t time);
    std::optional<Mark> findKeyFrame(int stream, std::int64_t time, bool orLater);
    bool takeUp(int stream, const Mark& mark);
    std::int64_t shownAt(const AVPacket& of) const;
    bool isBeforeEntry(const AVPacket& of);
    Result finish(int error);
    void noteDamage(const std::string& text);
    bool endsInsidePacket() const;

    const std::string path;
    FfmpegUse ffmpeg;
    const std::unique_ptr<IMediaInput> file;
    std::atomic<bool> interrupted{false};
    std::unique_ptr<AVFormatContext, ContextDeleter> context;
    PacketPointer packet;
    std::vector<Common::MediaType> types;
    std::unique_ptr<InputTimeline> timeline;
    std::string damage;
    // After a seek: packets that were read ahead, and the streams that have not come to its time yet.
    std::deque<PacketPointer> ahead;
    std::int64_t entry = kUnsetTime;
    std::vector<bool> entered;
};

}  // namespace Mivra::Tool
