#include "mivra/ffmpeg/DecoderEngine.h"

#include <cstring>
#include <new>
#include <tuple>
#include <utility>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/DecoderConfiguration.h"
#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/FfmpegLog.h"
#include "mivra/ffmpeg/FrameFields.h"
#include "mivra/ffmpeg/PictureOutput.h"
#include "mivra/ffmpeg/SampleOutput.h"

namespace Mivra::FFmpeg {
namespace {

using Common::Codec_t;
using Common::ContentType_t;
using Common::FileLog;
using Common::LogLine;
using Common::MediaType;
using Common::PacketBuffer;
using Result = PacketDecoder::Result;

constexpr int kHeldByCaller = 16;  // frames that a caller is expected to keep

/// Whether a stream of one type needs another decoder than a stream of the other.
bool needsNewDecoder(const MediaType& a, const MediaType& b) {
    const auto traits = [](const MediaType& type) {
        return std::tuple(type.ContentType(), type.CodecId(), type.CodecPrivateDataSize(), type.Width(),
                          type.Height(), type.PixelFormat(), type.SampleRate(), type.Channels(),
                          type.BitsPerSample(), type.FrameSize(), type.Timescale().Num(),
                          type.Timescale().Den());
    };
    return traits(a) != traits(b) || (a.CodecPrivateDataSize() > 0 &&
                                      std::memcmp(a.CodecPrivateData(), b.CodecPrivateData(),
                                                  static_cast<std::size_t>(a.CodecPrivateDataSize())) != 0);
}

const char* rawCodecWhyNot(const MediaType& wanted, ContentType_t content) {
    if (wanted.ContentType() != ContentType_t::Unknown && wanted.ContentType() != content) {
        return "another kind of stream is wanted";
    }
    const Codec_t raw = content == ContentType_t::Video ? Codec_t::UNCOMPRESSED : Codec_t::PCM_S16LE;
    return wanted.CodecId() == Codec_t::None || wanted.CodecId() == raw ? nullptr
                                                                        : "a compressed output is wanted";
}

}  // namespace

DecoderEngine::DecoderEngine(const void* name_, const MediaType& input_, const MediaType& wanted_,
                             const Media::DecoderParameters& parameters_)
    : name(name_),
      given(input_),
      input(input_),
      wanted(wanted_),
      parameters(parameters_),
      pool(FramePool::Make()) {
    if (use.IsLoaded()) {
        RouteFfmpegLog();
    }
    const char* why = use.IsLoaded() ? makeOutput() : "the FFmpeg libraries cannot be loaded";
    if (why != nullptr) {
        LogLine(FileLog::Error, "FfmpegDecoder::FfmpegDecoder[%p]: %s: %s", name, input.ToString().c_str(),
                why);
        FfmpegMessageWatch::TellRefusal(why);
        return;
    }
    open(parameters.AllowHardwareAcceleration);
}

const char* DecoderEngine::makeOutput() {
    const ContentType_t content = input.ContentType();
    if (content != ContentType_t::Video && content != ContentType_t::Audio) {
        return "only video and audio can be decoded";
    }
    const bool video = content == ContentType_t::Video;
    const char* why = rawCodecWhyNot(wanted, content);
    if (why == nullptr) {
        why = video ? PictureOutput::WhyNot(wanted) : SampleOutput::WhyNot(wanted);
    }
    if (why == nullptr && video) {
        output = std::make_unique<PictureOutput>(input, wanted, pool);
    } else if (why == nullptr) {
        output = std::make_unique<SampleOutput>(input, wanted);
    }
    return why;
}

/// False, after one log line, when the input cannot be decoded.
bool DecoderEngine::open(bool hardware) {
    PacketDecoder::Options options{parameters.ThreadCount, hardware};
    std::string why;
    std::unique_ptr<PacketDecoder> opened = PacketDecoder::Open(input, options, *pool.get(), why);
    if (opened == nullptr && hardware) {
        options.hardware = false;
        opened = PacketDecoder::Open(input, options, *pool.get(), why);
    }
    decoder = std::move(opened);
    if (decoder == nullptr) {
        LogLine(FileLog::Error, "FfmpegDecoder::FfmpegDecoder[%p]: %s cannot be decoded: %s", name,
                input.ToString().c_str(), why.c_str());
        FfmpegMessageWatch::TellRefusal(why);
        return false;
    }
    if (decoder->Device() != nullptr) {
        LogLine(FileLog::Information, "FfmpegDecoder[%p]: %s is decoded by %s", name,
                input.ToString().c_str(), decoder->Device());
    }
    pool->Expect(decoder->FramesHeld() + kHeldByCaller);
    return true;
}

/// The stream goes on as another: what is left of the old comes first.
void DecoderEngine::adoptType(const MediaType& changed) {
    if (!needsNewDecoder(given, changed)) {
        return;
    }
    Drain();
    collectAll();
    given = changed;
    input = changed;
    kept.Clear();
    isReplayed = false;
    isTroubled = false;
    isFirstPacket = true;
    isDraining = false;
    if (output == nullptr || changed.ContentType() != output->Type().ContentType()) {
        decoder.reset();
        LogLine(FileLog::Error,
                "FfmpegDecoder::Write[%p]: the stream has become %s, which this decoder is not for", name,
                changed.ToString().c_str());
        return;
    }
    newInput = std::make_unique<MediaType>(changed);
    open(parameters.AllowHardwareAcceleration);
}

/// A packet after the end: a stream begins again. The codec is opened anew, as flushing does not undo what it
/// was told once (samples to skip, predictors) or what damaged headers have told it.
void DecoderEngine::beginAgain() {
    collectAll();
    if (decoder != nullptr) {
        open(decoder->Device() != nullptr);  // without memory, again with the next packet
    }
    isDraining = false;
    kept.Clear();
    isReplayed = false;
    isTroubled = false;
}

void DecoderEngine::learn(PacketBuffer& packet) {
    MediaType learned(input);
    const bool corrected =
        learnFromPacket(reinterpret_cast<unsigned char*>(packet.Buffer()), packet.ActualSize(), learned);
    isFirstPacket = false;  // without memory the next one is
    if (corrected) {
        input = learned;
        open(decoder->Device() != nullptr);
    }
}

void DecoderEngine::Write(PacketBuffer& packet) {
    if (packet.NewMediaType() != nullptr) {
        adoptType(*packet.NewMediaType());
    }
    if (decoder == nullptr || packet.ActualSize() <= 0) {
        return;
    }
    if (isDraining) {
        beginAgain();
    }
    if (isFirstPacket && decoder != nullptr) {
        learn(packet);
    }
    if (decoder != nullptr) {
        send(packet);
    }
}

Result DecoderEngine::offer(PacketBuffer& packet, std::int64_t number) {
    if (decoder->Device() == nullptr) {
        return decoder->Send(packet, number);
    }
    PacketPointer copy = decoder->CopyOf(packet, number);
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    const Result result = decoder->Send(*copy);
    if (result != Result::Again) {
        kept.Keep(std::move(copy), number, packet.KeyFrame());
    }
    return result;
}

/// Gives the decoder something, taking frames until there is room for it. It may need to be asked for a frame
/// that it does not have yet.
template <typename Give>
Result DecoderEngine::insist(const Give& give) {
    Result result = give();
    while (result == Result::Again) {
        const bool stuck = collect() == Result::Again;
        if (decoder == nullptr) {
            return Result::Failed;
        }
        result = give();
        if (stuck && result == Result::Again) {
            return Result::Failed;  // no memory for a frame
        }
    }
    return result;
}

void DecoderEngine::send(PacketBuffer& packet) {
    const std::int64_t number = marks.Note(packet);
    const Result result = insist([&] { return offer(packet, number); });
    if (result != Result::Failed || decoder == nullptr) {
        return;
    }
    if (decoder->Device() != nullptr) {
        fallBack();
    } else {
        noteTrouble("Write");
    }
}

/// An empty frame, and room to let it wait; null when there is no memory.
FramePointer DecoderEngine::takeSpare() {
    waiting.reserve(waiting.size() + 1);
    return spare != nullptr ? std::move(spare) : FramePointer(FfmpegProxy::av_frame_alloc());
}

/// Takes one frame from the decoder. Done also when it was one that is not to be read.
Result DecoderEngine::collect() {
    FramePointer frame = decoder == nullptr ? nullptr : takeSpare();
    if (frame == nullptr) {
        return Result::Again;
    }
    const Result result = decoder->Receive(*frame);
    if (result == Result::Failed) {
        spare = std::move(frame);
        if (decoder->Device() != nullptr) {
            fallBack();
        } else {
            noteTrouble("Read");
        }
        return result;
    }
    if (result != Result::Done) {
        spare = std::move(frame);
        return result;
    }
    if (std::exchange(isTroubled, false) || frame->decode_error_flags != 0) {
        frame->flags |= AV_FRAME_FLAG_CORRUPT;
    }
    const std::int64_t number = packetNumber(*frame);
    if (isReplayed && kept.IsDelivered(number)) {
        FfmpegProxy::av_frame_unref(frame.get());
        spare = std::move(frame);
        return result;
    }
    kept.NoteDelivered(number);
    waiting.push_back({std::move(frame), std::move(newInput)});
    return result;
}

void DecoderEngine::collectAll() {
    for (Result result = Result::Done; result == Result::Done || result == Result::Failed;) {
        result = collect();
    }
}

/// The device has failed: software decodes what it has not delivered, from the last packets on with which
/// decoding can begin.
void DecoderEngine::fallBack() {
    LogLine(FileLog::Warning, "FfmpegDecoder[%p]: %s failed (%s), software goes on", name, decoder->Device(),
            errorText(decoder->LastError()).c_str());
    if (!open(false)) {
        return;
    }
    isReplayed = true;
    for (HardwareReplay::Entry& entry : kept.Packets()) {
        insist([&] { return decoder->Send(*entry.packet); });
    }
    if (std::exchange(isDraining, false)) {
        Drain();
    }
}

/// One line for a row of packets or frames that are no good.
void DecoderEngine::noteTrouble(const char* what) {
    if (!std::exchange(isTroubled, true)) {
        LogLine(FileLog::Warning, "FfmpegDecoder::%s[%p]: %s", what, name,
                errorText(decoder->LastError()).c_str());
    }
}

void DecoderEngine::Drain() {
    if (decoder == nullptr || isDraining) {
        return;
    }
    collectAll();  // at the end libavcodec forgets a packet that it has taken and not looked at
    isDraining = true;
    if (decoder != nullptr) {
        insist([&] { return decoder->Drain(); });
    }
}

/// A buffer from the first waiting frame. again: there was nothing in it, the next may have something.
DecoderEngine::Packet DecoderEngine::makeOne(bool& again) {
    Waiting& first = waiting.front();
    if (first.newInput != nullptr) {
        output->SetInput(*first.newInput);
        first.newInput.reset();
    }
    Packet made;
    bool used = true;
    const FrameOutput::Result result = output->Make(*first.frame, made, used);
    if (made) {
        marks.Apply(packetNumber(*first.frame), *made.get());
        if ((first.frame->flags & AV_FRAME_FLAG_CORRUPT) != 0) {
            made->ExtraData()[PacketBuffer::FlagsAttribute] = AV_FRAME_FLAG_CORRUPT;
        }
    }
    if (used) {
        FfmpegProxy::av_frame_unref(first.frame.get());
        spare = std::move(first.frame);
        waiting.erase(waiting.begin());
    }
    again = result == FrameOutput::Result::Nothing;
    return made;
}

DecoderEngine::Packet DecoderEngine::Read() {
    constexpr int kMostFailures = 1000;  // in one call: nobody is kept waiting for what never comes
    Packet made;
    int failures = 0;
    for (bool again = true; again && !made;) {
        if (!waiting.empty()) {
            made = makeOne(again);
            continue;
        }
        const Result result = collect();
        if (result == Result::Again || (result == Result::Failed && ++failures > kMostFailures)) {
            break;
        }
        if (result == Result::Ended) {
            output->Finish(made);
            break;
        }
    }
    return made;
}

}  // namespace Mivra::FFmpeg
