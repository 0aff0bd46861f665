#include "mivra/ffmpeg/PacketDecoder.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include "mivra/ffmpeg/DecoderConfiguration.h"
#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/FrameFields.h"
#include "mivra/ffmpeg/FrameLender.h"
#include "mivra/ffmpeg/HardwareDevices.h"

namespace Mivra::FFmpeg {
namespace {

using Common::MediaType;
using Common::PacketBuffer;

int packetFlags(PacketBuffer& packet) {
    int flags = packet.KeyFrame() ? AV_PKT_FLAG_KEY : 0;
    if (!packet.ExtraData().empty()) {
        const auto entry = packet.ExtraData().find(PacketBuffer::FlagsAttribute);
        if (entry != packet.ExtraData().end()) {
            const int* const more = std::any_cast<int>(&entry->second);
            flags |= more == nullptr ? 0 : *more;
        }
    }
    return flags;
}

/// FFmpeg's number of the side data that the key names; -1 for another key.
int sideDataType(const std::string& key) {
    const std::string_view prefix = kPacketSideData;
    int type = -1;
    if (std::string_view(key).substr(0, prefix.size()) == prefix) {
        std::from_chars(key.data() + prefix.size(), key.data() + key.size(), type);
    }
    return type < AV_PKT_DATA_NB ? type : -1;
}

}  // namespace

std::unique_ptr<PacketDecoder> PacketDecoder::Open(const MediaType& type, const Options& options,
                                                   FramePool& pool, std::string& why) {
    const AVCodec* const codec = FfmpegProxy::avcodec_find_decoder(static_cast<int>(type.CodecId()));
    if (codec == nullptr) {
        why = "FFmpeg has no decoder for it";
        return nullptr;
    }
    std::unique_ptr<PacketDecoder> decoder(new PacketDecoder);
    decoder->scratch.reset(FfmpegProxy::av_packet_alloc());
    decoder->context.reset(FfmpegProxy::avcodec_alloc_context3(codec));
    if (decoder->scratch == nullptr || decoder->context == nullptr ||
        !configureDecoder(type, options.threads, *decoder->context)) {
        why = "out of memory";
        return nullptr;
    }
    if (options.hardware && codec->type == AVMEDIA_TYPE_VIDEO) {
        decoder->device = attachHardware(*codec, *decoder->context);
    }
    if (decoder->device == nullptr) {
        lendBuffers(pool, *codec, *decoder->context);
    }
    const int error = FfmpegProxy::avcodec_open2(decoder->context.get(), codec, nullptr);
    if (error < 0) {
        why = errorText(error);
        return nullptr;
    }
    return decoder;
}

PacketDecoder::Result PacketDecoder::judge(int error) {
    if (error >= 0) {
        return Result::Done;
    }
    if (error == AVERROR(EAGAIN)) {
        return Result::Again;
    }
    if (error == AVERROR_EOF) {
        return Result::Ended;
    }
    lastError = error;
    return Result::Failed;
}

bool PacketDecoder::addSideData(PacketBuffer& packet) {
    for (const auto& [key, value] : packet.ExtraData()) {
        const int type = sideDataType(key);
        const std::string* const bytes = std::any_cast<std::string>(&value);
        if (type < 0 || bytes == nullptr || FfmpegOptional::av_packet_new_side_data == nullptr) {
            continue;
        }
        std::uint8_t* const data =
            FfmpegOptional::av_packet_new_side_data(scratch.get(), type, bytes->size());
        if (data == nullptr) {
            return false;
        }
        std::memcpy(data, bytes->data(), bytes->size());
    }
    return true;
}

/// The packet in FFmpeg's terms, showing the buffer's own bytes: who keeps it copies them.
bool PacketDecoder::fill(PacketBuffer& packet, std::int64_t number) {
    scratch->data = reinterpret_cast<std::uint8_t*>(packet.Buffer());
    scratch->size = packet.ActualSize();
    scratch->pts = packet.Pts();
    scratch->dts = packet.Dts();
    scratch->duration = packet.Duration();
    scratch->flags = packetFlags(packet);
    setPacketNumber(*scratch, number);
    return packet.ExtraData().empty() || addSideData(packet);
}

PacketDecoder::Result PacketDecoder::Send(PacketBuffer& packet, std::int64_t number) {
    if (packet.ActualSize() <= 0) {
        return Result::Done;  // nothing in it; libavcodec would take it for the end
    }
    const int error = fill(packet, number) ? FfmpegProxy::avcodec_send_packet(context.get(), scratch.get())
                                           : AVERROR(ENOMEM);
    FfmpegProxy::av_packet_unref(scratch.get());
    return judge(error);
}

PacketDecoder::Result PacketDecoder::Send(const AVPacket& packet) {
    return judge(FfmpegProxy::avcodec_send_packet(context.get(), &packet));
}

PacketPointer PacketDecoder::CopyOf(PacketBuffer& packet, std::int64_t number) {
    PacketPointer copy;
    if (packet.ActualSize() > 0 && fill(packet, number)) {
        copy.reset(FfmpegProxy::av_packet_clone(scratch.get()));
    }
    FfmpegProxy::av_packet_unref(scratch.get());
    return copy;
}

PacketDecoder::Result PacketDecoder::Receive(AVFrame& frame) {
    const Result result = judge(FfmpegProxy::avcodec_receive_frame(context.get(), &frame));
    if (result != Result::Done) {
        return result;
    }
    if (const int error = device == nullptr ? 0 : g_hardware.fetch(frame); error < 0) {
        FfmpegProxy::av_frame_unref(&frame);
        lastError = error;
        return Result::Failed;
    }
    frame.pts = rescaleTime(frame.pts, context->pkt_timebase, kEngineTimeBase);
    frame.best_effort_timestamp =
        rescaleTime(frame.best_effort_timestamp, context->pkt_timebase, kEngineTimeBase);
    setFrameDuration(frame, rescaleTime(frameDuration(frame), context->pkt_timebase, kEngineTimeBase));
    return result;
}

PacketDecoder::Result PacketDecoder::Drain() {
    return judge(FfmpegProxy::avcodec_send_packet(context.get(), nullptr));
}

int PacketDecoder::FramesHeld() const {
    constexpr int kReferences = 17;  // the most of any codec, and the one being decoded
    return kReferences + std::max(context->has_b_frames, 0) + std::max(context->thread_count, 1);
}

}  // namespace Mivra::FFmpeg
