#include "tools/mivra/InputPacket.h"

#include <climits>
#include <new>

#include "mivra/common/buffers/MediaGlobal.h"
#include "tools/mivra/PacketFlags.h"
#include "tools/mivra/Rescale.h"

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
    return to;
}

}  // namespace Mivra::Tool
