#include "tools/mivra/InputPacket.h"

#include <climits>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "mivra/common/buffers/MediaGlobal.h"
#include "tools/mivra/PacketFlags.h"
#include "tools/mivra/Rescale.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {

Packet makeBuffer(std::int64_t size) {
    if (size > INT_MAX) {
        throw std::bad_alloc();
    }
    Packet buffer = Packet::Adopt(Media::MediaGlobal::LockBuffer(static_cast<int>(size)));
    if (!buffer) {
        throw std::bad_alloc();
    }
    return buffer;
}

namespace {

/// Transport streams number their streams; the usual numbers tell nothing.
bool isUsualStreamId(const AVPacketSideData& data) {
    constexpr std::uint8_t kAudio = 0xC0;
    constexpr std::uint8_t kVideo = 0xE0;
    return data.type == AV_PKT_DATA_MPEGTS_STREAM_ID && data.size == 1 &&
           (data.data[0] == kAudio || data.data[0] == kVideo);
}

void copySideData(const AVPacket& from, const Common::MediaType& type, Common::PacketBuffer& to) {
    for (int i = 0; i < from.side_data_elems; ++i) {
        const AVPacketSideData& data = from.side_data[i];
        if (data.type == AV_PKT_DATA_NEW_EXTRADATA) {
            auto changed = std::make_unique<Common::MediaType>(type);
            setPrivateData(*changed, data.data, data.size);
            delete std::exchange(to.NewMediaType(), changed.release());
        } else if (!isUsualStreamId(data)) {
            to.ExtraData()[kPacketSideData + std::to_string(static_cast<int>(data.type))] =
                std::string(reinterpret_cast<const char*>(data.data), data.size);
        }
    }
}

}  // namespace

Packet copyPacket(Demuxer& input) {
    const AVPacket& from = input.Packet();
    const AVRational base = input.TimeBase(from.stream_index);
    Packet to = makeBuffer(from.size);
    to->Append(from.data, from.size);
    to->Pts() = rescale(from.pts, base, kPacketTimeBase);
    to->Dts() =
        from.dts != kUnsetTime ? rescale(from.dts, base, kPacketTimeBase) : input.LastDts(from.stream_index);
    to->Duration() = rescale(from.duration, base, kPacketTimeBase);
    to->StreamIndex() = from.stream_index;
    to->KeyFrame() = (from.flags & AV_PKT_FLAG_KEY) != 0;
    to->FilePosition() = from.pos;
    setPacketFlags(*to.get(), from.flags);
    copySideData(from, input.Type(from.stream_index), *to.get());
    return to;
}

}  // namespace Mivra::Tool
