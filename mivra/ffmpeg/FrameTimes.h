#pragma once

// Keeps the times of frames beside an encoder, so that they come out as they went in whatever the encoder
// counts in.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mivra/common/buffers/PacketBuffer.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavutil/rational.h>
}

namespace Mivra::FFmpeg {

/// A queue that keeps its memory. T is a plain record.
template <typename T>
class RecordQueue {
public:
    bool empty() const { return count == 0; }
    std::size_t size() const { return count; }
    /// 0 is the oldest.
    T& operator[](std::size_t index) { return ring[(first + index) & (ring.size() - 1)]; }
    const T& operator[](std::size_t index) const { return ring[(first + index) & (ring.size() - 1)]; }
    T& back() { return (*this)[count - 1]; }
    /// Makes room for one more; std::bad_alloc leaves the queue as it was.
    void reserve() {
        if (count == ring.size()) {
            grow();
        }
    }
    void push(const T& record) {
        reserve();
        ++count;
        back() = record;
    }
    void pop() {
        first = (first + 1) & (ring.size() - 1);
        --count;
    }

private:
    static constexpr std::size_t kLeast = 64;

    void grow() {
        std::vector<T> larger(ring.empty() ? kLeast : 2 * ring.size());
        for (std::size_t at = 0; at < count; ++at) {
            larger[at] = (*this)[at];
        }
        ring.swap(larger);
        first = 0;
    }

    std::vector<T> ring;  // a power of two, or nothing
    std::size_t first = 0;
    std::size_t count = 0;
};

/// Pictures. The encoder counts in ticks of the frame rate, rising with each picture: near to the picture's
/// time where times are as the frame rate says, one on where they are closer or go back, at most ten seconds
/// on where there is a gap. A packet gets the times of the picture with its tick. Its decoding time is that
/// of the picture which the encoder names, and thus never later than its presentation.
class PictureTimes {
public:
    /// The time bases of the pictures' and the packets' times, and pictures a second.
    PictureTimes(AVRational from, AVRational to, AVRational rate);

    /// The tick of the next picture. A picture without a time follows its predecessor by one tick, the first
    /// begins at 0; without a duration it lasts one tick. std::bad_alloc changes nothing.
    std::int64_t Push(Common::PacketBuffer& picture);
    /// Times, stream index and the mark of a discontinuity.
    void Stamp(const AVPacket& from, Common::PacketBuffer& to);

private:
    struct Record {
        std::int64_t tick;
        std::int64_t time;
        std::int64_t duration;
        int streamIndex;
        bool discontinuity;
    };

    std::int64_t ticksOf(std::int64_t time) const;
    std::int64_t nextTick(std::int64_t time);
    std::int64_t extrapolate(const Record& record, std::int64_t tick) const;
    /// The last record at or before the tick; the first of all when it is later.
    const Record& recordAt(std::int64_t tick) const;

    const AVRational from;
    const AVRational to;
    const AVRational tickBase;
    const std::int64_t longestGap;
    std::int64_t base = 0;  // the time of tick 0
    std::int64_t lastTick = -1;
    std::int64_t lastEnd = 0;
    RecordQueue<Record> records;
};

/// Samples. The encoder counts samples without a gap from 0; a packet's time is that of its first sample:
/// the time of the buffer that the sample came in, and so much later as it stood in it. What the encoder puts
/// in front lies before the time of the first buffer.
class SampleTimes {
public:
    /// Time bases as above; samples a second of the buffers and of the packets.
    SampleTimes(AVRational from, AVRational to, int inputRate, int outputRate);

    /// Makes room for the next Push or SetInputRate, which then throws nothing. std::bad_alloc changes
    /// nothing.
    void Reserve() { records.reserve(); }
    /// Buffers come with another rate from here on.
    void SetInputRate(int rate);
    /// A buffer of so many samples a channel. Without a time, or with the one that follows from its
    /// predecessor, rounded to nearest, the count goes on without a seam.
    void Push(Common::PacketBuffer& buffer, int samples);
    void Stamp(const AVPacket& from, Common::PacketBuffer& to);

private:
    struct Record {
        std::int64_t position;  // in samples of the input since its rate is this one
        std::int64_t time;
        int streamIndex;
        bool discontinuity;
        int rate;             // of the input
        std::int64_t origin;  // position 0, in samples of the output
    };

    std::int64_t timeAt(const Record& record, std::int64_t inputPosition) const;
    /// The time so many samples of the output behind the record's.
    std::int64_t extrapolate(const Record& record, std::int64_t outputPosition) const;
    bool isAt(const Record& record, std::int64_t outputPosition) const;

    const AVRational from;
    const AVRational to;
    int inputRate;
    const int outputRate;
    std::int64_t position = 0;  // behind the last buffer, as in a record
    std::int64_t origin = 0;
    RecordQueue<Record> records;
};

}  // namespace Mivra::FFmpeg
