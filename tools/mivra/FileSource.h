#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mivra/common/runtime/Reference.h"
#include "mivra/media/IInteractiveMediaSource.h"
#include "tools/mivra/Demuxer.h"
#include "tools/mivra/RelayMonitor.h"

namespace Mivra::Tool {

struct FileSourceOptions {
    std::string path;
    int index = 0;            ///< among the relay's inputs
    bool realtime = false;    ///< no faster than it plays
    std::int64_t length = 0;  ///< so much of it, in kPacketTimeBase; 0: all
};

/// A file, or standard input, as a source of the packets in it. Open looks into it and throws when that
/// fails; Start announces its streams and starts its thread, which delivers until the end of the file. Then
/// it is Eos and has told the monitor. It waits while its buffers are all in flight. Pause and Resume hold it
/// between packets; it cannot seek. Packets of a file that is read as fast as it goes are delivered a few at
/// a time, which wakes the session less often.
class FileSource : public Media::IInteractiveMediaSource {
public:
    FileSource(FileSourceOptions options, std::shared_ptr<RelayShared> shared);
    ~FileSource() override;

    void Open() override;
    void Start() override;
    /// Any thread but its own: ends Open and the delivery, and waits for the thread's end.
    void Stop() override;
    int GetStreamCount() override;
    Common::MediaType GetMediaType(int streamIndex) override;
    void Discard(std::map<int, bool> streams) override;
    /// Packets come as they are in the file: any other type is a non-fatal error.
    void SetDesiredOutputType(int streamIndex, Common::MediaType type) override;
    void Pause() override;
    void Resume() override;
    /// Any action is a non-fatal error.
    void OnActionRequired(std::shared_ptr<Media::ActionRequiredEventArgs> args) override;

private:
    using Clock = std::chrono::steady_clock;

    void run();
    void relay();
    bool deliver(AVPacket& packet);
    Common::PacketBuffer* take(int size);
    void send();
    bool isPastEnd(int stream, std::int64_t dts);
    void applyDiscards();
    bool waitUntilDue(std::int64_t dts);
    void waitWhilePaused();
    void fill(Common::PacketBuffer& buffer, const AVPacket& packet);
    void fillSideData(Common::PacketBuffer& buffer, const AVPacket& packet) const;
    void finish();
    void fail(const Problem& problem);
    void halt();

    const FileSourceOptions options;
    const std::shared_ptr<RelayShared> shared;
    PacketLane& lane;
    const std::size_t mostInBatch;
    std::unique_ptr<Demuxer> demuxer;  // set once, under lock
    std::atomic<bool> stopping{false};
    // Guards the thread and what it waits for.
    std::mutex gate;
    std::condition_variable gateChanged;
    std::thread thread;
    std::atomic<bool> paused{false};
    std::map<int, bool> wantedDiscards;  // under gate
    std::atomic<bool> discardsChanged{false};
    // The thread's own.
    std::vector<Common::Reference<Common::PacketBuffer>> batch;
    std::int64_t batchBytes = 0;
    std::vector<bool> ended;  // streams that have reached options.length
    int streamsLeft = 0;
    bool anchored = false;
    Clock::time_point anchor;
    std::int64_t anchorDts = 0;
};

}  // namespace Mivra::Tool
