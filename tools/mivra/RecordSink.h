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

/// A sink that records: into files one after the other, whose locations it gets from GetNextUri when it
/// begins them. The first file begins with the first key frame of any video stream, each stream in it with
/// its own. The rotation period is in milliseconds of media: a file that has lasted so long ends where the
/// leading stream, the first that carries video, has its next key frame, which is the first packet of the
/// next file; so no packet is lost or written twice. Where there is no video that holds for sound. Transport
/// streams keep the session's times, so that the files can be joined; in every other format each file begins
/// at 0.
///
/// Open makes sure that files can be written where the first one would be, and leaves none; what is no
/// regular file, a named pipe say, stays open. Stop finishes the last file; whoever stops the session calls
/// it when the session has ended.
class RecordSink : public Media::IMediaSink {
public:
    /// place: where the first file would be now. SetNextUri before Open.
    RecordSink(const OutputFormat& format, std::string place, std::shared_ptr<RelayShared> shared);
    ~RecordSink() override;

    void Open() override;
    void Start(bool buffering) override;
    void Stop() override;
    void AddStream(int streamIndex, Common::MediaType* type) override;
    void PushMedia(int streamIndex, Common::PacketBuffer* sample) override;

    /// What is decoded from this time on (kPacketTimeBase) is not written; the monitor is told when all
    /// before it has come. Any thread.
    void EndAt(std::int64_t time) { end = time; }
    /// When the first packet is shown, in kPacketTimeBase; kUnsetTime while there is none. Any thread.
    std::int64_t Begun() const { return begun.load(); }
    /// Of every file. After Stop, or on the session's thread.
    const std::vector<OutputSummary>& Summaries() const { return summaries; }

private:
    bool isEntry(int stream, Common::PacketBuffer& sample);
    bool isPastEnd(int stream, std::int64_t dts);
    bool beginFile(Common::PacketBuffer& sample);
    bool finishFile();
    const std::string& path() const;
    void write(int stream, Common::PacketBuffer& sample);
    void refused();
    void fail(ExitCode code, const Problem& problem);

    const OutputFormat& format;
    const std::string place;
    const std::shared_ptr<RelayShared> shared;
    std::unique_ptr<Muxer> opened;  // what Open made: to look, or of what is opened only once
    std::unique_ptr<Muxer> muxer;   // of the present file
    std::vector<Common::MediaType> types;
    std::vector<bool> taken;  // streams that the format holds
    std::vector<bool> ended;  // those that have come to the end
    int lead = -1;
    bool started = false;
    bool over = false;
    bool stopped = false;
    bool badPackets = false;
    std::int64_t fileBegin = 0;  // dts of its first packet
    std::atomic<std::int64_t> begun{kUnsetTime};
    std::atomic<std::int64_t> end{INT64_MAX};
    std::vector<OutputSummary> summaries;
};

}  // namespace Mivra::Tool
