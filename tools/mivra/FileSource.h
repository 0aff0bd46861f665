#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "mivra/common/runtime/Reference.h"
#include "mivra/media/IInteractiveMediaSource.h"
#include "tools/mivra/ContinuousTime.h"
#include "tools/mivra/Demuxer.h"
#include "tools/mivra/PlaybackClock.h"
#include "tools/mivra/RelayMonitor.h"

namespace Mivra::Tool {

/// Tells a file from another one of the same name; all zero for what is no file.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t changed = 0;  // nanoseconds

    static FileIdentity Of(const std::string& path);
    bool operator==(const FileIdentity&) const = default;
};

struct FileSourceOptions {
    std::string path;
    int index = 0;            ///< among the relay's inputs
    bool realtime = false;    ///< no faster than it plays
    std::int64_t length = 0;  ///< so much of it, in kPacketTimeBase; 0: all
    bool stills = true;       ///< covers of sound are streams of pictures; else of data, and not delivered
    std::int64_t until = 0;   ///< nothing decoded at or after this time of the media is needed; 0: all is
    int loops = -1;           ///< when it is set to loop: so many rounds more; below 0: without end
};

/// A file, or standard input, as a source of the packets in it. Open looks into it and throws when that
/// fails; Start announces its streams and starts its thread, which delivers until the end of the file. Then
/// it is Eos and has told the monitor. It waits while its buffers are all in flight. Packets of a file that
/// is read as fast as it goes are delivered a few at a time, which wakes the session less often.
///
/// Whoever steers it may do so from any thread but its own. What it delivers goes on in time without a jump,
/// whatever the media does; the first packet of each stream after a jump is a Discontinuity:
/// - A seek (SetPosition) goes to the key frame at or before the position. Asked for before Open it is where
///   every round begins, and Open throws when it is not possible; later it is carried out between two
///   packets, paused or not, the last one that was asked for. A seek that is not possible is a non-fatal
///   error.
/// - Loop: at the end the file is opened anew and read again. When another file has its name by then, whose
///   streams have to be of the same kinds, that is the source changed.
/// - Pause and Resume hold it between packets.
/// - A playback rate lets it go so many times as fast as it plays, whether or not it is to be in real time;
///   times of packets stay as they are. Without one it goes as fast as it is taken from it.
/// - Without AllowEos it stays at its end, not Eos, until it is sought or stopped.
/// Position is that of the media, 0 at its beginning. Monitor and CachePath mean nothing to it.
class FileSource : public Media::IInteractiveMediaSource {
public:
    FileSource(FileSourceOptions options, std::shared_ptr<RelayShared> shared);
    ~FileSource() override;

    void Open() override;
    void Start() override;
    /// Any thread but its own: ends Open and the delivery, and waits for the thread's end. Does so too when
    /// it throws because no thread can be started to tell of it.
    void Stop() override;
    int GetStreamCount() override;
    Common::MediaType GetMediaType(int streamIndex) override;
    void Discard(std::map<int, bool> streams) override;
    /// Packets come as they are in the file: any other type is a non-fatal error.
    void SetDesiredOutputType(int streamIndex, Common::MediaType type) override;
    void Pause() override;
    void Resume() override;
    /// Any action but a seek is a non-fatal error.
    void OnActionRequired(std::shared_ptr<Media::ActionRequiredEventArgs> args) override;

    /// What has been delivered and what will be in all, in kPacketTimeBase; 0: unknown, or without end. Any
    /// thread.
    std::int64_t Played() const { return played.load(); }
    std::int64_t PlayingTime() const;
    /// Time of the media that was sought before it opened, the key frame's; it is 0 in the packets' times. 0
    /// without a seek. Any thread.
    std::int64_t Begin() const { return roundBegin.load(); }

private:
    void openInput();
    void seekBeforeStart(std::int64_t target);
    void run();
    void relay();
    bool attend();
    void seek(std::int64_t target);
    bool goOnAtEnd();
    void beginAnew();
    void takeTypes(const Demuxer& next);
    std::string whyNotSeek(std::int64_t target) const;
    void markJump(std::int64_t to);
    bool deliver(AVPacket& packet);
    Common::PacketBuffer* take(int size);
    void send();
    bool isPastEnd(int stream, std::int64_t dts);
    void applyDiscards();
    bool waitUntilDue(std::int64_t dts);
    void fill(Common::PacketBuffer& buffer, const AVPacket& packet, std::int64_t shift);
    void fillSideData(Common::PacketBuffer& buffer, const AVPacket& packet) const;
    void awaitConsumed();
    void noteDamage();
    void finish();
    void fail(ExitCode code, const Problem& problem);
    void halt();

    const FileSourceOptions options;
    const std::shared_ptr<RelayShared> shared;
    PacketLane& lane;
    std::size_t mostInBatch = 1;
    std::vector<Common::MediaType> types;  // set once, by Open
    std::unique_ptr<Demuxer> demuxer;      // changed under lock
    FileIdentity identity;
    std::atomic<bool> stopping{false};
    // Guards the thread and what it waits for.
    mutable std::mutex gate;
    std::condition_variable gateChanged;
    std::thread thread;
    std::optional<std::int64_t> wantedPosition;  // under gate
    std::map<int, bool> wantedDiscards;          // under gate
    std::atomic<bool> paused{false};
    std::atomic<bool> attention{false};  // pause or seek
    std::atomic<bool> discardsChanged{false};
    std::atomic<std::int64_t> played{0};
    std::atomic<std::int64_t> roundBegin{0};  // of the media, the key frame's time
    // The thread's own.
    std::vector<Common::Reference<Common::PacketBuffer>> batch;
    std::int64_t batchBytes = 0;
    std::int64_t batchPosition = 0;
    std::int64_t limit = 0;   // of decoding times as delivered; 0: none
    std::vector<bool> ended;  // streams that have reached the limit
    int streamsLeft = 0;
    std::unique_ptr<ContinuousTime> time;
    std::optional<PlaybackClock> clock;
    std::vector<bool> jumped;                       // streams whose next packet comes after a jump
    std::map<int, Common::MediaType> changedTypes;  // what their next packets carry
    std::int64_t roundTarget = 0;                   // what was sought at first
    int rounds = 0;
    bool deliveredInRound = false;
    std::string damage;
};

}  // namespace Mivra::Tool
