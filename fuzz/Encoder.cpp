// The encoder's options and media types. Beginning with an even byte the rest is options text: what is read
// and written again, everything escaped, reads the same. Otherwise it is a series of numbers that make up
// media types, however contradictory, and the sizes of what is written: nothing is thrown or read outside,
// unusable engines take nothing, and pictures that are too short are refused.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "fuzz/BinaryForm.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/ffmpeg/EncoderOptions.h"
#include "mivra/ffmpeg/FfmpegEncoder.h"
#include "mivra/ffmpeg/FfmpegProxy.h"
#include "mivra/ffmpeg/PictureLayout.h"

namespace {

using Mivra::Common::Codec_t;
using Mivra::Common::MediaType;
using Mivra::Common::PacketBuffer;
using Packet = Mivra::Common::Reference<PacketBuffer>;

void readOptions(const std::string& text) {
    using Mivra::FFmpeg::parseEncoderOptions;
    Mivra::FFmpeg::EncoderOptionList list;
    std::string error;
    const bool good = parseEncoderOptions(text, list, error);
    Mivra::Fuzz::Require(good == error.empty() && (good || list.empty()));
    std::string written;
    const auto escape = [&](const std::string& word) {
        for (const char character : word) {
            (written += '\\') += character;
        }
    };
    for (const auto& [key, value] : list) {
        written += written.empty() ? "" : ":";
        escape(key);
        written += '=';
        escape(value);
    }
    Mivra::FFmpeg::EncoderOptionList again;
    Mivra::Fuzz::Require(parseEncoderOptions(written, again, error) && again == list);
}

/// Numbers out of the input, 0 behind its end.
class Numbers {
public:
    explicit Numbers(std::span<const std::uint8_t> bytes) : left(bytes) {}

    bool Empty() const { return left.empty(); }
    int Byte() {
        if (left.empty()) {
            return 0;
        }
        const int byte = left[0];
        left = left.subspan(1);
        return byte;
    }
    /// Mostly small and possible, now and then not.
    int Size() {
        constexpr int kOdd[] = {-1, 0, INT32_MIN, INT32_MAX, 1 << 30, 65536};
        const int byte = Byte();
        return byte < 250 ? byte / 2 : kOdd[byte - 250];
    }
    template <std::size_t Count>
    int Pick(const int (&values)[Count]) {
        return values[std::size_t(Byte()) % Count];
    }

private:
    std::span<const std::uint8_t> left;
};

MediaType typeOf(Numbers& numbers, bool output) {
    constexpr int kCodecs[] = {0, 2, 7, 12, 13, 65536, 65537, 65541, 65543, 86016, 86018, 86028};
    constexpr int kRates[] = {0, 1, 8000, 44100, 48000, 96000, -1, INT32_MAX};
    MediaType type;
    type.ContentType() = static_cast<Mivra::Common::ContentType_t>(numbers.Byte() % 6 - 1);
    type.CodecId() = static_cast<Codec_t>(output ? kCodecs[std::size_t(numbers.Byte()) % std::size(kCodecs)]
                                                 : numbers.Pick({0, 13, 13, 65536, 12}));
    type.Width() = numbers.Size();
    type.Height() = numbers.Size();
    type.PixelFormat() = static_cast<Mivra::Common::PixelFormat_t>(numbers.Byte() - 1);
    type.Framerate().Num() = numbers.Size();
    type.Framerate().Den() = numbers.Size();
    type.FrameDuration() = numbers.Size();
    type.Timescale().Den() = numbers.Pick({10000000, 90000, 1000, 0, -1});
    type.SampleFormat() = static_cast<Mivra::Common::SampleFormat_t>(numbers.Byte() % 12 - 1);
    type.SampleRate() = numbers.Pick(kRates);
    type.Channels() = numbers.Byte() % 10 - 1;
    type.ChannelLayout() = std::uint64_t(numbers.Byte());
    type.Bitrate() = numbers.Byte() * 1000;
    for (const char* const key : {"Stride", "Rows", "ColorRange", "ColorSpace", "Profile", "Level"}) {
        if (numbers.Byte() % 4 == 1) {
            type.CodecMetadata()[key] = numbers.Size();
        }
    }
    return type;
}

void makeEncoder(Numbers numbers) {
    // Else every engine loads FFmpeg anew, which takes longer than everything else.
    [[maybe_unused]] static const bool s_loaded = Mivra::FFmpeg::FfmpegProxy::Load();
    MediaType input = typeOf(numbers, false);
    MediaType output = typeOf(numbers, true);
    Mivra::FFmpeg::FfmpegEncoder encoder(&input, &output, nullptr);
    Mivra::FFmpeg::PictureLayout layout;
    for (int round = 0; round < 6 && !numbers.Empty(); ++round) {
        const int size = numbers.Byte() * 300 + numbers.Byte();
        const auto frame = Packet::Adopt(Mivra::Media::MediaGlobal::LockBuffer(size));
        if (!frame) {
            return;
        }
        frame->ActualSize() = size;
        frame->Pts() = numbers.Byte() % 8 == 0 ? INT64_MIN + numbers.Byte() : numbers.Size();
        frame->Duration() = numbers.Size();
        const bool taken = encoder.Write(frame.get());
        Mivra::Fuzz::Require(!taken || encoder.IsUsable());
        if (taken && encoder.GetOutputMediaType()->ContentType() == Mivra::Common::ContentType_t::Video) {
            Mivra::Fuzz::Require(Mivra::FFmpeg::pictureLayoutOf(input, layout) && size >= layout.size);
        }
        while (numbers.Byte() % 2 == 0 && Packet::Adopt(encoder.Read())) {
        }
    }
    encoder.Drain();
    while (Packet::Adopt(encoder.Read())) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    if (data[0] % 2 == 0) {
        readOptions(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
    } else {
        makeEncoder(Numbers({data + 1, size - 1}));
    }
    return 0;
}
