#include "tools/mivra/SampleCut.h"

#include <algorithm>
#include <new>
#include <utility>

#include "mivra/common/buffers/MediaGlobal.h"
#include "tools/mivra/Rescale.h"

namespace Mivra::Tool {
namespace {

using Common::PacketBuffer;
using Common::Reference;
using Common::SampleFormat_t;

int bytesOf(SampleFormat_t format) {
    switch (format) {
        case SampleFormat_t::U8:
        case SampleFormat_t::U8P:
            return 1;
        case SampleFormat_t::S16:
        case SampleFormat_t::S16P:
            return 2;
        case SampleFormat_t::S32:
        case SampleFormat_t::S32P:
        case SampleFormat_t::FLT:
        case SampleFormat_t::FLTP:
            return 4;
        case SampleFormat_t::DBL:
        case SampleFormat_t::DBLP:
            return 8;
        default:
            return 0;
    }
}

bool isPlanar(SampleFormat_t format) {
    return format >= SampleFormat_t::U8P && format <= SampleFormat_t::DBLP;
}

Reference<PacketBuffer> copyOf(PacketBuffer& from, const SampleShape& shape, std::int64_t first,
                               std::int64_t count) {
    const auto samples = shape.SamplesIn(from.ActualSize());
    const int planes = shape.planar ? shape.channels : 1;
    const std::int64_t step = std::int64_t{shape.bytes} * (shape.planar ? 1 : shape.channels);
    auto made = Reference<PacketBuffer>::Adopt(
        Media::MediaGlobal::LockBuffer(static_cast<int>(count * step * planes)));
    if (!made) {
        throw std::bad_alloc();
    }
    for (int plane = 0; plane < planes; ++plane) {
        made->Append(from.Buffer() + (plane * samples + first) * step, static_cast<int>(count * step));
    }
    const AVRational base{1, shape.rate};
    made->Pts() = made->Dts() = from.Pts() + rescale(first, base, kPacketTimeBase);
    made->Duration() = rescale(count, base, kPacketTimeBase);
    made->StreamIndex() = from.StreamIndex();
    std::swap(made->NewMediaType(), from.NewMediaType());
    return made;
}

}  // namespace

SampleShape::SampleShape(const Common::MediaType& type)
    : bytes(bytesOf(type.SampleFormat())),
      channels(type.Channels()),
      rate(type.SampleRate()),
      planar(isPlanar(type.SampleFormat())) {}

Reference<PacketBuffer> cutSamples(Reference<PacketBuffer> buffer, const SampleShape& shape,
                                   std::int64_t begin, std::int64_t end) {
    if (buffer->Pts() == kUnsetTime || !shape.IsKnown()) {
        return buffer;
    }
    const AVRational base{1, shape.rate};
    const std::int64_t samples = shape.SamplesIn(buffer->ActualSize());
    const std::int64_t first =
        std::clamp<std::int64_t>(rescale(begin - buffer->Pts(), kPacketTimeBase, base), 0, samples);
    const std::int64_t behind =
        end == kUnsetTime
            ? samples
            : std::clamp<std::int64_t>(rescale(end - buffer->Pts(), kPacketTimeBase, base), first, samples);
    if (first == 0 && behind == samples) {
        return buffer;
    }
    return first < behind ? copyOf(*buffer.get(), shape, first, behind - first) : Reference<PacketBuffer>();
}

}  // namespace Mivra::Tool
