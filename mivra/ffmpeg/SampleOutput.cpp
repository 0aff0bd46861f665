#include "mivra/ffmpeg/SampleOutput.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/FfmpegFormats.h"

namespace Mivra::FFmpeg {
namespace {

using Common::FileLog;
using Common::LogLine;
using Common::MediaType;
using Common::PacketBuffer;
using Common::Reference;

constexpr int kMostChannels = 64;  // of libswresample
constexpr int kUsualRate = 48000;
constexpr int kUsualChannels = 2;
constexpr int kPacked = 1;  // alignment

ResamplerPointer makeResampler(const AVChannelLayout& outChannels, int outFormat, int outRate,
                               const AVChannelLayout& inChannels, int inFormat, int inRate) {
    SwrContext* made = nullptr;
    if (FfmpegProxy::swr_alloc_set_opts2(&made, &outChannels, outFormat, outRate, &inChannels, inFormat,
                                         inRate, 0, nullptr) < 0) {
        return nullptr;
    }
    ResamplerPointer resampler(made);
    return FfmpegProxy::swr_init(made) < 0 ? nullptr : std::move(resampler);
}

/// A layout that libswresample can mix, also for channels of which only the number is known.
AVChannelLayout mixable(const AVChannelLayout& layout) {
    return layout.order == AV_CHANNEL_ORDER_NATIVE ? layout : makeChannelLayout(layout.nb_channels, 0);
}

}  // namespace

bool SampleOutput::Format::operator==(const Format& other) const {
    return format == other.format && rate == other.rate && sameChannels(channels, other.channels);
}

SampleOutput::SampleOutput(const MediaType& input, const MediaType& wanted_)
    : wanted(wanted_), pool(FramePool::Make()), startTime(kUnsetTime) {
    type = wanted;
    type.ContentType() = Common::ContentType_t::Audio;
    type.CodecId() = Common::Codec_t::PCM_S16LE;  // of raw samples, whatever their format
    type.Compressed() = false;
    type.Timescale() = fromFfmpeg(kEngineTimeBase);
    to.format = static_cast<int>(
        wanted.SampleFormat() != Common::SampleFormat_t::None ? wanted.SampleFormat() : input.SampleFormat());
    to.rate = wanted.SampleRate() > 0 ? wanted.SampleRate() : input.SampleRate();
    to.channels = wanted.Channels() > 0 ? makeChannelLayout(wanted.Channels(), wanted.ChannelLayout())
                                        : makeChannelLayout(input.Channels(), 0);
    tellType();
}

const char* SampleOutput::WhyNot(const MediaType& wanted) {
    if (wanted.SampleRate() < 0 || wanted.Channels() < 0 || wanted.Channels() > kMostChannels) {
        return "the wanted rate or number of channels is not possible";
    }
    const bool anyFormat = wanted.SampleFormat() == Common::SampleFormat_t::None;
    const int format =
        anyFormat ? static_cast<int>(AV_SAMPLE_FMT_FLTP) : static_cast<int>(wanted.SampleFormat());
    if (FfmpegProxy::av_get_bytes_per_sample(format) <= 0) {
        return "there is no such sample format as the wanted one";
    }
    if (anyFormat && wanted.SampleRate() == 0 && wanted.Channels() == 0) {
        return nullptr;  // as decoded
    }
    const AVChannelLayout in = makeChannelLayout(kUsualChannels, 0);
    const AVChannelLayout out = mixable(makeChannelLayout(
        wanted.Channels() > 0 ? wanted.Channels() : kUsualChannels, wanted.ChannelLayout()));
    const int rate = wanted.SampleRate() > 0 ? wanted.SampleRate() : kUsualRate;
    if (makeResampler(out, format, rate, in, AV_SAMPLE_FMT_FLTP, kUsualRate) == nullptr) {
        return "libswresample cannot make the wanted samples";
    }
    return nullptr;
}

bool SampleOutput::startResampler() {
    resampler.reset();
    if (from == to) {
        return true;
    }
    if (!isRateInReach(from.rate, to.rate)) {
        return false;
    }
    resampler = makeResampler(mixable(to.channels), to.format, to.rate, mixable(from.channels), from.format,
                              from.rate);
    return resampler != nullptr;
}

/// What comes out of samples decoded in another format than before.
bool SampleOutput::startFormat(const Format& decoded) {
    from = decoded;
    to.format = wanted.SampleFormat() == Common::SampleFormat_t::None
                    ? decoded.format
                    : static_cast<int>(wanted.SampleFormat());
    to.rate = wanted.SampleRate() > 0 ? wanted.SampleRate() : decoded.rate;
    to.channels = decoded.channels;
    if (wanted.Channels() > 0) {
        const AVChannelLayout asked = makeChannelLayout(wanted.Channels(), wanted.ChannelLayout());
        const bool open = wanted.ChannelLayout() == 0 && wanted.Channels() == decoded.channels.nb_channels;
        to.channels = open ? decoded.channels : asked;
    }
    startTime = kUnsetTime;
    samplesIn = 0;
    samplesOut = 0;
    return startResampler();
}

FrameBuffer* SampleOutput::lend(int samples) {
    const int size = FfmpegProxy::av_samples_get_buffer_size(nullptr, to.channels.nb_channels, samples,
                                                             to.format, kPacked);
    if (size < 0) {
        return nullptr;
    }
    FrameBuffer* const buffer = pool->Lend(size);
    if (buffer != nullptr) {
        buffer->ActualSize() = size;
    }
    return buffer;
}

/// Sets the clock by a frame that tells its time, unless it only repeats what the clock says.
void SampleOutput::noteTime(const AVFrame& frame) {
    const std::int64_t time =
        frame.pts != kUnsetTime || startTime != kUnsetTime ? frame.pts : frame.best_effort_timestamp;
    if (time == kUnsetTime) {
        startTime = startTime == kUnsetTime ? 0 : startTime;  // a stream without any times begins at 0
        return;
    }
    const AVRational rate{1, from.rate};
    if (resampler == nullptr) {
        startTime = time;
        samplesIn = 0;
        samplesOut = 0;
        return;
    }
    constexpr std::int64_t kTolerance = 100000;  // 10 ms: the resampler's own time runs on through less
    const std::int64_t expected =
        startTime == kUnsetTime ? kUnsetTime : startTime + rescaleTime(samplesIn, rate, kEngineTimeBase);
    if (expected == kUnsetTime || std::abs(time - expected) > kTolerance) {
        // What is still inside belongs to the time before: the clock goes on with what comes out next.
        const std::int64_t inside = rescaleTime(samplesIn, rate, kEngineTimeBase) -
                                    rescaleTime(samplesOut, {1, to.rate}, kEngineTimeBase);
        startTime = time - std::max<std::int64_t>(inside, 0);
        samplesIn = rescaleTime(std::max<std::int64_t>(inside, 0), kEngineTimeBase, rate);
        samplesOut = 0;
    }
}

void SampleOutput::finish(FrameBuffer& made, int samples) {
    const AVRational rate{1, to.rate};
    const auto timeAfter = [this, rate](std::int64_t count) {
        return startTime + rescaleTime(count, rate, kEngineTimeBase);
    };
    made.Pts() = startTime == kUnsetTime ? kUnsetTime : timeAfter(samplesOut);
    made.Dts() = made.Pts();
    made.Duration() = rescaleTime(samples, rate, kEngineTimeBase);
    made.KeyFrame() = true;
    made.CleanPoint() = true;
    samplesOut += samples;
    tellType();
}

FrameOutput::Result SampleOutput::copy(const AVFrame& frame, Reference<PacketBuffer>& made) {
    FrameBuffer* const buffer = lend(frame.nb_samples);
    if (buffer == nullptr) {
        return Result::NoMemory;
    }
    made = Reference<PacketBuffer>::Adopt(buffer);
    const int planes = FfmpegProxy::av_sample_fmt_is_planar(to.format) != 0 ? to.channels.nb_channels : 1;
    const auto bytes = static_cast<std::size_t>(buffer->ActualSize() / planes);
    for (int plane = 0; plane < planes; ++plane) {
        std::memcpy(buffer->Bytes() + static_cast<std::size_t>(plane) * bytes, frame.extended_data[plane],
                    bytes);
    }
    samplesIn += frame.nb_samples;
    finish(*buffer, frame.nb_samples);
    return Result::Made;
}

/// Without a frame: what is still inside.
FrameOutput::Result SampleOutput::resample(const AVFrame* frame, Reference<PacketBuffer>& made) {
    constexpr int kMargin = 64;  // samples; what does not fit comes out with the next
    const int more = frame == nullptr ? 0 : frame->nb_samples;
    const std::int64_t due = rescaleTime(samplesIn + more, {1, from.rate}, {1, to.rate}) - samplesOut;
    const int room =
        static_cast<int>(std::clamp<std::int64_t>(due, 0, std::numeric_limits<int>::max() / 2)) + kMargin;
    FrameBuffer* const buffer = lend(room);
    if (buffer == nullptr) {
        return Result::NoMemory;
    }
    made = Reference<PacketBuffer>::Adopt(buffer);
    std::uint8_t* planes[kMostChannels] = {};
    FfmpegProxy::av_samples_fill_arrays(planes, nullptr, buffer->Bytes(), to.channels.nb_channels, room,
                                        to.format, kPacked);
    const int samples = FfmpegProxy::swr_convert(
        resampler.get(), planes, room,
        frame == nullptr ? nullptr : const_cast<const std::uint8_t**>(frame->extended_data), more);
    samplesIn += more;
    if (samples <= 0) {
        made = {};
        return Result::Nothing;
    }
    const int size = FfmpegProxy::av_samples_get_buffer_size(nullptr, to.channels.nb_channels, samples,
                                                             to.format, kPacked);
    if (FfmpegProxy::av_sample_fmt_is_planar(to.format) != 0) {  // the planes close up
        const auto bytes = static_cast<std::size_t>(size / to.channels.nb_channels);
        for (int plane = 1; plane < to.channels.nb_channels; ++plane) {
            std::memmove(buffer->Bytes() + static_cast<std::size_t>(plane) * bytes, planes[plane], bytes);
        }
    }
    buffer->ActualSize() = size;
    finish(*buffer, samples);
    return Result::Made;
}

FrameOutput::Result SampleOutput::Make(AVFrame& frame, Reference<PacketBuffer>& made, bool& used) {
    used = true;
    const Format decoded{frame.format, frame.sample_rate,
                         makeChannelLayout(frame.ch_layout.nb_channels, channelMask(frame.ch_layout))};
    if (frame.nb_samples <= 0 || decoded.rate <= 0 || decoded.channels.nb_channels <= 0) {
        return Result::Nothing;
    }
    if (!(decoded == from)) {
        if (resampler != nullptr) {
            const Result rest = resample(nullptr, made);
            if (rest != Result::Nothing) {
                used = false;
                return rest;
            }
        }
        refused = !startFormat(decoded);
        if (refused) {
            LogLine(
                FileLog::Error,
                "FfmpegDecoder: samples of format %d, %d Hz, %d channels cannot be made into the wanted ones",
                decoded.format, decoded.rate, decoded.channels.nb_channels);
        }
    }
    if (refused) {
        return Result::Nothing;
    }
    noteTime(frame);
    const Result result = resampler == nullptr ? copy(frame, made) : resample(&frame, made);
    used = result != Result::NoMemory;
    return result;
}

FrameOutput::Result SampleOutput::Finish(Reference<PacketBuffer>& made) {
    const Result result = resampler == nullptr ? Result::Nothing : resample(nullptr, made);
    if (result == Result::Nothing) {
        resampler.reset();  // it takes nothing more
        from = {};
    }
    return result;
}

void SampleOutput::tellType() {
    if (revision != 0 && told == to) {
        return;
    }
    told = to;
    ++revision;
    const int bytes = std::max(FfmpegProxy::av_get_bytes_per_sample(to.format), 0);
    type.SampleFormat() = static_cast<Common::SampleFormat_t>(to.format);
    type.SampleRate() = to.rate;
    type.Channels() = to.channels.nb_channels;
    type.ChannelLayout() = channelMask(to.channels);
    type.BitsPerSample() = 8 * bytes;
    type.FrameSize() = bytes * to.channels.nb_channels;
    type.Bitrate() = static_cast<int>(std::min<std::int64_t>(std::int64_t{8} * type.FrameSize() * to.rate,
                                                             std::numeric_limits<int>::max()));
}

}  // namespace Mivra::FFmpeg
