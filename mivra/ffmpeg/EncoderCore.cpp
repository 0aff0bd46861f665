#include "mivra/ffmpeg/EncoderCore.h"

#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/EncoderOpening.h"
#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/platform/System.h"

namespace Mivra::FFmpeg {
namespace {

using Common::ContentType_t;
using Common::FileLog;
using Common::LogLine;
using Common::MediaType;
using Common::PacketBuffer;
using Common::Reference;

/// The first of the functions beyond the loader's table that an encoder cannot do without; null: all there.
const char* missingFunction() {
    return FfmpegOptional::av_buffer_create == nullptr ? "av_buffer_create"
           : FfmpegOptional::av_dict_get == nullptr    ? "av_dict_get"
                                                       : nullptr;
}

AVRational timeBase(const MediaType& type) {
    const AVRational base = toFfmpeg(type.Timescale());
    return base.num > 0 && base.den > 0 ? base : kEngineTimeBase;
}

bool isPresent(const char* device) {
    struct stat status {};
    return Platform::System().pathStatus(device, &status) == 0;
}

bool fitsContent(const MediaType& type, const AVCodec& codec) {
    switch (type.ContentType()) {
        case ContentType_t::Unknown:
            return codec.type == AVMEDIA_TYPE_VIDEO || codec.type == AVMEDIA_TYPE_AUDIO;
        case ContentType_t::Video:
            return codec.type == AVMEDIA_TYPE_VIDEO;
        case ContentType_t::Audio:
            return codec.type == AVMEDIA_TYPE_AUDIO;
        default:
            return false;
    }
}

}  // namespace

EncoderCore::EncoderCore(const void* address_, const MediaType& input_, MediaType& output_, bool& dirty,
                         const Media::EncoderParameters& parameters_)
    : address(address_), inputType(input_), wanted(output_), parameters(parameters_), output(output_, dirty) {
    output_.Timescale() = fromFfmpeg(timeBase(output_));
}

std::string EncoderCore::Open() {
    if (!ffmpeg.IsLoaded()) {
        return "FFmpeg cannot be loaded";
    }
    if (const char* const missing = missingFunction()) {
        return std::string("FFmpeg lacks the function ") + missing;
    }
    std::string problem;
    if (!parseEncoderOptions(parameters.Options, options, problem)) {
        return problem;
    }
    frame.reset(FfmpegProxy::av_frame_alloc());
    packet.reset(FfmpegProxy::av_packet_alloc());
    if (frame == nullptr || packet == nullptr) {
        return "no memory";
    }
    return openFirst(parameters.AllowHardwareAcceleration);
}

/// Opens the first of the candidates that can be; after a failure of hardware only software is tried.
std::string EncoderCore::openFirst(bool allowHardware) {
    for (const EncoderCandidate& candidate : g_encoderCandidates) {
        const bool tried = candidate.codec == wanted.CodecId() &&
                           (!candidate.IsHardware() || (allowHardware && isPresent(candidate.device)));
        const AVCodec* const codec =
            tried ? FfmpegProxy::avcodec_find_encoder_by_name(candidate.name) : nullptr;
        if (codec == nullptr) {
            continue;
        }
        std::string problem = use(*codec, &candidate);
        if (problem.empty() || !candidate.IsHardware()) {
            return problem;
        }
        LogLine(FileLog::Information, "FfmpegEncoder::FfmpegEncoder[%p]: %s, software is used", address,
                problem.c_str());
        allowHardware = false;
    }
    const AVCodec* const codec = FfmpegProxy::avcodec_find_encoder(toFfmpeg(wanted.CodecId()));
    if (codec == nullptr) {
        return "FFmpeg has no encoder for codec " + std::to_string(static_cast<int>(wanted.CodecId()));
    }
    return use(*codec, nullptr);
}

std::string EncoderCore::use(const AVCodec& codec, const EncoderCandidate* candidate) {
    const std::string name = std::string(codec.name) + ": ";
    if (!fitsContent(wanted, codec)) {
        return name + "the codec is of another content type";
    }
    const EncoderRequest request{inputType, wanted, options, parameters.ThreadCount, output.SetsInPackets()};
    CodecContextPointer opened;
    std::string problem = openEncoder(request, codec, candidate == nullptr ? 0 : candidate->upload, opened);
    if (problem.empty()) {
        problem = makeInput(*opened);
    }
    if (problem.empty() && !output.Describe(*opened)) {
        problem = "the encoder's private data is malformed";
    }
    if (!problem.empty()) {
        return name + problem;
    }
    context = std::move(opened);
    hardware = candidate != nullptr && candidate->IsHardware();
    return {};
}

std::string EncoderCore::makeInput(const AVCodecContext& opened) {
    const AVRational from = timeBase(inputType);
    const AVRational to = timeBase(wanted);
    if (input == nullptr) {
        input = opened.codec_type == AVMEDIA_TYPE_VIDEO
                    ? makePictureInput(from, to, opened.framerate)
                    : makeSampleInput(from, to, inputType.SampleRate(), opened.sample_rate);
    }
    return input->Configure(inputType, opened);
}

/// Raw media of another form from here on.
bool EncoderCore::adaptTo(const MediaType& type) {
    const AVRational base = timeBase(type);
    const bool sameBase = base.num == timeBase(inputType).num && base.den == timeBase(inputType).den;
    const std::string problem = sameBase ? input->Configure(type, *context) : "its time base is another one";
    if (!problem.empty()) {
        LogLine(FileLog::Error, "FfmpegEncoder::Write[%p]: the new media type is refused: %s", address,
                problem.c_str());
        return false;
    }
    inputType = type;
    return true;
}

bool EncoderCore::makeRoom() {
    if (!input->HasRoom()) {
        pump();
    }
    return input->HasRoom();
}

bool EncoderCore::Write(PacketBuffer& raw) {
    if (draining) {
        return false;
    }
    if (!makeRoom()) {
        return false;
    }
    if (raw.NewMediaType() != nullptr) {
        isRefused = !adaptTo(*raw.NewMediaType());
    }
    if (isRefused || !makeRoom()) {  // what was held back of the old form goes first
        return false;
    }
    const std::string problem = input->Take(raw);
    if (!problem.empty()) {
        LogLine(FileLog::Error, "FfmpegEncoder::Write[%p]: %s", address, problem.c_str());
        return false;
    }
    return pump();
}

EncoderCore::Sent EncoderCore::send(AVFrame* sent) {
    const int error = FfmpegProxy::avcodec_send_frame(context.get(), sent);
    if (error == AVERROR(EAGAIN)) {
        return Sent::Full;
    }
    if (error < 0 && hardware && fallBack(error)) {
        return Sent::Full;  // the frame comes again, in the form of the other encoder
    }
    if (error < 0) {
        LogLine(FileLog::Error, "FfmpegEncoder::Write[%p]: %s: %s", address, context->codec->name,
                errorText(error).c_str());
        return Sent::Failed;
    }
    return Sent::Accepted;
}

/// Hands the encoder what the input has for it, as long as it takes it. False when it refused something,
/// which is then gone.
bool EncoderCore::pump() {
    for (;;) {
        if (!frameWaits) {
            frameWaits = input->Next(*frame);
        }
        if (!frameWaits) {
            break;
        }
        const AVCodecContext* const before = context.get();
        const Sent sent = send(frame.get());
        if (sent == Sent::Full && context.get() == before) {
            return true;
        }
        FfmpegProxy::av_frame_unref(frame.get());
        frameWaits = false;
        if (sent == Sent::Full) {
            continue;
        }
        input->Accepted();
        if (sent == Sent::Failed) {
            return false;
        }
        ++accepted;
    }
    if (draining && !drained && !input->Holds()) {
        drained = send(nullptr) != Sent::Full;
    }
    return true;
}

/// Puts a software encoder in place of hardware that has failed.
bool EncoderCore::fallBack(int error) {
    LogLine(FileLog::Warning,
            "FfmpegEncoder::Write[%p]: %s: %s, software goes on; %lld frames that it held are lost", address,
            context->codec->name, errorText(error).c_str(), static_cast<long long>(accepted - delivered));
    const std::string problem = openFirst(false);
    if (!problem.empty()) {
        LogLine(FileLog::Error, "FfmpegEncoder::Write[%p]: %s", address, problem.c_str());
    }
    delivered = accepted;
    return problem.empty();
}

/// Takes the encoder's next packet; false when it has none.
bool EncoderCore::receive() {
    const int error = FfmpegProxy::avcodec_receive_packet(context.get(), packet.get());
    if (error < 0 && error != AVERROR(EAGAIN) && error != AVERROR_EOF) {
        LogLine(FileLog::Error, "FfmpegEncoder::Read[%p]: %s: %s", address, context->codec->name,
                errorText(error).c_str());
    }
    return error >= 0;
}

Reference<PacketBuffer> EncoderCore::Read() {
    Reference<PacketBuffer> made;
    while (!made) {
        while (!packetWaits) {
            packetWaits = receive();
            const std::int64_t before = accepted;
            const bool knew = drained;
            if (!packetWaits) {
                pump();
                if (accepted == before && drained == knew) {
                    return {};
                }
            }
        }
        if (!output.Make(*packet, made)) {
            return {};
        }
        if (made) {
            input->Stamp(*packet, *made.get());
        }
        FfmpegProxy::av_packet_unref(packet.get());
        packetWaits = false;
        ++delivered;
    }
    return made;
}

void EncoderCore::Drain() {
    if (!draining) {
        draining = true;
        input->Finish();
        pump();
    }
}

}  // namespace Mivra::FFmpeg
