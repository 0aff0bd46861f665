#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include "mivra/ffmpeg/EncoderInput.h"
#include "mivra/ffmpeg/EncoderOpening.h"
#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/FfmpegLog.h"
#include "mivra/ffmpeg/FrameTimes.h"
#include "mivra/ffmpeg/PictureLayout.h"
#include "mivra/ffmpeg/PictureScaler.h"

extern "C" {
#include <libavutil/log.h>
}

namespace Mivra::FFmpeg {
namespace {

using Common::MediaType;
using Common::PacketBuffer;
using Common::Reference;

/// The scaler warns of formats that tell the full range by themselves, of which nothing is wrong.
class ScalerWatch : public FfmpegMessageWatch {
public:
    int OnMessage(const void* /*object*/, int level, std::string_view /*message*/) noexcept override {
        return level == AV_LOG_WARNING ? AV_LOG_INFO : level;
    }
};

/// The formats of JPEG are the others with the full range of values.
AVPixelFormat withRange(AVPixelFormat format, bool full) {
    constexpr AVPixelFormat kPairs[][2] = {{AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVJ420P},
                                           {AV_PIX_FMT_YUV422P, AV_PIX_FMT_YUVJ422P},
                                           {AV_PIX_FMT_YUV444P, AV_PIX_FMT_YUVJ444P}};
    for (const auto& pair : kPairs) {
        if (full && format == pair[0]) {
            return pair[1];
        }
    }
    return format;
}

class PictureInput : public EncoderInput {
public:
    PictureInput(AVRational from, AVRational to, AVRational rate) : times(from, to, rate) {}

    std::string Configure(const MediaType& type, const AVCodecContext& encoder) override;
    bool HasRoom() const override { return !pending; }
    bool Holds() const override { return !HasRoom(); }
    std::string Take(PacketBuffer& buffer) override;
    void Finish() override {}
    bool Next(AVFrame& frame) override;
    void Accepted() override { pending = {}; }
    void Stamp(const AVPacket& from, PacketBuffer& to) override { times.Stamp(from, to); }

private:
    bool isPadded(PacketBuffer& picture) const;
    bool pad();
    bool convert(AVFrame& frame);
    bool fillFrame(PacketBuffer& memory, std::uint8_t* base, const PictureLayout& layout, AVFrame& frame);
    bool upload(AVFrame& frame);

    PictureTimes times;
    PictureLayout given;
    PictureLayout taken;
    PictureScaler scaler;
    bool scales = false;              // else pictures fit as they are
    FramePointer source;              // what the scaler reads from
    AVBufferRef* surfaces = nullptr;  // the encoder's; null: it takes pictures from memory
    Reference<PacketBuffer> pending;
    std::int64_t pendingTick = 0;
};

std::string PictureInput::Configure(const MediaType& type, const AVCodecContext& encoder) {
    PictureLayout from;
    PictureLayout to;
    surfaces = encoder.hw_frames_ctx;
    const AVPixelFormat format = surfaces != nullptr ? encoder.sw_pix_fmt : encoder.pix_fmt;
    if (!pictureLayoutOf(type, from)) {
        return "the input is no raw picture that can be laid out";
    }
    // Rows of the encoder's pictures are as long as its loops like them.
    const int wide = (encoder.width + kPlaneAlignment - 1) / kPlaneAlignment * kPlaneAlignment;
    if (!makePictureLayout(format, 2 * wide, 1, 0, 0, to) ||
        !makePictureLayout(format, encoder.width, encoder.height, to.stride, 0, to)) {
        return "the size of the pictures is not possible";
    }
    from.format = withRange(from.format, metadataNumber(type, Key::kColorRange, 0) == AVCOL_RANGE_JPEG);
    given = from;
    taken = to;
    scales = given.format != taken.format || given.width != taken.width || given.height != taken.height;
    if (!scales) {
        return {};
    }
    if (source == nullptr) {
        source.reset(FfmpegProxy::av_frame_alloc());
    }
    if (source == nullptr) {
        return "no memory";
    }
    source->format = given.format;
    source->width = given.width;
    source->height = given.height;
    source->color_range =
        AVColorRange(metadataEnumerator(type, Key::kColorRange, AVCOL_RANGE_UNSPECIFIED, AVCOL_RANGE_NB));
    source->colorspace =
        AVColorSpace(metadataEnumerator(type, Key::kColorSpace, AVCOL_SPC_UNSPECIFIED, AVCOL_SPC_NB));
    for (int plane = 0; plane < kMostPlanes; ++plane) {
        source->linesize[plane] = given.linesizes[plane];
    }
    ScalerWatch watch;
    return PictureScaler::CanMake(taken) ? std::string() : "the pictures cannot be converted";
}

std::string PictureInput::Take(PacketBuffer& buffer) {
    if (buffer.ActualSize() < given.size) {
        return "a picture of " + std::to_string(buffer.ActualSize()) + " bytes, and " +
               std::to_string(given.size) + " are needed";
    }
    pendingTick = times.Push(buffer);
    pending = Reference<PacketBuffer>(&buffer);
    return {};
}

bool PictureInput::isPadded(PacketBuffer& picture) const {
    return picture.Size() - given.size >= kReadPastEnd;
}

/// Puts a copy in place of a picture whose buffer ends too close behind it.
bool PictureInput::pad() {
    Reference<PacketBuffer> copy = lockAligned(static_cast<std::size_t>(given.size));
    if (!copy) {
        return false;
    }
    std::memcpy(copy->Buffer(), pending->Buffer(), static_cast<std::size_t>(given.size));
    pending = std::move(copy);
    return true;
}

bool PictureInput::fillFrame(PacketBuffer& memory, std::uint8_t* base, const PictureLayout& layout,
                             AVFrame& frame) {
    if (!attach(memory, frame)) {
        return false;
    }
    std::uint8_t* planes[kMostPlanes] = {};
    layout.Point(base, planes);
    for (int plane = 0; plane < kMostPlanes; ++plane) {
        frame.data[plane] = planes[plane];
        frame.linesize[plane] = layout.linesizes[plane];
    }
    frame.format = layout.format;
    frame.width = layout.width;
    frame.height = layout.height;
    return true;
}

bool PictureInput::convert(AVFrame& frame) {
    Reference<PacketBuffer> memory = lockAligned(static_cast<std::size_t>(taken.size));
    if (!memory || !fillFrame(*memory.get(), alignedData(*memory.get()), taken, frame)) {
        return false;
    }
    std::uint8_t* planes[kMostPlanes] = {};
    given.Point(reinterpret_cast<std::uint8_t*>(pending->Buffer()), planes);
    std::copy(std::begin(planes), std::end(planes), source->data);
    ScalerWatch watch;
    return scaler.Scale(*source, taken, frame.data[0]);
}

/// Puts the picture on a surface of the encoder's device.
bool PictureInput::upload(AVFrame& frame) {
    const FramePointer memory(FfmpegProxy::av_frame_alloc());
    if (memory == nullptr) {
        return false;
    }
    std::swap(*memory, frame);  // both are blank but for what was filled in
    frame.extended_data = frame.data;
    memory->extended_data = memory->data;
    return FfmpegProxy::av_hwframe_get_buffer(surfaces, &frame, 0) >= 0 &&
           FfmpegProxy::av_hwframe_transfer_data(&frame, memory.get(), 0) >= 0;
}

bool PictureInput::Next(AVFrame& frame) {
    if (!pending || (!isPadded(*pending.get()) && !pad())) {
        return false;
    }
    const bool filled =
        scales ? convert(frame)
               : fillFrame(*pending.get(), reinterpret_cast<std::uint8_t*>(pending->Buffer()), given, frame);
    if (!filled || (surfaces != nullptr && !upload(frame))) {
        FfmpegProxy::av_frame_unref(&frame);
        return false;
    }
    frame.pts = pendingTick;
    return true;
}

}  // namespace

std::unique_ptr<EncoderInput> makePictureInput(AVRational from, AVRational to, AVRational rate) {
    return std::make_unique<PictureInput>(from, to, rate);
}

}  // namespace Mivra::FFmpeg
