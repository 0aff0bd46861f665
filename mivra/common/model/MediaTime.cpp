#include "mivra/common/model/MediaTime.h"

#include <cstdint>
#include <numeric>

#include "mivra/platform/System.h"

namespace Mivra::Common {

namespace {

constexpr std::int64_t MicrosecondsPerSecond = 1000000;
constexpr std::int64_t NanosecondsPerMicrosecond = 1000;
constexpr std::int64_t NanosecondsPerTick = 100;

struct ClockStart {
    std::int64_t monotonic = Platform::System().monotonicTime();
    std::int64_t wall = Platform::System().wallTime();
};

const ClockStart& clockStart() {
    static const ClockStart start;
    return start;
}

// The clock starts when the library is loaded, not when somebody first asks.
[[maybe_unused]] const ClockStart& s_started = clockStart();

// 64-bit product that wraps.
std::int64_t multiply(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}

}  // namespace

std::int64_t MediaTime::Convert(std::int64_t value, const Rational& from, const Rational& to) {
    if (from == to) {
        return value;
    }
    // from / to, in 64 bits: a quotient of two time bases need not fit a Rational.
    std::int64_t num = std::int64_t{from.Num()} * to.Den();
    std::int64_t den = std::int64_t{from.Den()} * to.Num();
    if (den == 0) {
        return value;
    }
    if (num > 0 && den > 0) {
        const std::int64_t common = std::gcd(num, den);
        num /= common;
        den /= common;
    }
    const std::int64_t product = multiply(value, num);
    return den == -1 ? multiply(product, -1) : product / den;
}

std::int64_t MediaTime::Get(std::int64_t timescale) {
    if (timescale < 1) {
        return 0;
    }
    const std::int64_t elapsed = Platform::System().monotonicTime() - clockStart().monotonic;
    const std::int64_t microseconds = elapsed / NanosecondsPerMicrosecond;
    if (timescale == MicrosecondsPerSecond) {
        return microseconds;
    }
    const std::int64_t common = std::gcd(MicrosecondsPerSecond, timescale);
    return multiply(microseconds, timescale / common) / (MicrosecondsPerSecond / common);
}

DateTime MediaTime::GetStartTime() {
    return DateTime(clockStart().wall / NanosecondsPerTick);
}

}  // namespace Mivra::Common
