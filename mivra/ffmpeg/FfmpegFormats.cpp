#include "mivra/ffmpeg/FfmpegFormats.h"

#include <bit>
#include <cstring>
#include <new>

#include "mivra/ffmpeg/FfmpegProxy.h"
#include "mivra/platform/System.h"

namespace Mivra::FFmpeg {

std::int64_t rescaleTime(std::int64_t time, AVRational from, AVRational to) {
    const bool same = from.num == to.num && from.den == to.den;
    if (time == kUnsetTime || same || from.num <= 0 || from.den <= 0 || to.num <= 0 || to.den <= 0) {
        return time;
    }
    return FfmpegProxy::av_rescale_q(time, from, to);
}

AVChannelLayout makeChannelLayout(int channels, std::uint64_t mask) {
    AVChannelLayout layout{};
    if (channels <= 0) {
        return layout;
    }
    if (std::popcount(mask) == channels) {
        layout.order = AV_CHANNEL_ORDER_NATIVE;
        layout.nb_channels = channels;
        layout.u.mask = mask;
    } else {
        FfmpegProxy::av_channel_layout_default(&layout, channels);
    }
    return layout;
}

std::uint64_t channelMask(const AVChannelLayout& layout) {
    return layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : 0;
}

bool sameChannels(const AVChannelLayout& left, const AVChannelLayout& right) {
    return left.order == right.order && left.nb_channels == right.nb_channels &&
           left.order != AV_CHANNEL_ORDER_CUSTOM &&
           (left.order != AV_CHANNEL_ORDER_NATIVE || left.u.mask == right.u.mask);
}

std::int64_t metadataNumber(const Common::MediaType& type, const char* key, std::int64_t none) {
    if (!type.CodecMetadata().ContainsKey(key)) {
        return none;
    }
    return const_cast<Common::MediaType&>(type).CodecMetadata()[key];  // only reads a key that is there
}

void setPrivateData(Common::MediaType& type, std::span<const std::uint8_t> data) {
    char* copy = nullptr;
    if (!data.empty()) {
        copy = static_cast<char*>(Platform::System().allocate(data.size()));
        if (copy == nullptr) {
            throw std::bad_alloc();
        }
        std::memcpy(copy, data.data(), data.size());
    }
    Platform::System().free(type.CodecPrivateData());
    type.CodecPrivateData() = copy;
    type.CodecPrivateDataSize() = static_cast<std::int32_t>(data.size());
}

}  // namespace Mivra::FFmpeg
