#include "tools/mivra/Muxer.h"

#include <algorithm>
#include <any>
#include <cstring>
#include <new>
#include <system_error>

#include "tools/mivra/ContinuousTime.h"
#include "tools/mivra/FfmpegLog.h"
#include "tools/mivra/PacketBudget.h"
#include "tools/mivra/PacketFlags.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/Rescale.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {
namespace {

using Common::MediaType;
using Common::PacketBuffer;
using FFmpeg::FfmpegOptional;
using FFmpeg::FfmpegProxy;

/// How far packets may be written ahead of their time, as `ffmpeg` has it: 0.7 s.
constexpr int kMaxDelay = 700000;

[[noreturn]] void failToOpen(const std::string& path, const std::string& why, const std::string& remedy) {
    throw ProblemError(ExitCode::CannotOpen, {"cannot open the output: " + why, path, remedy});
}

const std::string& withFfmpeg(const std::string& path, bool loaded) {
    if (!loaded) {
        throw ProblemError(ExitCode::CannotOpen, ffmpegMissing());
    }
    if (const char* const name = missingForWriting()) {
        throw ProblemError(ExitCode::CannotOpen, functionMissing(name));
    }
    return path;
}

std::string errorMessage(int number) {
    return std::generic_category().message(number);
}

/// Bytes behind the data that FFmpeg may read; they have to be zeros.
bool isPadded(PacketBuffer& packet) {
    static constexpr char kZeros[AV_INPUT_BUFFER_PADDING_SIZE] = {};
    return packet.Size() - packet.ActualSize() >= AV_INPUT_BUFFER_PADDING_SIZE &&
           std::memcmp(packet.Buffer() + packet.ActualSize(), kZeros, sizeof(kZeros)) == 0;
}

void giveBack(void* opaque, std::uint8_t*) {
    auto* const packet = static_cast<PacketBuffer*>(opaque);
    static_cast<RelayPool*>(packet->Allocator())->Unhold();
    packet->Release();
}

/// A reference to the packet for FFmpeg to keep; null when its pool can spare no more.
AVBufferRef* keep(PacketBuffer& packet) {
    auto* const pool = dynamic_cast<RelayPool*>(packet.Allocator());
    if (pool == nullptr || !isPadded(packet) || !pool->TryHold()) {
        return nullptr;
    }
    packet.AddRef();
    AVBufferRef* const kept = FfmpegOptional::av_buffer_create(
        reinterpret_cast<std::uint8_t*>(packet.Buffer()),
        static_cast<std::size_t>(packet.ActualSize()) + AV_INPUT_BUFFER_PADDING_SIZE, giveBack, &packet,
        AV_BUFFER_FLAG_READONLY);
    if (kept == nullptr) {
        giveBack(&packet, nullptr);
    }
    return kept;
}

/// A packet's time. What its source read is exact in the source's own time base; what it worked out, at most
/// in the packets'.
class Time {
public:
    /// origin: the packet time that becomes 0.
    Time(std::int64_t packetTime, AVRational sourceBase, std::int64_t origin)
        : time(packetTime), base(sourceBase), value(rescale(packetTime, kPacketTimeBase, sourceBase)) {
        exact = time != kUnsetTime && rescale(value, base, kPacketTimeBase) == time;
        if (origin != 0 && time != kUnsetTime) {
            time = shifted(time, -origin);
            value = shifted(value, -rescale(origin, kPacketTimeBase, base));
        }
    }

    bool IsExact() const { return exact; }
    /// In the source's time base.
    std::int64_t Value() const { return value; }
    std::int64_t In(AVRational target) const {
        return exact ? rescale(value, base, target) : rescale(time, kPacketTimeBase, target);
    }

private:
    std::int64_t time;
    AVRational base;
    std::int64_t value;
    bool exact = false;
};

bool addSideData(AVPacket& packet, int kind, const void* bytes, std::size_t size) {
    std::uint8_t* const data = FfmpegOptional::av_packet_new_side_data(&packet, kind, size);
    if (data == nullptr) {
        return false;
    }
    std::memcpy(data, bytes, size);
    return true;
}

/// What is told of an output that failed while writing; an errno.
Problem writeProblem(const std::string& path, int error) {
    switch (error) {
        case EPIPE:
            return {"the reader of the output went away", path, "did it end too soon?"};
        case ECANCELED:
            return {"the reader of the output takes nothing", path, "it did not get all"};
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return {"cannot write the output: " + errorMessage(error), path, "is there room for it?"};
        default:
            return {"cannot write the output: " + errorMessage(error), path, "check where it goes to"};
    }
}

std::string leftOutLine(const std::string& path, const std::vector<MediaType>& types,
                        const std::vector<std::size_t>& chosen) {
    std::string line;
    for (std::size_t i = 0; i < types.size(); ++i) {
        if (!std::binary_search(chosen.begin(), chosen.end(), i)) {
            line += (line.empty() ? "" : ", ") + ("stream " + std::to_string(i)) + " (" + describe(types[i]) +
                    ")";
        }
    }
    return line.empty() ? line : path + " leaves out " + line;
}

}  // namespace

void Muxer::ContextDeleter::operator()(AVFormatContext* output) const {
    output->pb = nullptr;  // the file's own
    FfmpegOptional::avformat_free_context(output);
}

Muxer::Muxer(const std::string& name, const OutputFormat& of, const StopSignal& stop, NetworkBoard* board) try
    : path(name),
      format(of),
      file(openOutput(withFfmpeg(name, ffmpeg.IsLoaded()), stop, board)),
      packet(makePacket()) {
    makeContext();
} catch (const std::system_error& refusal) {
    const bool noReader = refusal.code().value() == ECANCELED;
    failToOpen(name, noReader ? "nobody reads it" : refusal.code().message(),
               noReader ? "open it for reading" : "check the folder and its permissions");
}

Muxer::~Muxer() {
    if (!headerWritten) {
        file->Discard();
    }
}

void Muxer::makeContext() {
    AVFormatContext* made = nullptr;
    const int code =
        FfmpegOptional::avformat_alloc_output_context2(&made, nullptr, format.muxer, path.c_str());
    if (code < 0) {
        failToOpen(path, errorText(code), "this FFmpeg cannot write " + std::string(format.muxer));
    }
    context.reset(made);
    context->pb = file->Context();
    context->max_delay = kMaxDelay;
}

std::vector<std::size_t> Muxer::Choose(const std::vector<MediaType>& types) {
    std::vector<std::size_t> chosen = chooseStreams(format, *context->oformat, types);
    leftOut = leftOutLine(path, types, chosen);
    if (chosen.empty()) {
        failToOpen(path, "it holds none of the streams", "choose another format");
    }
    return chosen;
}

void Muxer::Begin(const std::vector<MediaType>& types, const Section& section) {
    const std::vector<std::size_t> chosen = Choose(types);
    origin = section.origin;
    if (section.joined) {
        context->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
    }
    streams.resize(types.size());
    for (const std::size_t index : chosen) {
        addStream(index, types[index]);
        streams[index].begun = section.continued;
    }
    if (!file->Begin()) {
        failToOpen(path, errorMessage(errno), "check the file and its permissions");
    }
    writeHeader(section.continued);
}

void Muxer::addStream(std::size_t index, const MediaType& type) {
    AVStream* const output = FfmpegProxy::avformat_new_stream(context.get(), nullptr);
    if (output == nullptr || !fillStream(type, *context->oformat, *output)) {
        throw std::bad_alloc();
    }
    streams[index].output = output;
    streams[index].timeBase = timeBaseOf(type);
}

void Muxer::writeHeader(bool continued) {
    const FfmpegErrorWatch watch(context.get());
    AVDictionary* settings = nullptr;
    if (continued) {
        // Its counters do not go on where those of the file before have ended. Other formats pass over it.
        FfmpegProxy::av_dict_set(&settings, "mpegts_flags", "+initial_discontinuity", 0);
    }
    const int code = FfmpegProxy::avformat_write_header(context.get(), &settings);
    FfmpegProxy::av_dict_free(&settings);
    if (code >= 0) {
        headerWritten = true;
        return;
    }
    failed = true;
    if (file->WriteError() != 0) {
        throw ProblemError(ExitCode::WriteFailed, writeProblem(path, file->WriteError()));
    }
    const std::string why = watch.FirstError().empty() ? errorText(code) : watch.FirstError();
    failToOpen(path, why, "choose another format or check the place");
}

bool Muxer::Takes(int stream) const {
    const auto index = static_cast<std::size_t>(stream);
    return stream >= 0 && index < streams.size() && streams[index].output != nullptr;
}

bool Muxer::HasTimes() const {
    return (context->oformat->flags & AVFMT_NOTIMESTAMPS) == 0;
}

Muxer::Result Muxer::Write(int index, PacketBuffer& from) {
    if (failed || !headerWritten || !Takes(index)) {
        return failed ? Result::Failed : Result::Done;
    }
    Stream& stream = streams[static_cast<std::size_t>(index)];
    if (!stream.begun && !from.KeyFrame()) {
        return Result::Done;  // nothing could be decoded before the first key frame
    }
    stream.begun = true;
    packet->stream_index = stream.output->index;
    packet->flags = packetFlags(from) & ~AV_PKT_FLAG_KEY;
    packet->flags |= from.KeyFrame() ? AV_PKT_FLAG_KEY : 0;
    packet->pos = from.FilePosition();
    setTimes(stream, from);
    if (!setPayload(from) || !setSideData(from)) {
        FfmpegProxy::av_packet_unref(packet.get());
        return explain(AVERROR(ENOMEM), "");
    }
    stream.handed.push_back({from.ActualSize(), from.Dts()});
    const std::uint64_t sent = file->PiecesSent();
    const MediaCount before = muxed;
    const FfmpegErrorWatch watch(context.get());
    const int code = FfmpegProxy::av_interleaved_write_frame(context.get(), packet.get());
    count();
    if (file->PiecesSent() != sent) {
        onTheirWay.push_back({file->PiecesSent(), before});  // at least what was there before this one
    }
    settle();
    return code < 0 ? explain(code, watch.FirstError()) : Result::Done;
}

/// Notes what the file has got meanwhile.
void Muxer::settle() {
    while (!onTheirWay.empty() && onTheirWay.front().pieces <= file->PiecesWritten()) {
        written = onTheirWay.front().media;
        onTheirWay.erase(onTheirWay.begin());
    }
}

/// Takes what libavformat has put together since the last time out of the waiting.
void Muxer::count() {
    for (Stream& stream : streams) {
        const std::int64_t done = stream.output != nullptr ? stream.output->nb_frames : 0;
        for (; stream.muxed < done && stream.firstWaiting < stream.handed.size(); ++stream.muxed) {
            const Waiting& packetDone = stream.handed[stream.firstWaiting++];
            muxed.packets += 1;
            muxed.bytes += static_cast<std::uint64_t>(packetDone.size);
            muxed.position = std::max(muxed.position, packetDone.dts);
        }
        if (stream.firstWaiting * 2 >= stream.handed.size()) {
            stream.handed.erase(stream.handed.begin(),
                                stream.handed.begin() + static_cast<std::ptrdiff_t>(stream.firstWaiting));
            stream.firstWaiting = 0;
        }
    }
}

void Muxer::setTimes(Stream& stream, PacketBuffer& from) {
    const AVRational target = stream.output->time_base;
    const Time pts(from.Pts(), stream.timeBase, origin);
    const Time dts(from.Dts(), stream.timeBase, origin);
    packet->duration = Time(from.Duration(), stream.timeBase, 0).In(target);
    if (stream.output->codecpar->codec_type == AVMEDIA_TYPE_AUDIO && dts.IsExact()) {
        packet->dts =
            stream.clock.Convert(dts.Value(), stream.timeBase, target, stream.output->codecpar->sample_rate,
                                 samplesIn(stream, from.ActualSize()));
        packet->pts = packet->dts;  // audio is not reordered
    } else {
        packet->dts = dts.In(target);
        packet->pts = pts.In(target);
    }
    if (HasTimes()) {
        keepOrder(stream);
    }
    stream.lastDts = packet->dts;
}

int Muxer::samplesIn(const Stream& stream, int size) const {
    AVCodecParameters* const parameters = stream.output->codecpar;
    const int samples = FfmpegOptional::av_get_audio_frame_duration2 != nullptr
                            ? FfmpegOptional::av_get_audio_frame_duration2(parameters, size)
                            : 0;
    return samples > 0 ? samples : parameters->frame_size;
}

// Decoding times have to grow, and nothing is shown before it is decoded.
void Muxer::keepOrder(Stream& stream) {
    if (packet->dts == kUnsetTime) {
        return;
    }
    const std::int64_t last = stream.lastDts;
    if (packet->pts != kUnsetTime && packet->dts > packet->pts) {
        // Of both and what would follow the last one, the one in the middle.
        const std::int64_t next = last == kUnsetTime ? kUnsetTime + 1 : last + 1;
        packet->dts =
            std::max(std::min(packet->pts, packet->dts), std::min(std::max(packet->pts, packet->dts), next));
        packet->pts = packet->dts;
    }
    if (last == kUnsetTime || stream.output->codecpar->codec_id == AV_CODEC_ID_VP9) {
        return;
    }
    const bool mayRepeat = (context->oformat->flags & AVFMT_TS_NONSTRICT) != 0;
    const std::int64_t least = last + (mayRepeat ? 0 : 1);
    if (packet->dts < least) {
        if (packet->pts >= packet->dts) {
            packet->pts = std::max(packet->pts, least);
        }
        packet->dts = least;
    }
}

bool Muxer::setPayload(PacketBuffer& from) {
    packet->buf = keep(from);
    packet->data = reinterpret_cast<std::uint8_t*>(from.Buffer());
    packet->size = from.ActualSize();
    return true;
}

bool Muxer::setSideData(PacketBuffer& from) {
    if (const MediaType* const type = from.NewMediaType()) {
        if (!addSideData(*packet, AV_PKT_DATA_NEW_EXTRADATA, type->CodecPrivateData(),
                         static_cast<std::size_t>(type->CodecPrivateDataSize()))) {
            return false;
        }
    }
    const std::string prefix = kPacketSideData;
    for (auto entry = from.ExtraData().lower_bound(prefix);
         entry != from.ExtraData().end() && entry->first.starts_with(prefix); ++entry) {
        const auto* const bytes = std::any_cast<std::string>(&entry->second);
        const int kind = std::atoi(entry->first.c_str() + prefix.size());
        if (bytes != nullptr && !addSideData(*packet, kind, bytes->data(), bytes->size())) {
            return false;
        }
    }
    return true;
}

Muxer::Result Muxer::explain(int code, const std::string& message) {
    if (file->WriteError() != 0) {
        return fail(writeProblem(path, file->WriteError()));
    }
    if (code == AVERROR(ENOMEM)) {
        return fail(writeProblem(path, ENOMEM));
    }
    error = message.empty() ? errorText(code) : message;
    return Result::BadPacket;
}

Muxer::Result Muxer::fail(const Problem& problem) {
    failure = problem;
    failed = true;
    return Result::Failed;
}

/// Writes the packets that wait for those of other streams; one that cannot be written keeps none of the
/// others back.
Muxer::Result Muxer::drain() {
    Result result = Result::Done;
    std::size_t waiting = 1;
    for (const Stream& stream : streams) {
        waiting += stream.handed.size() - stream.firstWaiting;
    }
    while (waiting-- > 0) {
        const FfmpegErrorWatch watch(context.get());
        const int code = FfmpegProxy::av_interleaved_write_frame(context.get(), nullptr);
        if (code >= 0) {
            break;
        }
        result = explain(code, watch.FirstError());
        if (result == Result::Failed) {
            break;
        }
    }
    return result;
}

Muxer::Result Muxer::Finish() {
    Result result = failed ? Result::Failed : Result::Done;
    if (context != nullptr && headerWritten && !failed) {
        result = drain();
    }
    if (context != nullptr && headerWritten && !failed) {
        count();
        const FfmpegErrorWatch watch(context.get());
        int code = FfmpegProxy::av_write_trailer(context.get());
        FfmpegOptional::avio_flush(context->pb);
        code = code < 0 ? code : context->pb->error;
        result = code < 0 ? explain(code, watch.FirstError()) : result;
    }
    context.reset();
    file->Close();
    if (file->WriteError() != 0) {
        result = fail(writeProblem(path, file->WriteError()));
    }
    settle();
    written = failed || !headerWritten ? written : muxed;
    return result;
}

}  // namespace Mivra::Tool
