#include "tools/mivra/SourcePace.h"

#include <algorithm>
#include <limits>

namespace Mivra::Tool {
namespace {

constexpr std::int64_t kNowhere = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kFinished = std::numeric_limits<std::int64_t>::max();

/// Others are woken when a source has come on by this part of the window.
constexpr int kStepsPerWindow = 8;

}  // namespace

SourcePace::SourcePace(int sources, std::int64_t largestLead)
    : count(sources), window(largestLead), positions(new Position[static_cast<std::size_t>(sources)]) {
    for (int i = 0; i < count; ++i) {
        positions[static_cast<std::size_t>(i)].dts = kNowhere;
        positions[static_cast<std::size_t>(i)].told = kNowhere;
    }
}

bool SourcePace::TryAdvance(int source, std::int64_t dts) {
    if (count < 2) {
        return true;
    }
    Position& own = positions[static_cast<std::size_t>(source)];
    own.dts.store(dts);
    if (own.told == kNowhere || dts >= own.told + window / kStepsPerWindow) {
        own.told = dts;
        if (waiters.load() != 0) {
            Wake();
        }
    }
    return slowest() >= dts - window;
}

void SourcePace::Advance(int source, std::int64_t dts, const std::atomic<bool>& stopping) {
    if (TryAdvance(source, dts)) {
        return;
    }
    waiters.fetch_add(1);
    for (std::uint32_t before = signal.load(); !stopping.load() && slowest() < dts - window;
         before = signal.load()) {
        signal.wait(before);
    }
    waiters.fetch_sub(1);
}

void SourcePace::Finish(int source) {
    positions[static_cast<std::size_t>(source)].dts.store(kFinished);
    Wake();
}

void SourcePace::Wake() {
    signal.fetch_add(1);
    signal.notify_all();
}

std::int64_t SourcePace::slowest() const {
    std::int64_t least = kFinished;
    for (int i = 0; i < count; ++i) {
        least = std::min(least, positions[static_cast<std::size_t>(i)].dts.load());
    }
    return least;
}

}  // namespace Mivra::Tool
