#include "tools/mivra/Demuxer.h"

#include <cstring>
#include <system_error>

#include "tools/mivra/FfmpegLog.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {
namespace {

using FFmpeg::FfmpegProxy;

/// Sizes of a packet of MPEG-2 transport streams, with what some carriers add.
constexpr int kTransportPackets[] = {188, 192, 204};

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

Demuxer::Demuxer(const std::string& name) try
    : path(name), file(withFfmpeg(name, ffmpeg.IsLoaded())), packet(makePacket()) {
} catch (const std::system_error& error) {
    failToOpen(name, error.code().message(), "check the name and the permissions");
}

Demuxer::~Demuxer() = default;

void Demuxer::Open() {
    AVFormatContext* made = FfmpegProxy::avformat_alloc_context();
    if (made == nullptr) {
        throw std::bad_alloc();
    }
    made->pb = file.Context();
    AVDictionary* options = nullptr;
    FfmpegProxy::av_dict_set(&options, "scan_all_pmts", "1", 0);
    // Frees the context when it fails.
    int error = FfmpegProxy::avformat_open_input(&made, path.c_str(), nullptr, &options);
    FfmpegProxy::av_dict_free(&options);
    if (error < 0) {
        failToOpen(path, errorText(error), "is it a media file?");
    }
    context.reset(made);
    {
        // It reads the first seconds of the media, and keeps them: what is wrong with them shows here only.
        const FfmpegErrorWatch watch(made);
        error = FfmpegProxy::avformat_find_stream_info(made, nullptr);
        noteDamage(watch.FirstError());
    }
    if (error < 0 && made->nb_streams == 0) {
        failToOpen(path, errorText(error), "is it a media file?");
    }
    bool any = false;
    for (unsigned i = 0; i < made->nb_streams; ++i) {
        AVStream& stream = *made->streams[i];
        stream.discard = isWanted(stream) ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        any = any || isWanted(stream);
        types.push_back(toMediaType(stream));
    }
    if (!any) {
        failToOpen(path, "it has neither video nor audio", "is it a media file?");
    }
    timeline = std::make_unique<InputTimeline>(*made);
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
    const FfmpegErrorWatch watch(context.get());
    for (;;) {
        FfmpegProxy::av_packet_unref(packet.get());
        const int error = FfmpegProxy::av_read_frame(context.get(), packet.get());
        if (error == AVERROR(EAGAIN)) {
            continue;
        }
        noteDamage(watch.FirstError());
        if (error < 0) {
            return finish(error);
        }
        // A stream that shows up later was not announced and goes nowhere.
        if (packet->stream_index < StreamCount() &&
            context->streams[packet->stream_index]->discard != AVDISCARD_ALL) {
            break;
        }
    }
    if ((packet->flags & AV_PKT_FLAG_CORRUPT) != 0) {
        noteDamage("a packet is cut short or corrupt");
    }
    timeline->Apply(*packet);
    return Result::Packet;
}

Demuxer::Result Demuxer::finish(int error) {
    if (error == AVERROR_EXIT) {
        return Result::Interrupted;
    }
    if (error != AVERROR_EOF) {
        noteDamage(errorText(error));
    } else if (endsInsidePacket()) {
        noteDamage("the file ends in the middle of a packet");
    }
    return Result::End;
}

void Demuxer::noteDamage(const std::string& text) {
    if (damage.empty()) {
        damage = text;
    }
}

bool Demuxer::endsInsidePacket() const {
    if (std::strcmp(context->iformat->name, "mpegts") != 0 || file.Size() <= 0) {
        return false;
    }
    for (const int size : kTransportPackets) {
        if (file.Size() % size == 0) {
            return false;
        }
    }
    return true;
}

}  // namespace Mivra::Tool
