#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "tools/mivra/FfmpegSupport.h"
#include "tools/mivra/MediaIo.h"
#include "tools/mivra/OutputFormat.h"
#include "tools/mivra/Progress.h"
#include "tools/mivra/SampleClock.h"

namespace Mivra::Tool {

/// One output, put together with libavformat: packets are interleaved by their decoding times and written as
/// they are. It keeps references to packets until they are written, as many as their pools allow (RelayPool);
/// beyond that it keeps copies. It never writes into a packet. One thread at a time.
class Muxer {
public:
    enum class Result { Done, BadPacket, Failed };

    /// What a file is of a recording that goes into several.
    struct Section {
        std::int64_t origin = 0;  ///< packet time that is 0 in the file, in kPacketTimeBase
        bool joined = false;      ///< the files are to play as one when they are joined: no time is moved
        bool continued = false;   ///< not the first one: no stream waits for a key frame
    };

    /// Opens the file, which keeps what it holds until Begin, or the address; the board hears of clients.
    /// ProblemError when it cannot be opened; the signal, which has to outlive this object, ends the wait for
    /// a reader.
    Muxer(const std::string& path, const OutputFormat& format, const StopSignal& stop,
          NetworkBoard* board = nullptr);
    ~Muxer();
    Muxer(const Muxer&) = delete;
    Muxer& operator=(const Muxer&) = delete;

    /// Takes of these streams, which are known by their place, those that the format holds, and writes the
    /// header. ProblemError when none is left, the format refuses them, or writing fails.
    void Begin(const std::vector<Common::MediaType>& types, const Section& section);
    void Begin(const std::vector<Common::MediaType>& types) { Begin(types, Section()); }
    /// Which of the streams Begin would take, and what LeftOut would say then. ProblemError when none.
    std::vector<std::size_t> Choose(const std::vector<Common::MediaType>& types);
    bool IsRegular() const { return file->IsRegular(); }
    /// Whether Begin has taken the stream.
    bool Takes(int stream) const;
    /// Whether the format has times. Before Finish.
    bool HasTimes() const;
    /// BadPacket: this one cannot be written, others may; Failed: the file cannot be written any more.
    Result Write(int stream, Common::PacketBuffer& packet);
    /// Writes what is waiting and what ends the file, and closes it. BadPacket: it is finished, but some that
    /// waited could not be written. Nothing is written any more once a Write has failed.
    Result Finish();

    /// Names, after Begin, the streams that it did not take; empty when it took all.
    const std::string& LeftOut() const { return leftOut; }
    /// Why the last call had a BadPacket.
    const std::string& ErrorText() const { return error; }
    /// What to tell after Failed.
    const Problem& Failure() const { return failure; }
    /// What the file has got for sure: what waits for its turn, or for the buffer to fill, does not count.
    MediaCount Written() const { return written; }

private:
    struct Waiting {
        int size;
        std::int64_t dts;
    };
    struct Stream {
        std::vector<Waiting> handed;  // to libavformat; what is put together is taken away now and then
        std::size_t firstWaiting = 0;
        std::int64_t muxed = 0;  // packets that libavformat has put together
        AVStream* output = nullptr;
        AVRational timeBase{1, 1};  // of the packets' source
        SampleClock clock;          // audio
        std::int64_t lastDts = INT64_MIN;
        bool begun = false;
    };
    struct ContextDeleter {
        void operator()(AVFormatContext* output) const;
    };

    void makeContext();
    void addStream(std::size_t index, const Common::MediaType& type);
    void writeHeader(bool continued);
    void setTimes(Stream& stream, Common::PacketBuffer& from);
    int samplesIn(const Stream& stream, int size) const;
    void keepOrder(Stream& stream);
    bool setPayload(Common::PacketBuffer& from);
    bool setSideData(Common::PacketBuffer& from);
    Result explain(int code, const std::string& message);
    Result fail(const Problem& problem);
    Result drain();
    void count();
    void settle();

    const std::string path;
    const OutputFormat& format;
    FfmpegUse ffmpeg;
    const std::unique_ptr<IMediaOutput> file;
    std::unique_ptr<AVFormatContext, ContextDeleter> context;
    PacketPointer packet;
    std::vector<Stream> streams;  // by the place among the types
    std::int64_t origin = 0;      // in kPacketTimeBase
    bool headerWritten = false;
    bool failed = false;
    std::string leftOut;
    std::string error;
    Problem failure;
    MediaCount muxed;  // put together; the end of it may still be in the file's buffer
    struct Sent {
        std::uint64_t pieces;  // of the file that hold all of
        MediaCount media;
    };
    std::vector<Sent> onTheirWay;
    MediaCount written;
};

}  // namespace Mivra::Tool
