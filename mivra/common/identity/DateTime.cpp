#include "mivra/common/identity/DateTime.h"

#include <chrono>
#include <cstdio>

#include "mivra/platform/System.h"

namespace Mivra::Common {
namespace {

constexpr std::int64_t kNanosecondsPerTick = 100;
using TickCount = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;

}  // namespace

DateTime DateTime::Now() noexcept {
    return DateTime(Platform::System().wallTime() / kNanosecondsPerTick);
}

std::string DateTime::ToString() const {
    using namespace std::chrono;
    const auto days = floor<std::chrono::days>(TickCount(ticks));
    const year_month_day date{sys_days(days)};
    const hh_mm_ss time(floor<milliseconds>(TickCount(ticks) - days));
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()));
    return text;
}

}  // namespace Mivra::Common
