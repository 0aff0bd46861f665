#include "mivra/ffmpeg/EncoderOpening.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <new>
#include <string_view>

#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/FfmpegLog.h"
#include "mivra/ffmpeg/PictureLayout.h"

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/log.h>
}

namespace Mivra::FFmpeg {
namespace {

using Common::Codec_t;
using Common::MediaType;
using Common::SampleFormat_t;

constexpr const char* kX265Parameters = "x265-params";
constexpr int kUsualRate = 25;
constexpr int kLargestRatePart = 65535;  // MPEG-4 has 16 bits for the ticks of a second
constexpr int kHardwarePool = 20;        // surfaces

/// Takes FFmpeg's complaints while an encoder is opened: they become the reason, not lines of their own.
class ComplaintWatch : public FfmpegMessageWatch {
public:
    int OnMessage(const void* /*object*/, int level, std::string_view message) noexcept override {
        if (level <= AV_LOG_ERROR && first.empty()) {
            const std::size_t end = message.find("] ");  // "[encoder @ address] message"
            message.remove_prefix(message.substr(0, 1) == "[" && end != message.npos ? end + 2 : 0);
            try {
                first = message;
            } catch (const std::bad_alloc&) {
                first.clear();
            }
        }
        return std::max(level, AV_LOG_INFO);
    }

    std::string first;
};

template <typename T>
bool contains(const T* list, T end, T value) {
    for (; list != nullptr && *list != end; ++list) {
        if (*list == value) {
            return true;
        }
    }
    return false;
}

AVRational withinRange(AVRational rate) {
    if (rate.num <= kLargestRatePart && rate.den <= kLargestRatePart) {
        return rate;
    }
    const double value = double(rate.num) / rate.den;
    for (const int den : {1001, 1000, 100, 10, 1}) {
        const double num = std::round(value * den);
        const bool exact = std::abs(num / den - value) <= value * 1e-7;
        if (num >= 1 && num <= kLargestRatePart && (den != 1001 || exact)) {
            return {static_cast<int>(num), den};
        }
    }
    return value < 1 ? AVRational{1, kLargestRatePart} : AVRational{kLargestRatePart, 1};
}

bool isRate(const Common::Rational& rate) {
    return rate.Num() > 0 && rate.Den() > 0;
}

// Pictures.

/// Pictures of JPEG use the whole range of values, which FFmpeg tells by formats of their own.
AVPixelFormat fullRange(AVPixelFormat format) {
    switch (format) {
        case AV_PIX_FMT_YUV422P:
            return AV_PIX_FMT_YUVJ422P;
        case AV_PIX_FMT_YUV444P:
            return AV_PIX_FMT_YUVJ444P;
        case AV_PIX_FMT_YUV420P:
            return AV_PIX_FMT_YUVJ420P;
        default:
            return format;
    }
}

bool isInMemory(AVPixelFormat format) {
    PictureLayout layout;
    return makePictureLayout(format, 16, 16, 0, 0, layout);
}

AVPixelFormat choosePixelFormat(const EncoderRequest& request, const AVCodec& codec) {
    const bool jpeg = codec.id == AV_CODEC_ID_MJPEG;
    for (AVPixelFormat format :
         {toFfmpeg(request.output.PixelFormat()), toFfmpeg(request.input.PixelFormat()), AV_PIX_FMT_YUV420P,
          AV_PIX_FMT_NV12}) {
        format = jpeg ? fullRange(format) : format;
        const bool taken = codec.pix_fmts == nullptr || contains(codec.pix_fmts, AV_PIX_FMT_NONE, format);
        if (taken && isInMemory(format)) {
            return format;
        }
    }
    const AVPixelFormat* first = codec.pix_fmts;
    while (first != nullptr && *first != AV_PIX_FMT_NONE && !isInMemory(*first)) {
        ++first;
    }
    return first == nullptr ? AV_PIX_FMT_YUV420P : *first;
}

/// The description of colours: the output type's, else the input's, as converted pictures keep theirs; but
/// what is no RGB any more has not its matrix either.
void setColors(const EncoderRequest& request, AVCodecContext& context) {
    const auto look = [&](const char* key, int none, int count) {
        return metadataEnumerator(request.output, key, metadataEnumerator(request.input, key, none, count),
                                  count);
    };
    context.color_range = AVColorRange(look(Key::kColorRange, AVCOL_RANGE_UNSPECIFIED, AVCOL_RANGE_NB));
    context.color_primaries =
        AVColorPrimaries(look(Key::kColorPrimaries, AVCOL_PRI_UNSPECIFIED, AVCOL_PRI_NB));
    context.color_trc =
        AVColorTransferCharacteristic(look(Key::kColorTransfer, AVCOL_TRC_UNSPECIFIED, AVCOL_TRC_NB));
    context.colorspace = AVColorSpace(look(Key::kColorSpace, AVCOL_SPC_UNSPECIFIED, AVCOL_SPC_NB));
    context.chroma_sample_location =
        AVChromaLocation(look(Key::kChromaLocation, AVCHROMA_LOC_UNSPECIFIED, AVCHROMA_LOC_NB));
    if (context.colorspace == AVCOL_SPC_RGB && toFfmpeg(request.input.PixelFormat()) != context.pix_fmt) {
        context.colorspace = AVCOL_SPC_UNSPECIFIED;
    }
}

std::string setPicture(const EncoderRequest& request, const AVCodec& codec, AVCodecContext& context) {
    const MediaType& in = request.input;
    const MediaType& out = request.output;
    PictureLayout layout;
    const bool raw = in.CodecId() == Codec_t::None || in.CodecId() == Codec_t::UNCOMPRESSED;
    if (!raw || !pictureLayoutOf(in, layout)) {
        return "the input is no raw picture that can be laid out";
    }
    context.width = out.Width() > 0 ? out.Width() : in.Width();
    context.height = out.Height() > 0 ? out.Height() : in.Height();
    context.pix_fmt = choosePixelFormat(request, codec);
    if (!makePictureLayout(context.pix_fmt, context.width, context.height, 0, 0, layout)) {
        return "the size of the pictures is not possible";
    }
    context.framerate = frameRate(request);
    context.time_base = {context.framerate.den, context.framerate.num};
    const bool sameSize = context.width == in.Width() && context.height == in.Height();
    const bool outputTells = out.PixelAspectRatio() != Common::Rational(1, 1);
    const Common::Rational& aspect =
        outputTells || !sameSize ? out.PixelAspectRatio() : in.PixelAspectRatio();
    if (aspect.Num() > 0 && aspect.Den() > 0) {
        context.sample_aspect_ratio = toFfmpeg(aspect);
    }
    setColors(request, context);
    context.thread_count = std::max(request.threads, 0);
    return {};
}

// Samples.

AVSampleFormat twin(AVSampleFormat format) {
    constexpr int kPlanar = AV_SAMPLE_FMT_U8P;  // the planar formats follow the others in the same order
    return format < 0 || format > AV_SAMPLE_FMT_DBLP ? AV_SAMPLE_FMT_NONE
                                                     : AVSampleFormat((format + kPlanar) % (2 * kPlanar));
}

AVSampleFormat chooseSampleFormat(const EncoderRequest& request, const AVCodec& codec) {
    const AVSampleFormat given = rawSampleFormat(request.input);
    const AVSampleFormat wanted = toFfmpeg(request.output.SampleFormat());
    if (codec.sample_fmts == nullptr) {
        return given;
    }
    for (const AVSampleFormat format : {wanted, twin(wanted), given, twin(given)}) {
        if (format != AV_SAMPLE_FMT_NONE && contains(codec.sample_fmts, AV_SAMPLE_FMT_NONE, format)) {
            return format;
        }
    }
    return codec.sample_fmts[0];
}

/// The rate that the output type asks for; else the input's or, where the encoder does not take it, the next
/// higher one that it takes, else its highest. 0 when what is asked for cannot be had.
int chooseSampleRate(const EncoderRequest& request, const AVCodec& codec) {
    const int wanted = request.output.SampleRate();
    const int given = request.input.SampleRate();
    if (codec.supported_samplerates == nullptr) {
        return wanted > 0 ? wanted : given;
    }
    if (wanted > 0) {
        return contains(codec.supported_samplerates, 0, wanted) ? wanted : 0;
    }
    int higher = 0;
    int highest = 0;
    for (const int* rate = codec.supported_samplerates; *rate != 0; ++rate) {
        highest = std::max(highest, *rate);
        if (*rate >= given && (higher == 0 || *rate < higher)) {
            higher = *rate;
        }
    }
    return higher != 0 ? higher : highest;
}

/// False when the encoder has no layout of so many channels.
bool chooseChannels(const EncoderRequest& request, const AVCodec& codec, AVChannelLayout& layout) {
    const bool maskOfOutput = request.output.CodecId() != Codec_t::AAC;  // there it is a configuration
    const int channels = request.output.Channels() > 0 ? request.output.Channels() : request.input.Channels();
    const std::uint64_t wanted = maskOfOutput ? request.output.ChannelLayout() : 0;
    layout = makeChannelLayout(channels, wanted != 0 ? wanted : request.input.ChannelLayout());
    if (codec.ch_layouts == nullptr) {
        return layout.nb_channels > 0;
    }
    const AVChannelLayout* sameCount = nullptr;
    for (const AVChannelLayout* taken = codec.ch_layouts; taken->nb_channels != 0; ++taken) {
        if (sameChannels(*taken, layout)) {
            return true;
        }
        if (taken->nb_channels == channels && sameCount == nullptr) {
            sameCount = taken;
        }
    }
    if (sameCount == nullptr || sameCount->order == AV_CHANNEL_ORDER_CUSTOM) {
        return false;
    }
    layout = *sameCount;  // owns no memory
    return true;
}

std::string setSamples(const EncoderRequest& request, const AVCodec& codec, AVCodecContext& context) {
    if (rawSampleFormat(request.input) == AV_SAMPLE_FMT_NONE || request.input.SampleRate() <= 0 ||
        request.input.Channels() <= 0) {
        return "the input is no raw audio";
    }
    context.sample_fmt = chooseSampleFormat(request, codec);
    context.sample_rate = chooseSampleRate(request, codec);
    if (context.sample_rate == 0) {
        return "the encoder has no sample rate of " + std::to_string(request.output.SampleRate()) + " Hz";
    }
    if (!chooseChannels(request, codec, context.ch_layout)) {
        return "the encoder has no layout of the channels";
    }
    context.time_base = {1, context.sample_rate};
    return {};
}

// Both.

void setProfile(const MediaType& type, AVCodecContext& context) {
    const std::uint64_t told = type.GetProfileLevel();
    if (told != 0 && type.CodecId() == Codec_t::H264) {
        context.profile = static_cast<int>(told >> 16 & 0xff);
        context.level = static_cast<int>(told & 0xff);
    } else if (told != 0 && type.CodecId() == Codec_t::AAC) {
        context.profile = static_cast<int>(told) - 1;  // audio object types count from 1
    }
    context.profile = static_cast<int>(metadataNumber(type, Key::kProfile, context.profile));
    context.level = static_cast<int>(metadataNumber(type, Key::kLevel, context.level));
}

std::string setUpload(int upload, AVCodecContext& context) {
    AVBufferRef* device = nullptr;
    if (const int error = FfmpegProxy::av_hwdevice_ctx_create(&device, upload, nullptr, nullptr, 0);
        error < 0) {
        return "no device: " + errorText(error);
    }
    const BufferPointer ownedDevice(device);
    BufferPointer surfaces(FfmpegProxy::av_hwframe_ctx_alloc(device));
    if (surfaces == nullptr) {
        return "no memory";
    }
    auto* const frames = reinterpret_cast<AVHWFramesContext*>(surfaces->data);
    frames->format = AV_PIX_FMT_VAAPI;
    frames->sw_format = AV_PIX_FMT_NV12;
    frames->width = context.width;
    frames->height = context.height;
    frames->initial_pool_size = kHardwarePool;
    if (const int error = FfmpegProxy::av_hwframe_ctx_init(surfaces.get()); error < 0) {
        return "no surfaces: " + errorText(error);
    }
    context.sw_pix_fmt = frames->sw_format;
    context.pix_fmt = frames->format;
    context.hw_frames_ctx = surfaces.release();
    return {};
}

/// The first of what an opened encoder has left over: it knows no such option.
std::string firstUnknown(Dictionary& options) {
    const AVDictionaryEntry* const left =
        FfmpegOptional::av_dict_get(*options.Address(), "", nullptr, AV_DICT_IGNORE_SUFFIX);
    return left == nullptr ? std::string() : left->key;
}

/// libx265 writes to standard error what it is about to do, past FFmpeg's own log: only errors, unless the
/// caller's parameters, which come behind, say otherwise.
bool quiet(const EncoderRequest& request, Dictionary& options) {
    std::string parameters = "log-level=error";
    for (const auto& [key, value] : request.options) {
        if (key == kX265Parameters) {
            parameters.append(":").append(value);
        }
    }
    return options.Set(kX265Parameters, parameters.c_str());
}

std::string open(const EncoderRequest& request, const AVCodec& codec, AVCodecContext& context) {
    Dictionary options;
    bool set = true;
    for (const auto& [key, value] : request.options) {
        set = set && options.Set(key.c_str(), value.c_str());
    }
    if (codec.name == std::string_view("libx265")) {
        set = set && quiet(request, options);
    }
    if (!set) {
        return "no memory";
    }
    const int error = FfmpegProxy::avcodec_open2(&context, &codec, options.Address());
    if (error < 0) {
        return errorText(error);
    }
    const std::string unknown = firstUnknown(options);
    return unknown.empty() ? std::string() : "unknown option '" + unknown + "'";
}

}  // namespace

AVRational frameRate(const EncoderRequest& request) {
    const MediaType& in = request.input;
    if (isRate(request.output.Framerate())) {
        return withinRange(toFfmpeg(request.output.Framerate()));
    }
    if (isRate(in.Framerate())) {
        return withinRange(toFfmpeg(in.Framerate()));
    }
    if (in.FrameDuration() > 0 && in.FrameDuration() <= INT32_MAX && isRate(in.Timescale())) {
        const Common::Rational seconds(in.FrameDuration() * in.Timescale().Num(),
                                       std::int64_t{in.Timescale().Den()});
        if (isRate(seconds)) {
            return withinRange({seconds.Den(), seconds.Num()});
        }
    }
    return {kUsualRate, 1};
}

int metadataEnumerator(const MediaType& type, const char* key, int none, int count) {
    const std::int64_t value = metadataNumber(type, key, none);
    return value >= 0 && value < count ? static_cast<int>(value) : none;
}

AVSampleFormat rawSampleFormat(const MediaType& type) {
    SampleFormat_t meant = SampleFormat_t::None;
    switch (type.CodecId()) {
        case Codec_t::None:
        case Codec_t::UNCOMPRESSED:
            meant = type.SampleFormat();
            break;
        case Codec_t::PCM_U8:
            meant = SampleFormat_t::U8;
            break;
        case Codec_t::PCM_S16LE:  // raw audio of every format, as decoders give it
            meant = type.SampleFormat() == SampleFormat_t::None ? SampleFormat_t::S16 : type.SampleFormat();
            break;
        case Codec_t::PCM_S32LE:
            meant = SampleFormat_t::S32;
            break;
        case Codec_t::PCM_F32LE:
            meant = SampleFormat_t::FLT;
            break;
        case Codec_t::PCM_F64LE:
            meant = SampleFormat_t::DBL;
            break;
        case Codec_t::PCM_S16LE_PLANAR:
            meant = SampleFormat_t::S16P;
            break;
        case Codec_t::PCM_S32LE_PLANAR:
            meant = SampleFormat_t::S32P;
            break;
        default:
            break;
    }
    if (type.SampleFormat() != SampleFormat_t::None && type.SampleFormat() != meant) {
        return AV_SAMPLE_FMT_NONE;
    }
    const AVSampleFormat format = toFfmpeg(meant);
    return format < AV_SAMPLE_FMT_U8 || format > AV_SAMPLE_FMT_DBLP ? AV_SAMPLE_FMT_NONE : format;
}

std::string openEncoder(const EncoderRequest& request, const AVCodec& codec, int upload,
                        CodecContextPointer& context) {
    ComplaintWatch watch;
    CodecContextPointer made(FfmpegProxy::avcodec_alloc_context3(&codec));
    if (made == nullptr) {
        return "no memory";
    }
    const bool video = codec.type == AVMEDIA_TYPE_VIDEO;
    std::string problem = video ? setPicture(request, codec, *made) : setSamples(request, codec, *made);
    if (!problem.empty()) {
        return problem;
    }
    if (request.output.Bitrate() > 0) {
        made->bit_rate = request.output.Bitrate();
    }
    setProfile(request.output, *made);
    if (!request.setsInPackets) {
        made->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    if (upload != AV_HWDEVICE_TYPE_NONE) {
        problem = setUpload(upload, *made);
    }
    if (problem.empty()) {
        problem = open(request, codec, *made);
    }
    if (!problem.empty()) {
        return watch.first.empty() ? problem : problem + " (" + watch.first + ")";
    }
    context = std::move(made);
    return {};
}

}  // namespace Mivra::FFmpeg
