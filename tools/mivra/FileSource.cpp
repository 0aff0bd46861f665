#include "tools/mivra/FileSource.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <system_error>

#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/Reference.h"
#include "tools/mivra/NetworkAddress.h"
#include "tools/mivra/PacketFlags.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {
namespace {

using Common::AutoLock;
using Common::GeneralException;
using Common::MediaType;
using Common::PacketBuffer;
using Media::MediaState;

/// What is delivered at a time.
constexpr std::size_t kMostInBatch = 32;
constexpr std::int64_t kMostBatchBytes = 256 << 10;

void setNewType(PacketBuffer& buffer, std::unique_ptr<MediaType> type) {
    delete buffer.NewMediaType();
    buffer.NewMediaType() = type.release();
}

/// The numbers that transport streams give to streams of a kind; others travel with their packets.
bool isUsualStreamId(std::uint8_t id, Common::ContentType_t kind) {
    return id == (kind == Common::ContentType_t::Video ? 0xE0 : 0xC0);
}

}  // namespace

FileSource::FileSource(FileSourceOptions what, std::shared_ptr<RelayShared> with)
    : options(std::move(what)), shared(std::move(with)), lane(shared->budget.Lane(options.index)) {
    canPause = true;
    isNetworkSource = NetworkAddress::IsOne(options.path);
}

FileSource::~FileSource() {
    destroying = true;
    halt();
}

void FileSource::Open() {
    try {
        openInput();
    } catch (const ProblemError& error) {
        if (!stopping && !shared->stop.IsRaised()) {  // else it was told to give up
            shared->monitor.Fail(error.code, error.problem);
        }
        throw GeneralException("%s", error.what());
    }
    setStateInThread(MediaState::Opened);
}

void FileSource::openInput() {
    const double rate = GetPlaybackRate();
    const bool isRateSet = rate != std::numeric_limits<double>::max();
    if (isRateSet && !(rate > 0 && std::isfinite(rate))) {
        throw ProblemError(ExitCode::Usage, {"the playback rate has to be above 0", options.path, ""});
    }
    clock.emplace(isRateSet ? rate : options.realtime ? 1 : -1);
    mostInBatch = clock->Runs() || options.path == kStandardStream || isNetworkSource ? 1 : kMostInBatch;
    batch.reserve(mostInBatch);
    identity = FileIdentity::Of(options.path);
    auto made = std::make_unique<Demuxer>(options.path, &shared->board);
    {
        AutoLock hold(lock);
        demuxer = std::move(made);
    }
    if (stopping) {
        throw GeneralException("stopped");
    }
    demuxer->Open();
    for (int i = 0; i < demuxer->StreamCount(); ++i) {
        types.push_back(demuxer->Type(i));
        if (!options.stills && isStill(types.back())) {
            types.back().ContentType() = Common::ContentType_t::Binary;
            demuxer->SetDiscarded(i, true);
        }
        const auto kind = types.back().ContentType();
        const bool read = kind == Common::ContentType_t::Video || kind == Common::ContentType_t::Audio;
        ended.push_back(!read);
        streamsLeft += read ? 1 : 0;
    }
    time = std::make_unique<ContinuousTime>(demuxer->StreamCount());
    jumped.resize(types.size());
    canSeek = demuxer->CanSeek();
    changeable = demuxer->IsFile() && options.path != kStandardStream;
    if (loop && !changeable) {
        throw ProblemError(ExitCode::CannotOpen, {"the input cannot be read again from its beginning",
                                                  options.path, "only a file can loop"});
    }
    {
        AutoLock hold(lock);
        duration = demuxer->Duration();
    }
    std::optional<std::int64_t> begin;
    {
        const std::lock_guard hold(gate);
        begin = std::exchange(wantedPosition, std::nullopt);
    }
    if (begin.has_value()) {
        seekBeforeStart(*begin);
    }
    limit = options.length > 0 ? options.length : options.until > 0 ? options.until - roundBegin : 0;
}

void FileSource::Start() {
    const int count = GetStreamCount();
    for (int i = 0; i < count; ++i) {
        MediaType type = GetMediaType(i);
        onNewStream(i, count, &type);
    }
    setStateInThread(MediaState::Started);
    const std::lock_guard hold(gate);
    if (!stopping) {
        thread = std::thread([this] { run(); });
    }
}

void FileSource::Stop() {
    try {
        setStateInThread(MediaState::Stopping);
    } catch (const std::system_error&) {
        // No thread to tell of it: it ends all the same.
    }
    halt();
    setStateInThread(MediaState::Stopped);
}

void FileSource::halt() {
    std::thread own;
    {
        const std::lock_guard hold(gate);
        stopping = true;
        own = std::move(thread);
    }
    gateChanged.notify_all();
    lane.Close();
    shared->pace.Wake();
    {
        AutoLock hold(lock);
        if (demuxer != nullptr) {
            demuxer->Interrupt();
        }
    }
    if (own.joinable()) {
        own.join();
    }
}

int FileSource::GetStreamCount() {
    return static_cast<int>(types.size());
}

MediaType FileSource::GetMediaType(int streamIndex) {
    if (streamIndex < 0 || streamIndex >= GetStreamCount()) {
        throw GeneralException("FileSource::GetMediaType: there is no stream %d", streamIndex);
    }
    return types[static_cast<std::size_t>(streamIndex)];
}

void FileSource::Discard(std::map<int, bool> streams) {
    const std::lock_guard hold(gate);
    for (const auto& [index, discarded] : streams) {
        wantedDiscards[index] = discarded;
    }
    discardsChanged = true;
}

void FileSource::SetDesiredOutputType(int streamIndex, MediaType type) {
    if (type != GetMediaType(streamIndex)) {
        onError("a file delivers its packets as they are: " + options.path, false);
    }
}

void FileSource::run() {
    try {
        relay();
        send();
        noteDamage();
        if (!damage.empty()) {
            const Problem problem{"damaged input: " + damage, options.path, "what could be read is written"};
            shared->monitor.Damaged(problem);
            raiseErrorInThread(toLine(problem), false);
        }
    } catch (const ProblemError& error) {
        awaitConsumed();
        fail(error.code, error.problem);
    } catch (const std::bad_alloc&) {
        fail(ExitCode::Failed, {"no memory for a packet of the input", options.path, "is the file damaged?"});
    } catch (const std::exception& error) {
        fail(ExitCode::Failed, {std::string("cannot read on: ") + error.what(), options.path, ""});
    }
    finish();
}

/// An error ends the session at once, with what it has not passed on yet: what came before has its time.
void FileSource::awaitConsumed() {
    constexpr std::chrono::milliseconds kLook{10};
    constexpr std::chrono::seconds kMost{2};
    const auto end = std::chrono::steady_clock::now() + kMost;
    std::unique_lock hold(gate);
    while (!stopping && shared->monitor.Queued() > 0 && std::chrono::steady_clock::now() < end) {
        gateChanged.wait_for(hold, kLook);
    }
}

void FileSource::noteDamage() {
    if (damage.empty()) {
        damage = demuxer->Damage();
    }
}

void FileSource::fail(ExitCode code, const Problem& problem) {
    shared->monitor.Fail(code, problem);
    try {
        raiseErrorInThread(toLine(problem), true);
    } catch (const std::system_error&) {
        onError(toLine(problem), true);  // no thread to be had
    }
}

void FileSource::finish() {
    eos = true;
    shared->pace.Finish(options.index);
    shared->monitor.SourceEnded();
}

void FileSource::relay() {
    while (!stopping && streamsLeft > 0) {
        if (discardsChanged.exchange(false)) {
            applyDiscards();
        }
        while (attention) {
            if (!attend()) {
                return;
            }
        }
        const Demuxer::Result result = demuxer->Read();
        const bool goesOn = result == Demuxer::Result::Packet ? deliver(demuxer->Packet())
                                                              : result == Demuxer::Result::End && goOnAtEnd();
        if (!goesOn) {
            return;
        }
    }
}

void FileSource::applyDiscards() {
    const std::lock_guard hold(gate);
    for (const auto& [index, discarded] : wantedDiscards) {
        if (index >= 0 && index < demuxer->StreamCount()) {
            demuxer->SetDiscarded(index, discarded);
        }
    }
}

// False when the relay is over.
bool FileSource::deliver(AVPacket& packet) {
    const int stream = packet.stream_index;
    const AVRational base = demuxer->TimeBase(stream);
    const std::int64_t mediaDts = demuxer->LastDts(stream);
    const std::int64_t shift = time->Pass(stream, rescale(packet.pts, base, kPacketTimeBase), mediaDts,
                                          rescale(packet.duration, base, kPacketTimeBase));
    const std::int64_t dts = shifted(mediaDts, shift);
    deliveredInRound = true;
    if (limit > 0 && isPastEnd(stream, dts)) {
        return true;
    }
    if (clock->Runs() && !waitUntilDue(dts)) {
        return false;
    }
    if (!shared->pace.TryAdvance(options.index, dts)) {
        send();
        shared->pace.Advance(options.index, dts, stopping);
    }
    auto buffer = Common::Reference<PacketBuffer>::Adopt(take(packet.size + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!buffer) {
        return false;
    }
    fill(*buffer.get(), packet, shift);
    batchPosition = mediaDts;
    batchBytes += packet.size;
    batch.push_back(std::move(buffer));
    if (batch.size() >= mostInBatch || batchBytes >= kMostBatchBytes) {
        send();
    }
    return true;
}

// Null when the relay is over.
PacketBuffer* FileSource::take(int size) {
    PacketBuffer* const buffer = lane.TryTake(size);
    if (buffer != nullptr) {
        return buffer;
    }
    send();
    return lane.Take(size);
}

void FileSource::send() {
    if (batch.empty()) {
        return;
    }
    {
        AutoLock hold(lock);
        position = std::max(position, batchPosition);
    }
    played = std::max(played.load(), batch.back()->Dts());
    shared->monitor.Delivered(batch.size(), batchBytes);
    for (const Common::Reference<PacketBuffer>& buffer : batch) {
        onNewSample(buffer->StreamIndex(), buffer.get());
    }
    batch.clear();
    batchBytes = 0;
}

bool FileSource::isPastEnd(int stream, std::int64_t dts) {
    const auto index = static_cast<std::size_t>(stream);
    if (!ended[index] && dts >= limit) {
        ended[index] = true;
        --streamsLeft;
    }
    return ended[index];
}

void FileSource::fill(PacketBuffer& buffer, const AVPacket& packet, std::int64_t shift) {
    const auto size = static_cast<std::size_t>(packet.size);
    if (size > 0) {
        std::memcpy(buffer.Buffer(), packet.data, size);
    }
    // What reads bits may look this far beyond the end.
    std::memset(buffer.Buffer() + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
    buffer.ActualSize() = packet.size;
    const AVRational base = demuxer->TimeBase(packet.stream_index);
    buffer.Pts() = shifted(rescale(packet.pts, base, kPacketTimeBase), shift);
    const std::int64_t dts = packet.dts != kUnsetTime ? rescale(packet.dts, base, kPacketTimeBase)
                                                      : demuxer->LastDts(packet.stream_index);
    buffer.Dts() = shifted(dts, shift);
    buffer.Duration() = rescale(packet.duration, base, kPacketTimeBase);
    buffer.StreamIndex() = packet.stream_index;
    const bool corrupt = (packet.flags & AV_PKT_FLAG_CORRUPT) != 0;
    buffer.KeyFrame() = (packet.flags & AV_PKT_FLAG_KEY) != 0;
    buffer.CleanPoint() = buffer.KeyFrame() && !corrupt;
    const auto index = static_cast<std::size_t>(packet.stream_index);
    buffer.Discontinuity() = corrupt || jumped[index];
    jumped[index] = false;
    buffer.OneMessage() = true;
    buffer.FilePosition() = packet.pos;
    setPacketFlags(buffer, packet.flags);
    if (const auto changed = changedTypes.extract(packet.stream_index)) {
        setNewType(buffer, std::make_unique<MediaType>(changed.mapped()));
    }
    if (packet.side_data_elems > 0) {
        fillSideData(buffer, packet);
    }
}

void FileSource::fillSideData(PacketBuffer& buffer, const AVPacket& packet) const {
    const MediaType& type = demuxer->Type(packet.stream_index);
    for (int i = 0; i < packet.side_data_elems; ++i) {
        const AVPacketSideData& data = packet.side_data[i];
        if (data.type == AV_PKT_DATA_MPEGTS_STREAM_ID && data.size == 1 &&
            isUsualStreamId(data.data[0], type.ContentType())) {
            continue;
        }
        if (data.type == AV_PKT_DATA_NEW_EXTRADATA) {
            auto changed = std::make_unique<MediaType>(type);
            setPrivateData(*changed, data.data, data.size);
            setNewType(buffer, std::move(changed));
            continue;
        }
        buffer.ExtraData()[kPacketSideData + std::to_string(static_cast<int>(data.type))] =
            std::string(reinterpret_cast<const char*>(data.data), data.size);
    }
}

}  // namespace Mivra::Tool
