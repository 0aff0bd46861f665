#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include "mivra/ffmpeg/EncoderInput.h"
#include "mivra/ffmpeg/EncoderOpening.h"
#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/FrameTimes.h"

namespace Mivra::FFmpeg {
namespace {

using Common::MediaType;
using Common::PacketBuffer;
using Common::Reference;

constexpr int kMostChannels = 64;     // that the resampler takes
constexpr int kResamplerSlack = 256;  // samples that it may hold back and give out later

using Planes = std::array<std::uint8_t*, kMostChannels>;

/// How samples stand in memory.
struct SampleForm {
    AVSampleFormat format = AV_SAMPLE_FMT_NONE;
    AVChannelLayout layout{};
    int rate = 0;

    bool operator==(const SampleForm& other) const {
        return format == other.format && rate == other.rate && sameChannels(layout, other.layout);
    }
    bool IsPlanar() const { return FfmpegProxy::av_sample_fmt_is_planar(format) != 0; }
    int PlaneCount() const { return IsPlanar() ? layout.nb_channels : 1; }
    /// Of a sample of one plane, in bytes.
    int Step() const {
        return FfmpegProxy::av_get_bytes_per_sample(format) * (IsPlanar() ? 1 : layout.nb_channels);
    }
};

/// Samples in a buffer, planes one after another.
struct Samples {
    Reference<PacketBuffer> buffer;
    std::uint8_t* data = nullptr;
    std::size_t planeSize = 0;
    int count = 0;
    int used = 0;  // from the front

    int Left() const { return count - used; }
    std::uint8_t* At(int plane, int sample, int step) const {
        return data + static_cast<std::size_t>(plane) * planeSize +
               static_cast<std::size_t>(sample) * static_cast<std::size_t>(step);
    }
};

bool makeResampler(const SampleForm& from, const SampleForm& to, ResamplerPointer& made) {
    SwrContext* resampler = nullptr;
    const int error = FfmpegProxy::swr_alloc_set_opts2(&resampler, &to.layout, to.format, to.rate,
                                                       &from.layout, from.format, from.rate, 0, nullptr);
    made.reset(resampler);
    return error >= 0 && FfmpegProxy::swr_init(resampler) >= 0;
}

class SampleInput : public EncoderInput {
public:
    SampleInput(AVRational from, AVRational to, int inputRate, int outputRate)
        : times(from, to, inputRate, outputRate) {}

    std::string Configure(const MediaType& type, const AVCodecContext& encoder) override;
    bool HasRoom() const override { return held.Left() == 0; }
    bool Holds() const override {
        return held.Left() > 0 || partial.used > 0 || (resampler != nullptr && !flushed);
    }
    std::string Take(PacketBuffer& buffer) override;
    void Finish() override;
    bool Next(AVFrame& frame) override;
    void Accepted() override;
    void Stamp(const AVPacket& from, PacketBuffer& to) override { times.Stamp(from, to); }

private:
    /// Memory for so many samples of the encoder's form.
    bool lockSamples(int count, Samples& samples) const;
    bool convert(const std::uint8_t** planes, int count);
    std::string convertBuffer(const Samples& samples);
    bool flushResampler();
    bool fill();
    bool fillFrame(const Samples& samples, int count, AVFrame& frame) const;

    SampleTimes times;
    SampleForm given;
    SampleForm taken;
    int frameSize = 0;  // 0: any
    ResamplerPointer resampler;
    Samples held;     // in the encoder's form, what has not yet gone into frames
    Samples partial;  // the next frame; count is what it will hold, used what it holds
    bool finished = false;
    bool flushed = false;
    std::int64_t position = 0;  // samples that the encoder has accepted
    int offered = 0;            // samples of the frame that Next gave
};

std::string SampleInput::Configure(const MediaType& type, const AVCodecContext& encoder) {
    const SampleForm from{rawSampleFormat(type), makeChannelLayout(type.Channels(), type.ChannelLayout()),
                          type.SampleRate()};
    const SampleForm to{encoder.sample_fmt, encoder.ch_layout, encoder.sample_rate};
    if (from.format == AV_SAMPLE_FMT_NONE || from.rate <= 0 || from.layout.nb_channels <= 0) {
        return "the input is no raw audio";
    }
    if (from.layout.nb_channels > kMostChannels || to.PlaneCount() > AV_NUM_DATA_POINTERS) {
        return "too many channels";
    }
    if (from == given && to == taken) {
        return {};  // the resampler keeps what it holds
    }
    ResamplerPointer made;
    if (!(from == to) && (!isRateInReach(from.rate, to.rate) || !makeResampler(from, to, made))) {
        return "the samples cannot be converted";
    }
    times.Reserve();
    if (resampler != nullptr && to == taken) {
        convert(nullptr, 0);  // what it holds back goes in front
    }
    times.SetInputRate(from.rate);
    given = from;
    taken = to;
    frameSize = std::max(encoder.frame_size, 0);
    resampler = std::move(made);
    return {};
}

bool SampleInput::lockSamples(int count, Samples& samples) const {
    const auto step = static_cast<std::size_t>(taken.Step());
    const std::size_t planeSize =
        (static_cast<std::size_t>(count) * step + kPlaneAlignment - 1) / kPlaneAlignment * kPlaneAlignment;
    Samples locked;
    locked.buffer = lockAligned(planeSize * static_cast<std::size_t>(taken.PlaneCount()));
    if (!locked.buffer) {
        return false;
    }
    locked.data = alignedData(*locked.buffer.get());
    locked.planeSize = planeSize;
    locked.count = count;
    samples = std::move(locked);
    return true;
}

/// Fills `held` from the resampler; without planes it gives what it has held back.
bool SampleInput::convert(const std::uint8_t** planes, int count) {
    const std::int64_t most =
        (std::int64_t{count} * taken.rate + given.rate - 1) / given.rate + kResamplerSlack;
    Samples converted;
    if (most > std::numeric_limits<int>::max() || !lockSamples(static_cast<int>(most), converted)) {
        return false;
    }
    Planes out{};
    for (int plane = 0; plane < taken.PlaneCount(); ++plane) {
        out[static_cast<std::size_t>(plane)] = converted.At(plane, 0, 0);
    }
    converted.count = FfmpegProxy::swr_convert(resampler.get(), out.data(), converted.count, planes, count);
    if (converted.count < 0) {
        return false;
    }
    held = std::move(converted);
    return true;
}

std::string SampleInput::convertBuffer(const Samples& samples) {
    std::array<const std::uint8_t*, kMostChannels> in{};
    for (int plane = 0; plane < given.PlaneCount(); ++plane) {
        in[static_cast<std::size_t>(plane)] = samples.At(plane, 0, 0);
    }
    return convert(in.data(), samples.count) ? std::string() : "no memory to convert samples";
}

std::string SampleInput::Take(PacketBuffer& buffer) {
    const int step = given.Step();
    const int planes = given.PlaneCount();
    const int size = buffer.ActualSize();
    if (size <= 0 || size % (step * planes) != 0) {
        return "a buffer of " + std::to_string(size) + " bytes, which is no whole number of samples";
    }
    Samples samples;
    samples.buffer = Reference<PacketBuffer>(&buffer);
    samples.data = reinterpret_cast<std::uint8_t*>(buffer.Buffer());
    samples.planeSize = static_cast<std::size_t>(size / planes);
    samples.count = size / planes / step;
    const int count = samples.count;
    times.Reserve();
    if (resampler != nullptr) {
        if (std::string problem = convertBuffer(samples); !problem.empty()) {
            return problem;
        }
    } else {
        held = std::move(samples);
    }
    times.Push(buffer, count);
    return {};
}

void SampleInput::Finish() {
    finished = true;
}

/// Takes what the resampler still holds; false when that is nothing.
bool SampleInput::flushResampler() {
    if (resampler == nullptr || !finished || flushed || held.Left() > 0) {
        return false;
    }
    if (!convert(nullptr, 0)) {
        return false;  // no memory for it yet
    }
    flushed = held.Left() == 0;
    return !flushed;
}

/// Moves what is held into the next frame; true when that is one.
bool SampleInput::fill() {
    if (partial.count == 0 && held.Left() > 0 && !lockSamples(frameSize, partial)) {
        return false;
    }
    const int moved = std::min(held.Left(), partial.Left());
    const int step = taken.Step();
    for (int plane = 0; moved > 0 && plane < taken.PlaneCount(); ++plane) {
        std::memcpy(partial.At(plane, partial.used, step), held.At(plane, held.used, step),
                    static_cast<std::size_t>(moved) * static_cast<std::size_t>(step));
    }
    partial.used += moved;
    held.used += moved;
    if (held.Left() == 0) {
        held = {};
    }
    return partial.count > 0 && partial.Left() == 0;
}

bool SampleInput::fillFrame(const Samples& samples, int count, AVFrame& frame) const {
    if (!attach(*samples.buffer.get(), frame)) {
        return false;
    }
    for (int plane = 0; plane < taken.PlaneCount(); ++plane) {
        frame.data[plane] = samples.At(plane, 0, 0);
    }
    frame.linesize[0] = static_cast<int>(samples.planeSize);
    frame.format = taken.format;
    frame.ch_layout = taken.layout;  // owns no memory
    frame.sample_rate = taken.rate;
    frame.nb_samples = count;
    frame.pts = position;
    return true;
}

bool SampleInput::Next(AVFrame& frame) {
    if (frameSize == 0) {
        flushResampler();
        offered = held.Left();
        return offered > 0 && fillFrame(held, offered, frame);
    }
    bool whole = fill();
    while (!whole && flushResampler()) {
        whole = fill();
    }
    const bool last = finished && held.Left() == 0 && (resampler == nullptr || flushed);
    offered = whole || last ? partial.used : 0;
    return offered > 0 && fillFrame(partial, offered, frame);
}

void SampleInput::Accepted() {
    position += offered;
    (frameSize == 0 ? held : partial) = {};
}

}  // namespace

std::unique_ptr<EncoderInput> makeSampleInput(AVRational from, AVRational to, int inputRate, int outputRate) {
    return std::make_unique<SampleInput>(from, to, inputRate, outputRate);
}

}  // namespace Mivra::FFmpeg
