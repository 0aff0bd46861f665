#pragma once

#include <compare>
#include <cstdint>
#include <string>

#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// A moment of the wall clock: 100 ns units since 1970-01-01 00:00 UTC. A plain value.
class MIVRA_API DateTime {
public:
    /// 1970-01-01 00:00 UTC.
    DateTime() noexcept = default;
    explicit DateTime(std::int64_t ticksSince1970) noexcept : ticks(ticksSince1970) {}
    static DateTime Now() noexcept;

    /// 100 ns units since 1970-01-01 00:00 UTC.
    std::int64_t Ticks() const noexcept { return ticks; }
    /// "2024-05-31T13:07:09.042Z".
    std::string ToString() const;

    bool operator==(const DateTime&) const noexcept = default;
    std::strong_ordering operator<=>(const DateTime&) const noexcept = default;

private:
    std::int64_t ticks = 0;
};

}  // namespace Mivra::Common
