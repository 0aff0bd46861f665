#include "mivra/ffmpeg/PictureOutput.h"

#include <utility>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/FrameFields.h"

namespace Mivra::FFmpeg {
namespace {

using Common::FileLog;
using Common::LogLine;
using Common::MediaType;
using Common::PacketBuffer;
using Common::Rational;
using Common::Reference;

int sizeOr(int wanted, int decoded) {
    return wanted > 0 ? wanted : decoded;
}

AVPixelFormat formatOr(Common::PixelFormat_t wanted, int decoded) {
    return wanted == Common::PixelFormat_t::None ? static_cast<AVPixelFormat>(decoded) : toFfmpeg(wanted);
}

/// A layout of the engine's choice for pictures that are not decoded in place: every row begins where vector
/// instructions like it.
bool makeAlignedLayout(AVPixelFormat format, int width, int height, PictureLayout& layout) {
    const int rows = height + height % 2;
    for (int whole = width;; whole += whole & ~(whole - 1)) {
        if (!makePictureLayout(format, whole, rows, 0, 0, layout)) {
            return false;
        }
        bool aligned = true;
        for (int plane = 0; plane < layout.planes; ++plane) {
            aligned = aligned && layout.linesizes[plane] % static_cast<int>(FrameBuffer::kAlignment) == 0;
        }
        if (aligned) {
            return makePictureLayout(format, width, height, layout.stride, rows, layout);
        }
    }
}

/// The picture that a layout for a larger one shows when only its visible part counts.
bool crop(const PictureLayout& whole, int width, int height, PictureLayout& layout) {
    return whole.planes > 0 &&
           makePictureLayout(whole.format, width, height, whole.stride, whole.rows, layout);
}

}  // namespace

PictureOutput::PictureOutput(const MediaType& input, const MediaType& wanted_, FramePool::Pointer lent_)
    : wanted(wanted_), lent(std::move(lent_)), own(FramePool::Make()) {
    type = wanted;
    type.ContentType() = Common::ContentType_t::Video;
    type.CodecId() = Common::Codec_t::UNCOMPRESSED;
    type.Compressed() = false;
    type.FixedSizeSamples() = true;
    type.Timescale() = fromFfmpeg(kEngineTimeBase);
    type.Width() = sizeOr(wanted.Width(), input.Width());
    type.Height() = sizeOr(wanted.Height(), input.Height());
    type.PixelFormat() = fromFfmpeg(formatOr(wanted.PixelFormat(), static_cast<int>(input.PixelFormat())));
    type.PixelAspectRatio() = input.PixelAspectRatio();
    SetInput(input);
}

void PictureOutput::SetInput(const MediaType& input) {
    inputAspect = input.PixelAspectRatio();
    usualDuration = 0;
    if (!input.Framerate().IsNull()) {
        usualDuration = rescaleTime(1, toFfmpeg(!input.Framerate()), kEngineTimeBase);
    } else if (input.FrameDuration() > 0) {
        usualDuration = rescaleTime(input.FrameDuration(), toFfmpeg(input.Timescale()), kEngineTimeBase);
    }
    type.Framerate() = input.Framerate();
    type.FrameDuration() = usualDuration;
    told = {};
}

const char* PictureOutput::WhyNot(const MediaType& wanted) {
    constexpr int kAnySize = 64;
    if (wanted.Width() < 0 || wanted.Height() < 0) {
        return "a size below 0 is wanted";
    }
    MediaType sample(wanted);
    sample.Width() = sizeOr(wanted.Width(), kAnySize);
    sample.Height() = sizeOr(wanted.Height(), kAnySize);
    sample.PixelFormat() = fromFfmpeg(formatOr(wanted.PixelFormat(), AV_PIX_FMT_YUV420P));
    if (wanted.Width() == 0 || wanted.Height() == 0 || wanted.PixelFormat() == Common::PixelFormat_t::None) {
        sample.CodecMetadata().RemoveKey(Key::kStride);  // shows itself with the first picture
        sample.CodecMetadata().RemoveKey(Key::kRows);
    }
    PictureLayout layout;
    if (!pictureLayoutOf(sample, layout)) {
        return "pictures of the wanted size, format and layout are not possible";
    }
    return wanted.PixelFormat() == Common::PixelFormat_t::None || PictureScaler::CanMake(layout)
               ? nullptr
               : "the wanted pixel format cannot be made";
}

/// The pool's buffer that holds all of the picture just as its layout says; null when there is none.
FrameBuffer* PictureOutput::decodedInto(const AVFrame& frame) {
    if (frame.buf[0] == nullptr || frame.buf[1] != nullptr) {
        return nullptr;
    }
    FrameBuffer* const buffer = lent->Find(frame.buf[0]->data);
    if (buffer == nullptr || buffer->Layout().format != frame.format) {
        return nullptr;
    }
    std::uint8_t* planes[kMostPlanes];
    buffer->Layout().Point(buffer->Bytes(), planes);
    for (int plane = 0; plane < kMostPlanes; ++plane) {
        const bool used = plane < buffer->Layout().planes;
        if (used && (frame.data[plane] != planes[plane] ||
                     frame.linesize[plane] != buffer->Layout().linesizes[plane])) {
            return nullptr;
        }
    }
    return buffer;
}

bool PictureOutput::isWanted(const PictureLayout& layout) const {
    const auto fits = [this](const char* key, int has) {
        const std::int64_t number = metadataNumber(wanted, key, 0);
        return number == 0 || number == has;
    };
    const bool rowsOpen =
        metadataNumber(wanted, Key::kStride, 0) != 0 && !wanted.CodecMetadata().ContainsKey(Key::kRows);
    return fits(Key::kStride, layout.stride) && fits(Key::kRows, layout.rows) &&
           (!rowsOpen || layout.rows == layout.height);
}

/// How the next picture shall lie in a buffer of our own.
bool PictureOutput::chooseTarget(const AVFrame& frame, const FrameBuffer* buffer) {
    PictureLayout picture;
    picture.format = static_cast<AVPixelFormat>(frame.format);
    picture.width = frame.width;
    picture.height = frame.height;
    picture.stride = buffer == nullptr ? 0 : buffer->Layout().stride;
    picture.rows = buffer == nullptr ? 0 : buffer->Layout().rows;
    if (target.planes > 0 && picture == source) {
        return true;
    }
    MediaType sample(wanted);
    sample.Width() = sizeOr(wanted.Width(), frame.width);
    sample.Height() = sizeOr(wanted.Height(), frame.height);
    const AVPixelFormat format = formatOr(wanted.PixelFormat(), frame.format);
    sample.PixelFormat() = fromFfmpeg(format);
    source = picture;
    target = {};
    if (metadataNumber(wanted, Key::kStride, 0) != 0 || metadataNumber(wanted, Key::kRows, 0) != 0) {
        return pictureLayoutOf(sample, target);
    }
    // A copy lies as the pictures around it that are not copied.
    if (buffer != nullptr && format == frame.format && sample.Width() == frame.width &&
        sample.Height() == frame.height && crop(buffer->Layout(), frame.width, frame.height, target)) {
        return true;
    }
    return makeAlignedLayout(format, sample.Width(), sample.Height(), target);
}

FrameOutput::Result PictureOutput::refuse(const AVFrame& frame) {
    if (!std::exchange(refused, true)) {
        LogLine(FileLog::Error,
                "FfmpegDecoder: a picture of %dx%d in format %d cannot be made into %dx%d in format %d",
                frame.width, frame.height, frame.format, type.Width(), type.Height(),
                static_cast<int>(type.PixelFormat()));
    }
    return Result::Nothing;
}

FrameOutput::Result PictureOutput::convert(AVFrame& frame, const FrameBuffer* buffer, FrameBuffer*& made) {
    if (!chooseTarget(frame, buffer)) {
        return refuse(frame);
    }
    const Reference<FrameBuffer> room = Reference<FrameBuffer>::Adopt(own->Lend(target.size));
    if (!room) {
        return Result::NoMemory;
    }
    if (target.format == frame.format && target.width == frame.width && target.height == frame.height) {
        copyPicture(frame.data, frame.linesize, target, room->Bytes());
    } else if (!scaler.Scale(frame, target, room->Bytes())) {
        return refuse(frame);
    }
    made = room.get();
    made->AddRef();
    return Result::Made;
}

FrameOutput::Result PictureOutput::Make(AVFrame& frame, Reference<PacketBuffer>& made, bool& used) {
    used = true;
    FrameBuffer* buffer = decodedInto(frame);
    PictureLayout layout;
    const bool inPlace = buffer != nullptr && !buffer->IsDelivered() &&
                         sizeOr(wanted.Width(), frame.width) == frame.width &&
                         sizeOr(wanted.Height(), frame.height) == frame.height &&
                         formatOr(wanted.PixelFormat(), frame.format) == frame.format &&
                         crop(buffer->Layout(), frame.width, frame.height, layout) && isWanted(layout);
    if (inPlace) {
        buffer->AddRef();
    } else {
        FrameBuffer* copy = nullptr;
        if (const Result result = convert(frame, buffer, copy); result != Result::Made) {
            used = result != Result::NoMemory;
            return result;
        }
        buffer = copy;
        layout = target;
    }
    made = Reference<PacketBuffer>::Adopt(buffer);
    buffer->IsDelivered() = true;
    buffer->ActualSize() = layout.size;
    tellType(frame, layout);
    tellTimes(frame, *buffer);
    refused = false;
    return Result::Made;
}

FrameOutput::Result PictureOutput::Finish(Reference<PacketBuffer>&) {
    return Result::Nothing;
}

/// The aspect of a pixel after scaling: the picture keeps the shape that it has on a screen.
Rational PictureOutput::aspectOf(const AVFrame& frame, const PictureLayout& layout) const {
    const AVRational own_ = frame.sample_aspect_ratio;
    const Rational decoded = own_.num > 0 && own_.den > 0 ? fromFfmpeg(own_) : inputAspect;
    if ((layout.width == frame.width && layout.height == frame.height) || decoded.IsNull()) {
        return decoded;
    }
    return decoded * Rational(frame.width, layout.width) * Rational(layout.height, frame.height);
}

void PictureOutput::tellType(const AVFrame& frame, const PictureLayout& layout) {
    const Traits traits{layout,
                        aspectOf(frame, layout),
                        storedNumber(frame.color_range),
                        storedNumber(frame.color_primaries),
                        storedNumber(frame.color_trc),
                        storedNumber(frame.colorspace),
                        storedNumber(frame.chroma_location)};
    if (traits == told) {
        return;
    }
    told = traits;
    tellPictureLayout(layout, type);
    type.PixelAspectRatio() = traits.aspect;
    const std::pair<const char*, int> colors[] = {{Key::kColorRange, traits.range},
                                                  {Key::kColorPrimaries, traits.primaries},
                                                  {Key::kColorTransfer, traits.transfer},
                                                  {Key::kColorSpace, traits.space},
                                                  {Key::kChromaLocation, traits.location}};
    for (const auto& [key, value] : colors) {
        type.CodecMetadata()[key] = value;
    }
    ++revision;
}

void PictureOutput::tellTimes(const AVFrame& frame, PacketBuffer& made) {
    const std::int64_t duration = frameDuration(frame) > 0 ? frameDuration(frame) : usualDuration;
    const std::int64_t guess = duration > 0 ? nextTime : kUnsetTime;
    const std::int64_t time = frame.best_effort_timestamp == kUnsetTime ? guess : frame.best_effort_timestamp;
    made.Pts() = time;
    made.Dts() = time;
    made.Duration() = duration;
    made.KeyFrame() = isKeyFrame(frame);
    made.CleanPoint() = made.KeyFrame();
    nextTime = time != kUnsetTime && duration > 0 ? time + duration : kUnsetTime;
}

}  // namespace Mivra::FFmpeg
