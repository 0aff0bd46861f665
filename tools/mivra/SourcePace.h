#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace Mivra::Tool {

/// Keeps the inputs of one relay together: none runs further ahead of the slowest than a window of media
/// time, so that a muxer that puts their packets in order has little to keep. Each source reports from its
/// own thread; Wake may be called by any.
class SourcePace {
public:
    SourcePace(int sources, std::int64_t window);

    /// The source has come to `dts` (kPacketTimeBase). False when it is too far ahead.
    bool TryAdvance(int source, std::int64_t dts);
    /// The same, but waits while it is too far ahead and `stopping` is not set.
    void Advance(int source, std::int64_t dts, const std::atomic<bool>& stopping);
    /// The source has ended: nobody waits for it any more.
    void Finish(int source);
    /// Makes those who wait look again, at their `stopping` too.
    void Wake();

private:
    std::int64_t slowest() const;

    struct Position {
        std::atomic<std::int64_t> dts;
        std::int64_t told;  // where it was when it last woke the others
    };

    const int count;
    const std::int64_t window;
    std::unique_ptr<Position[]> positions;
    std::atomic<int> waiters{0};
    std::atomic<std::uint32_t> signal{0};
};

}  // namespace Mivra::Tool
