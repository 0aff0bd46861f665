#include "tools/mivra/InputTimeline.h"

#include <algorithm>

namespace Mivra::Tool {
namespace {

constexpr std::int64_t kSecond = 1000000;
constexpr AVRational kMicroseconds{1, 1000000};

/// A step further than this is a discontinuity, where the format allows those.
constexpr std::int64_t kLargestStep = 10 * kSecond;
/// So far back is one too.
constexpr std::int64_t kLargestStepBack = kSecond / 10;
/// Elsewhere only what is further off than this is wrong.
constexpr std::int64_t kLargestError = 3600 * 30 * kSecond;

std::int64_t toMicroseconds(std::int64_t value, AVRational base) {
    return rescale(value, base, kMicroseconds);
}

bool isBeyond(std::int64_t delta, std::int64_t limit) {
    return delta > limit || delta < -limit;
}

void shift(AVPacket& packet, std::int64_t microseconds, AVRational base) {
    const std::int64_t units = rescale(microseconds, kMicroseconds, base);
    if (packet.dts != kUnsetTime) {
        packet.dts += units;
    }
    if (packet.pts != kUnsetTime) {
        packet.pts += units;
    }
}

}  // namespace

InputTimeline::InputTimeline(const AVFormatContext& input)
    : start(input.start_time),
      mayJump((input.iformat->flags & AVFMT_TS_DISCONT) != 0),
      firstOffset(input.start_time == kUnsetTime ? 0 : -input.start_time),
      offset(firstOffset) {
    for (unsigned i = 0; i < input.nb_streams; ++i) {
        const AVStream& from = *input.streams[i];
        Stream stream;
        stream.timeBase = from.time_base;
        stream.kind = from.codecpar->codec_type;
        stream.discarded = from.discard == AVDISCARD_ALL;
        stream.wrapBits = from.pts_wrap_bits;
        stream.start = from.start_time;
        stream.frameRate = from.avg_frame_rate;
        stream.reorder = from.codecpar->video_delay;
        stream.sampleRate = from.codecpar->sample_rate;
        stream.frameSamples = from.codecpar->frame_size;
        streams.push_back(stream);
    }
}

void InputTimeline::Apply(AVPacket& packet) {
    Stream& stream = streams[static_cast<std::size_t>(packet.stream_index)];
    if (!stream.wrapSettled && start != kUnsetTime && stream.wrapBits < 64) {
        undoWrap(stream, packet);
    }
    shift(packet, offset, stream.timeBase);
    if (stream.HasTiming() && packet.dts != kUnsetTime) {
        alignFirst(stream, packet);
        if (mayJump) {
            closeJump(stream, packet);
        } else {
            dropNonsense(stream, packet);
        }
    }
    if (packet.dts != kUnsetTime) {
        lastDts = toMicroseconds(packet.dts, stream.timeBase);
    }
    moveOn(stream, packet);
    step(stream, packet);
}

void InputTimeline::Restart() {
    offset = firstOffset;
    lastDts = kUnsetTime;
    for (Stream& stream : streams) {
        stream.nextDts = kUnsetTime;
    }
}

std::int64_t InputTimeline::ToTimeline(std::int64_t time, AVRational base) const {
    const std::int64_t result = rescale(time, base, kPacketTimeBase);
    return result == kUnsetTime ? result : result + rescale(firstOffset, kMicroseconds, kPacketTimeBase);
}

std::int64_t InputTimeline::ToInput(std::int64_t time, AVRational base) const {
    return rescale(time - rescale(firstOffset, kMicroseconds, kPacketTimeBase), kPacketTimeBase, base);
}

std::int64_t InputTimeline::LastDts(int stream) const {
    return rescale(streams[static_cast<std::size_t>(stream)].dts, kMicroseconds, kPacketTimeBase);
}

// A counter that wraps between the input's start and here shows as a time in its upper half.
void InputTimeline::undoWrap(Stream& stream, AVPacket& packet) {
    correctStart(stream);
    stream.wrapSettled = true;
    const std::int64_t begin = rescale(start, kMicroseconds, stream.timeBase);
    const std::int64_t range = std::int64_t{1} << std::min(stream.wrapBits, 62);
    for (std::int64_t* time : {&packet.dts, &packet.pts}) {
        if (*time != kUnsetTime && *time > begin + range / 2) {
            *time -= range;
            stream.wrapSettled = false;
        }
    }
}

// The start time counts streams that nobody wants: begin with the first that is wanted.
void InputTimeline::correctStart(const Stream& stream) {
    if (!mayJump || stream.nextDts != kUnsetTime || offset != -start) {
        return;
    }
    std::int64_t first = INT64_MAX;
    for (const Stream& other : streams) {
        if (!other.discarded && other.start != kUnsetTime) {
            first = std::min(first, toMicroseconds(other.start, other.timeBase));
        }
    }
    if (first > start && first != INT64_MAX) {
        offset = firstOffset = -first;
    }
}

// The first packet of a stream far from where the other streams are.
void InputTimeline::alignFirst(Stream& stream, AVPacket& packet) {
    if (stream.nextDts != kUnsetTime || !mayJump || lastDts == kUnsetTime) {
        return;
    }
    const std::int64_t delta = toMicroseconds(packet.dts, stream.timeBase) - lastDts;
    if (isBeyond(delta, kLargestStep)) {
        offset -= delta;
        shift(packet, -delta, stream.timeBase);
    }
}

void InputTimeline::closeJump(Stream& stream, AVPacket& packet) {
    if (stream.nextDts == kUnsetTime) {
        return;
    }
    const std::int64_t now = toMicroseconds(packet.dts, stream.timeBase);
    const std::int64_t delta = now - stream.nextDts;
    if (isBeyond(delta, kLargestStep) || now + kLargestStepBack < stream.dts) {
        offset -= delta;
        shift(packet, -delta, stream.timeBase);
    }
}

void InputTimeline::dropNonsense(Stream& stream, AVPacket& packet) const {
    if (stream.nextDts == kUnsetTime) {
        return;
    }
    for (std::int64_t* time : {&packet.dts, &packet.pts}) {
        if (*time != kUnsetTime &&
            isBeyond(toMicroseconds(*time, stream.timeBase) - stream.nextDts, kLargestError)) {
            *time = kUnsetTime;
        }
    }
}

// Where the stream is with this packet.
void InputTimeline::moveOn(Stream& stream, const AVPacket& packet) {
    if (stream.nextDts == kUnsetTime) {
        std::int64_t first = 0;
        if (stream.frameRate.num != 0) {
            // Pictures that wait for their turn are decoded that much before they are shown.
            first = static_cast<std::int64_t>(-stream.reorder * static_cast<double>(kSecond) /
                                              av_q2d(stream.frameRate));
        }
        if (packet.pts != kUnsetTime) {
            first += toMicroseconds(packet.pts, stream.timeBase);
        }
        stream.nextDts = first;
    }
    if (packet.dts != kUnsetTime) {
        stream.nextDts = toMicroseconds(packet.dts, stream.timeBase);
    }
    stream.dts = stream.nextDts;
}

// Where its next packet is expected.
void InputTimeline::step(Stream& stream, const AVPacket& packet) const {
    if (stream.kind == AVMEDIA_TYPE_AUDIO) {
        if (stream.sampleRate > 0 && stream.frameSamples > 0) {
            stream.nextDts += kSecond * stream.frameSamples / stream.sampleRate;
        } else if (stream.sampleRate == 0) {
            stream.nextDts += toMicroseconds(packet.duration, stream.timeBase);
        }
    } else if (stream.kind == AVMEDIA_TYPE_VIDEO) {
        if (packet.duration != 0) {
            stream.nextDts += toMicroseconds(packet.duration, stream.timeBase);
        } else if (stream.frameRate.num != 0) {
            stream.nextDts += kSecond * stream.frameRate.den / stream.frameRate.num;
        }
    }
}

}  // namespace Mivra::Tool
