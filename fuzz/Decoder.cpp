// Packets through a decoder: the first bytes choose the codec, what its media type says, the private data,
// the wanted output and the threads; then packets, each behind its length. Types that contradict the data are
// part of it. What comes out has to be as large as the output type says.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

#include "fuzz/OperationSource.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/ffmpeg/FfmpegDecoder.h"
#include "mivra/ffmpeg/FfmpegProxy.h"
#include "mivra/ffmpeg/PictureLayout.h"

using namespace Mivra;
using Common::MediaType;
using Common::PacketBuffer;

namespace {

constexpr int kCodecs[] = {1, 2, 4, 7, 12, 13, 17, 18, 27, 70, 71, 139, 167, 173, 65536, 65540, 65542, 65543,
                           65548, 69643, 69660, 77824, 86016, 86017, 86018, 86019, 86020, 86021, 86024, 86028,
                           86032, 86034, 86038, 86041, 86056, 86058, 86065, 86068,
                           // behind the others, which the seeds know by their places
                           73728, 73729, 77825, 86023, 86037, 86040, 86046, 86048, 86052, 86053, 86054, 86069,
                           65544, 65562};

struct Packet {
    explicit Packet(std::vector<char> content) : bytes(std::move(content)) {
        buffer = new PacketBuffer(bytes.data(), static_cast<int>(bytes.size()));
        buffer->ActualSize() = buffer->Size();
    }
    ~Packet() { buffer->Release(); }
    Packet(const Packet&) = delete;
    Packet& operator=(const Packet&) = delete;

    std::vector<char> bytes;
    PacketBuffer* buffer;
};

std::vector<char> take(OperationSource& source, int size) {
    std::vector<char> bytes;
    for (; size > 0 && !source.AtEnd(); --size) {
        bytes.push_back(static_cast<char>(source.Small()));
    }
    return bytes;
}

MediaType inputType(OperationSource& source) {
    MediaType type;
    type.CodecId() =
        static_cast<Common::Codec_t>(kCodecs[static_cast<std::size_t>(source.Small()) % std::size(kCodecs)]);
    const bool video = static_cast<int>(type.CodecId()) < 65536;
    type.ContentType() = video ? Common::ContentType_t::Video : Common::ContentType_t::Audio;
    type.Width() = source.Small();
    type.Height() = source.Small();
    type.PixelFormat() = static_cast<Common::PixelFormat_t>(source.Small() - 1);
    type.SampleRate() = source.Small() * 1000;
    type.Channels() = source.Small() % 16;
    type.FrameSize() = source.Small();
    type.BitsPerSample() = source.Small() % 40;
    type.Bitrate() = source.Small() * 1000;
    const std::vector<char> data = take(source, source.Small());
    if (!data.empty()) {
        type.CodecPrivateData() = static_cast<char*>(std::malloc(data.size()));
        std::memcpy(type.CodecPrivateData(), data.data(), data.size());
        type.CodecPrivateDataSize() = static_cast<int>(data.size());
    }
    return type;
}

MediaType wantedType(OperationSource& source) {
    MediaType type;
    const int choice = source.Small();
    if ((choice & 1) != 0) {
        type.Width() = source.Small() + 1;
        type.Height() = source.Small() + 1;
    }
    if ((choice & 2) != 0) {
        type.PixelFormat() = static_cast<Common::PixelFormat_t>(source.Small() % 30);
    }
    if ((choice & 4) != 0) {
        type.SampleFormat() = static_cast<Common::SampleFormat_t>(source.Small() % 10);
        type.SampleRate() = source.Small() * 500;
        type.Channels() = source.Small() % 9;
    }
    if ((choice & 8) != 0) {
        type.CodecMetadata()["Stride"] = source.Small() * 16;
    }
    return type;
}

void readAll(FFmpeg::FfmpegDecoder& decoder) {
    while (PacketBuffer* const frame = decoder.Read()) {
        const MediaType type = decoder.GetOutputMediaType();
        FFmpeg::PictureLayout layout;
        if (type.ContentType() == Common::ContentType_t::Video) {
            Require(FFmpeg::pictureLayoutOf(type, layout) && frame->ActualSize() == layout.size);
        } else {
            Require(type.Channels() > 0 &&
                    frame->ActualSize() % (type.Channels() * type.BitsPerSample() / 8) == 0);
        }
        Require(frame->ActualSize() <= frame->Size());
        int sum = 0;
        for (int i = 0; i < frame->ActualSize(); i += 61) {
            sum += frame->Buffer()[i];  // all of it may be read
        }
        static_cast<void>(sum);
        frame->Release();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool s_loaded = FFmpeg::FfmpegProxy::Load();
    Require(s_loaded);
    OperationSource source(data, size);
    MediaType input = inputType(source);
    MediaType wanted = wantedType(source);
    Media::DecoderParameters parameters;
    parameters.AllowHardwareAcceleration = false;
    parameters.ThreadCount = source.Small() % 3 == 2 ? 2 : 1;
    FFmpeg::FfmpegDecoder decoder(&input, &wanted, &parameters);
    for (int packets = 0; !source.AtEnd() && packets < 40; ++packets) {
        const int high = source.Small();
        const int length = (high & 31) << 8 | source.Small();
        Packet packet(take(source, length));
        packet.buffer->Pts() = packets * 400000;
        packet.buffer->KeyFrame() = packets == 0;
        if ((high & 0xE0) == 0xE0) {
            packet.buffer->NewMediaType() = new MediaType(inputType(source));
        }
        decoder.Write(packet.buffer);
        if ((high & 32) == 0) {
            readAll(decoder);
        }
        if ((high & 0xC0) == 0xC0) {
            decoder.Drain();
        }
    }
    decoder.Drain();
    readAll(decoder);
    return 0;
}
