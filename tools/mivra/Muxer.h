#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "tools/mivra/FfmpegSupport.h"
#include "tools/mivra/MediaFile.h"
#include "tools/mivra/OutputFormat.h"
#include "tools/mivra/SampleClock.h"

namespace Mivra::Tool {

/// What is told of an output that failed while writing.
Problem writeProblem(const std::string& path, const std::string& why);

/// One output, put together with libavformat: packets are interleaved by their decoding times and written as
/// they are. It keeps references to packets until they are written, as many as their pools allow (RelayPool);
/// beyond that it keeps copies. It never writes into a packet. One thread at a time.
class Muxer {
public:
    enum class Result { Done, BadPacket, Failed };

    /// Opens the file, which keeps what it holds until Begin. ProblemError when it cannot be opened.
    Muxer(const std::string& path, const OutputFormat& format);
    ~Muxer();
    Muxer(const Muxer&) = delete;
    Muxer& operator=(const Muxer&) = delete;

    /// Takes of these streams, which are known by their place, those that the format holds, and writes the
    /// header. ProblemError when none is left, the format refuses them, or writing fails.
    void Begin(const std::vector<Common::MediaType>& types);
    /// Whether Begin has taken the stream.
    bool Takes(int stream) const;
    /// BadPacket: this one cannot be written, others may; Failed: the file cannot be written any more.
    Result Write(int stream, Common::PacketBuffer& packet);
    /// Writes what is waiting and what ends the file, and closes it. False when that fails. Nothing is
    /// written any more once a Write has failed.
    bool Finish();

    /// Names, after Begin, the streams that it did not take; empty when it took all.
    const std::string& LeftOut() const { return leftOut; }
    /// Why the last call failed.
    const std::string& ErrorText() const { return error; }

private:
    struct Stream {
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
    void writeHeader();
    void setTimes(Stream& stream, Common::PacketBuffer& from);
    int samplesIn(const Stream& stream, int size) const;
    void keepOrder(Stream& stream);
    bool setPayload(Common::PacketBuffer& from);
    bool setSideData(Common::PacketBuffer& from);
    Result explain(int code, const std::string& message);

    const std::string path;
    const OutputFormat& format;
    FfmpegUse ffmpeg;
    OutputFile file;
    std::unique_ptr<AVFormatContext, ContextDeleter> context;
    PacketPointer packet;
    std::vector<Stream> streams;  // by the place among the types
    bool headerWritten = false;
    bool failed = false;
    std::string leftOut;
    std::string error;
};

}  // namespace Mivra::Tool
