#pragma once

// Fields of FFmpeg's records whose place differs between the versions that this library is compiled with.

#include <cstdint>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace Mivra::FFmpeg {

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored \
    "-Wdeprecated-declarations"  // what replaces them is too new for the oldest version
#endif

/// 0: unknown.
inline std::int64_t frameDuration(const AVFrame& frame) {
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 30, 100)
    return frame.duration;
#else
    return frame.pkt_duration;
#endif
}

inline void setFrameDuration(AVFrame& frame, std::int64_t duration) {
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 30, 100)
    frame.duration = duration;
#else
    frame.pkt_duration = duration;
#endif
}

/// The flag came in the middle of a major version: libraries older than the headers may not set it yet.
inline bool isKeyFrame(const AVFrame& frame) {
#if defined(AV_FRAME_FLAG_KEY)
    if ((frame.flags & AV_FRAME_FLAG_KEY) != 0) {
        return true;
    }
#endif
    return frame.key_frame != 0;
}

/// A number that a packet carries to its frames. FFmpeg hands a packet's position on without looking at it.
inline void setPacketNumber(AVPacket& packet, std::int64_t number) {
    packet.pos = number;
}
inline std::int64_t packetNumber(const AVFrame& frame) {
    return frame.pkt_pos;
}

/// Lets frame threads call get_buffer2 themselves; from FFmpeg 6 on they always do.
inline void allowThreadedBuffers(AVCodecContext& context) {
#if FF_API_THREAD_SAFE_CALLBACKS
    context.thread_safe_callbacks = 1;
#else
    static_cast<void>(context);
#endif
}

/// What stands in an enumerated field. A damaged stream leaves numbers there that are none of the
/// enumerators, and to read these as such is undefined.
template <typename Enumeration>
int storedNumber(const Enumeration& field) {
    int number = 0;
    static_assert(sizeof(number) == sizeof(field));
    std::memcpy(&number, &field, sizeof(number));
    return number;
}

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

}  // namespace Mivra::FFmpeg
