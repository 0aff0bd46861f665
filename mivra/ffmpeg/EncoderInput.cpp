#include "mivra/ffmpeg/EncoderInput.h"

#include <cstdint>
#include <limits>

#include "mivra/common/buffers/MediaGlobal.h"

namespace Mivra::FFmpeg {
namespace {

using Common::PacketBuffer;
using Common::Reference;

void giveBack(void* opaque, std::uint8_t* /*data*/) {
    static_cast<PacketBuffer*>(opaque)->Release();
}

}  // namespace

Reference<PacketBuffer> lockAligned(std::size_t size) {
    constexpr std::size_t kExtra = kPlaneAlignment + kReadPastEnd;
    if (size > static_cast<std::size_t>(std::numeric_limits<int>::max()) - kExtra) {
        return {};
    }
    return Reference<PacketBuffer>::Adopt(Media::MediaGlobal::LockBuffer(static_cast<int>(size + kExtra)));
}

std::uint8_t* alignedData(PacketBuffer& buffer) {
    const auto address = reinterpret_cast<std::uintptr_t>(buffer.Buffer());
    const std::uintptr_t past = address % kPlaneAlignment;
    return reinterpret_cast<std::uint8_t*>(buffer.Buffer()) + (past == 0 ? 0 : kPlaneAlignment - past);
}

bool attach(PacketBuffer& buffer, AVFrame& frame) {
    Reference<PacketBuffer> reference(&buffer);
    frame.buf[0] = FfmpegOptional::av_buffer_create(reinterpret_cast<std::uint8_t*>(buffer.Buffer()),
                                                    static_cast<std::size_t>(buffer.Size()), giveBack,
                                                    &buffer, AV_BUFFER_FLAG_READONLY);
    if (frame.buf[0] == nullptr) {
        return false;
    }
    static_cast<void>(reference.Detach());  // the frame's now
    return true;
}

}  // namespace Mivra::FFmpeg
