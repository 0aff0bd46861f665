#include "mivra/ffmpeg/FrameTimes.h"

#include <algorithm>

#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/FfmpegProxy.h"

namespace Mivra::FFmpeg {
namespace {

constexpr std::int64_t kLongestGap = 10;  // seconds
constexpr std::int64_t kFarthest = std::int64_t{1} << 61;

/// Times so far out that sums of them would not fit count as none.
bool isTime(std::int64_t time) {
    return time > -kFarthest && time < kFarthest;
}

std::int64_t durationOf(std::int64_t duration) {
    return duration > 0 && isTime(duration) ? duration : 0;
}

}  // namespace

// Pictures.

PictureTimes::PictureTimes(AVRational from_, AVRational to_, AVRational rate)
    : from(from_),
      to(to_),
      tickBase{rate.den, rate.num},
      longestGap(std::max<std::int64_t>(1, kLongestGap * rate.num / rate.den)) {}

std::int64_t PictureTimes::ticksOf(std::int64_t time) const {
    return FfmpegProxy::av_rescale_q(time, from, tickBase);
}

std::int64_t PictureTimes::nextTick(std::int64_t time) {
    const std::int64_t least = lastTick + 1;
    if (least == 0) {
        base = time;
        return 0;
    }
    const std::int64_t meant = ticksOf(time - base);
    const std::int64_t tick = std::clamp(meant, least, lastTick + longestGap);
    if (meant > tick || meant < tick - longestGap) {
        base = time - FfmpegProxy::av_rescale_q(tick, tickBase, from);  // the count goes on from here
    }
    return tick;
}

std::int64_t PictureTimes::Push(Common::PacketBuffer& picture) {
    const std::int64_t tickDuration = FfmpegProxy::av_rescale_q(1, tickBase, from);
    const std::int64_t duration = durationOf(picture.Duration());
    Record record{};
    record.time = isTime(picture.Pts()) ? picture.Pts() : lastEnd;
    record.duration = duration != 0 ? duration : tickDuration;
    record.streamIndex = picture.StreamIndex();
    record.discontinuity = picture.Discontinuity();
    records.push(record);
    lastTick = records.back().tick = nextTick(record.time);
    lastEnd = record.time + record.duration;
    return lastTick;
}

std::int64_t PictureTimes::extrapolate(const Record& record, std::int64_t tick) const {
    return record.time + FfmpegProxy::av_rescale_q(tick - record.tick, tickBase, from);
}

const PictureTimes::Record& PictureTimes::recordAt(std::int64_t tick) const {
    std::size_t low = 0;
    std::size_t high = records.size();
    while (high - low > 1) {
        const std::size_t middle = low + (high - low) / 2;
        (records[middle].tick <= tick ? low : high) = middle;
    }
    return records[low];
}

void PictureTimes::Stamp(const AVPacket& packet, Common::PacketBuffer& out) {
    if (records.empty()) {
        return;
    }
    const std::int64_t tick = packet.pts != kUnsetTime ? packet.pts : records[0].tick;
    const std::int64_t decodingTick = packet.dts != kUnsetTime ? std::min(packet.dts, tick) : tick;
    const Record& record = recordAt(tick);
    const std::int64_t time = extrapolate(record, tick);
    out.Pts() = rescaleTime(time, from, to);
    out.Dts() = rescaleTime(std::min(time, extrapolate(recordAt(decodingTick), decodingTick)), from, to);
    out.Duration() = rescaleTime(record.duration, from, to);
    out.StreamIndex() = record.streamIndex;
    out.Discontinuity() = record.discontinuity;
    // Decoding times rise: nobody asks for what lies before this one.
    while (records.size() > 1 && records[1].tick <= decodingTick) {
        records.pop();
    }
}

// Samples.

SampleTimes::SampleTimes(AVRational from_, AVRational to_, int inputRate_, int outputRate_)
    : from(from_), to(to_), inputRate(inputRate_), outputRate(outputRate_) {}

std::int64_t SampleTimes::timeAt(const Record& record, std::int64_t inputPosition) const {
    return record.time + FfmpegProxy::av_rescale_q(inputPosition - record.position, {1, record.rate}, from);
}

void SampleTimes::SetInputRate(int rate) {
    if (rate == inputRate) {
        return;
    }
    const std::int64_t begin = origin + FfmpegProxy::av_rescale_q(position, {1, inputRate}, {1, outputRate});
    if (!records.empty()) {
        const Record& last = records.back();
        records.push({0, timeAt(last, position), last.streamIndex, false, rate, begin});
    }
    origin = begin;
    position = 0;
    inputRate = rate;
}

void SampleTimes::Push(Common::PacketBuffer& buffer, int samples) {
    Record next{position, buffer.Pts(), buffer.StreamIndex(), buffer.Discontinuity(), inputRate, origin};
    const bool timed = isTime(buffer.Pts());
    if (records.empty()) {
        next.time = timed ? next.time : 0;
        records.push(next);
    } else {
        const Record& last = records.back();
        const std::int64_t expected = timeAt(last, position);
        const bool goesOn = !timed || buffer.Pts() == expected;
        if (!goesOn || next.discontinuity || next.streamIndex != last.streamIndex) {
            next.time = timed ? next.time : expected;
            records.push(next);
        }
    }
    position += samples;
}

bool SampleTimes::isAt(const Record& record, std::int64_t outputPosition) const {
    __extension__ using Wide = __int128;
    return Wide{record.position} * outputRate <= Wide{outputPosition - record.origin} * record.rate;
}

std::int64_t SampleTimes::extrapolate(const Record& record, std::int64_t outputPosition) const {
    __extension__ using Wide = __int128;
    if (record.rate == outputRate) {
        return timeAt(record, outputPosition - record.origin);
    }
    // Rounded once: the distance is a whole number of 1 / (rate * outputRate) seconds.
    const Wide distance =
        Wide{outputPosition - record.origin} * record.rate - Wide{record.position} * outputRate;
    const Wide second = Wide{record.rate} * outputRate * from.num;
    const Wide scaled = distance * from.den;
    const Wide half = scaled < 0 ? -(second / 2) : second / 2;
    return record.time + static_cast<std::int64_t>((scaled + half) / second);
}

void SampleTimes::Stamp(const AVPacket& packet, Common::PacketBuffer& out) {
    if (records.empty() || packet.pts == kUnsetTime) {
        return;
    }
    bool first = records[0].discontinuity;
    records[0].discontinuity = false;
    while (records.size() > 1 && isAt(records[1], packet.pts)) {
        records.pop();
        first = first || records[0].discontinuity;
        records[0].discontinuity = false;
    }
    const Record& record = records[0];
    out.Pts() = rescaleTime(extrapolate(record, packet.pts), from, to);
    out.Dts() = out.Pts();
    out.Duration() = rescaleTime(packet.duration, {1, outputRate}, to);
    out.StreamIndex() = record.streamIndex;
    out.Discontinuity() = first;
}

}  // namespace Mivra::FFmpeg
