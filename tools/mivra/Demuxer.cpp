#include "tools/mivra/Demuxer.h"

#include <algorithm>
#include <cstring>
#include <system_error>
#include <utility>

#include "tools/mivra/FfmpegLog.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {
namespace {

using FFmpeg::FfmpegProxy;

/// Sizes of a packet of MPEG-2 transport streams, with what some carriers add.
constexpr int kTransportPackets[] = {188, 192, 204};

constexpr std::int64_t kBeforeBegin = 10 * kPacketSecond;

[[noreturn]] void failToOpen(const std::string& path, const std::string& why, const std::string& remedy) {
    throw ProblemError(ExitCode::CannotOpen, {"cannot open the input: " + why, path, remedy});
}

bool isWanted(const AVStream& stream) {
    const AVMediaType kind = stream.codecpar->codec_type;
    return kind == AVMEDIA_TYPE_VIDEO || kind == AVMEDIA_TYPE_AUDIO;
}

void requireFfmpeg(bool loaded) {
    if (!loaded) {
        throw ProblemError(ExitCode::CannotOpen, ffmpegMissing());
    }
    if (const char* const name = missingForReading()) {
        throw ProblemError(ExitCode::CannotOpen, functionMissing(name));
    }
}

/// The path, once it is sure that FFmpeg is there.
const std::string& withFfmpeg(const std::string& path, bool loaded) {
    requireFfmpeg(loaded);
    return path;
}

}  // namespace

Demuxer::Demuxer(const std::string& name, NetworkBoard* board) try
    : path(name), file(openInput(withFfmpeg(name, ffmpeg.IsLoaded()), board)), packet(makePacket()) {
} catch (const std::system_error& error) {
    failToOpen(name, error.code().message(), "check the name and the permissions");
}

Demuxer::~Demuxer() = default;

void Demuxer::Open() {
    AVFormatContext* made = FfmpegProxy::avformat_alloc_context();
    if (made == nullptr) {
        throw std::bad_alloc();
    }
    made->pb = file->Context();
    AVDictionary* options = nullptr;
    FfmpegProxy::av_dict_set(&options, "scan_all_pmts", "1", 0);
    // Frees the context when it fails.
    int error = FfmpegProxy::avformat_open_input(&made, path.c_str(), nullptr, &options);
    FfmpegProxy::av_dict_free(&options);
    if (error < 0) {
        failAtOpen(error);
    }
    context.reset(made);
    {
        // It reads the first seconds of the media, and keeps them: what is wrong with them shows here only.
        const FfmpegErrorWatch watch(made);
        error = FfmpegProxy::avformat_find_stream_info(made, nullptr);
        noteDamage(watch.FirstError());
    }
    if (error < 0 && made->nb_streams == 0) {
        failAtOpen(error);
    }
    bool any = false;
    for (unsigned i = 0; i < made->nb_streams; ++i) {
        AVStream& stream = *made->streams[i];
        stream.discard = isWanted(stream) ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        any = any || isWanted(stream);
        types.push_back(toMediaType(stream));
    }
    if (!any) {
        file->Check();
        failToOpen(path, "it has neither video nor audio", "is it a media file?");
    }
    timeline = std::make_unique<InputTimeline>(*made);
    entered.assign(types.size(), true);
}

void Demuxer::failAtOpen(int error) const {
    file->Check();
    if (error == AVERROR_EXIT) {
        failToOpen(path, "the wait for it was ended", "nothing was read");
    }
    failToOpen(path, errorText(error), "is it a media file?");
}

std::int64_t Demuxer::Duration() const {
    const std::int64_t duration = context->duration;
    return duration > 0 ? rescale(duration, {1, AV_TIME_BASE}, kPacketTimeBase) : 0;
}

void Demuxer::SetDiscarded(int stream, bool discarded) {
    AVStream& of = *context->streams[stream];
    of.discard = discarded || !isWanted(of) ? AVDISCARD_ALL : AVDISCARD_DEFAULT;
}

AVRational Demuxer::TimeBase(int stream) const {
    return context->streams[stream]->time_base;
}

Demuxer::Result Demuxer::Read() {
    if (!ahead.empty()) {
        packet = std::move(ahead.front());
        ahead.pop_front();
        timeline->Apply(*packet);
        return Result::Packet;
    }
    const FfmpegErrorWatch watch(context.get());
    do {
        const int error = readWanted();
        if (error < 0 && interrupted) {
            return Result::Interrupted;  // what it takes that for is no damage
        }
        if (error < 0) {
            file->Check();
        }
        noteDamage(watch.FirstError());
        if (error < 0) {
            return finish(error);
        }
    } while (isBeforeEntry(*packet));
    if ((packet->flags & AV_PKT_FLAG_CORRUPT) != 0) {
        noteDamage("a packet is cut short or corrupt");
    }
    timeline->Apply(*packet);
    return Result::Packet;
}

// The next packet of a stream that is wanted, with the input's times; or an error.
int Demuxer::readWanted() {
    for (;;) {
        FfmpegProxy::av_packet_unref(packet.get());
        const int error = FfmpegProxy::av_read_frame(context.get(), packet.get());
        if (error == AVERROR(EAGAIN)) {
            continue;
        }
        // A stream that shows up later was not announced and goes nowhere.
        if (error < 0 || (packet->stream_index < StreamCount() &&
                          context->streams[packet->stream_index]->discard != AVDISCARD_ALL)) {
            return error;
        }
    }
}

std::optional<std::int64_t> Demuxer::SeekToKeyFrame(std::int64_t time) {
    const int lead = leadingStream();
    if (lead < 0 || !CanSeek()) {
        return std::nullopt;
    }
    ahead.clear();
    for (std::int64_t back = 0;; back = back * 2 + kPacketSecond) {
        const std::int64_t from = std::max<std::int64_t>(time - back, 0);
        if (!moveTo(lead, from)) {
            return std::nullopt;
        }
        // Formats without an index lead to some packet, from which the next key frame may be too late.
        const std::optional<Mark> mark = findKeyFrame(lead, time, from == 0);
        if (mark.has_value()) {
            return moveTo(lead, from) && takeUp(lead, *mark) ? std::optional(mark->time) : std::nullopt;
        }
        if (from == 0) {
            return std::nullopt;
        }
    }
}

int Demuxer::leadingStream() const {
    int lead = -1;
    for (int i = 0; i < StreamCount(); ++i) {
        const AVStream& stream = *context->streams[i];
        if (stream.discard == AVDISCARD_ALL) {
            continue;
        }
        // A cover picture is one packet.
        const bool still = (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
        if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !still) {
            return i;
        }
        lead = lead < 0 && !still ? i : lead;
    }
    return lead;
}

bool Demuxer::moveTo(int stream, std::int64_t time) {
    // The first packets may be decoded before 0.
    const bool begin = time == 0;
    const std::int64_t to = timeline->ToInput(begin ? -kBeforeBegin : time, TimeBase(stream));
    const std::int64_t latest = begin ? INT64_MAX : to;
    return FfmpegProxy::avformat_seek_file(context.get(), stream, INT64_MIN, to, latest, 0) >= 0;
}

std::int64_t Demuxer::shownAt(const AVPacket& of) const {
    return timeline->ToTimeline(of.pts != kUnsetTime ? of.pts : of.dts, TimeBase(of.stream_index));
}

std::optional<Demuxer::Mark> Demuxer::findKeyFrame(int stream, std::int64_t time, bool orLater) {
    std::optional<Mark> found;
    while (readWanted() >= 0) {
        if (packet->stream_index != stream) {
            continue;
        }
        const std::int64_t shown = shownAt(*packet);
        const std::int64_t decoded = timeline->ToTimeline(packet->dts, TimeBase(stream));
        if ((found.has_value() || !orLater) && shown > time &&
            (packet->dts == kUnsetTime || decoded > time)) {
            break;
        }
        const bool key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
        if (key && shown != kUnsetTime && (shown <= time || (orLater && !found.has_value()))) {
            found = Mark{packet->pts, packet->dts, shown};
        }
    }
    return found;
}

// The key frame first, then what came before it in the input but is shown later.
bool Demuxer::takeUp(int stream, const Mark& mark) {
    timeline->Restart();
    entry = mark.time;
    entered.assign(entered.size(), false);
    entered[static_cast<std::size_t>(stream)] = true;
    while (readWanted() >= 0) {
        const bool isMark = packet->stream_index == stream && (packet->flags & AV_PKT_FLAG_KEY) != 0 &&
                            packet->pts == mark.pts && packet->dts == mark.dts;
        if (isMark || (packet->stream_index != stream && !isBeforeEntry(*packet))) {
            auto next = makePacket();
            std::swap(next, packet);
            ahead.insert(isMark ? ahead.begin() : ahead.end(), std::move(next));
        }
        if (isMark) {
            return true;
        }
    }
    return false;
}

bool Demuxer::isBeforeEntry(const AVPacket& of) {
    const auto index = static_cast<std::size_t>(of.stream_index);
    if (!entered[index]) {
        const std::int64_t shown = shownAt(of);
        entered[index] = (of.flags & AV_PKT_FLAG_KEY) != 0 && (shown == kUnsetTime || shown >= entry);
    }
    return !entered[index];
}

Demuxer::Result Demuxer::finish(int error) {
    if (error == AVERROR_EXIT) {
        return Result::Interrupted;
    }
    if (error != AVERROR_EOF) {
        noteDamage(errorText(error));
    } else if (endsInsidePacket()) {
        noteDamage("it ends in the middle of a packet");
    }
    return Result::End;
}

void Demuxer::noteDamage(const std::string& text) {
    if (damage.empty()) {
        damage = text;
    }
}

bool Demuxer::endsInsidePacket() const {
    // Only of a stream that cannot seek what was read is all there is.
    const std::int64_t whole = file->Size() >= 0 ? file->Size() : file->BytesRead();
    if (std::strcmp(context->iformat->name, "mpegts") != 0 || whole <= 0) {
        return false;
    }
    for (const int size : kTransportPackets) {
        if (whole % size == 0) {
            return false;
        }
    }
    return true;
}

}  // namespace Mivra::Tool
