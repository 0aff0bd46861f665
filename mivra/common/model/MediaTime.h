#pragma once

#include <cstdint>

#include "mivra/common/identity/DateTime.h"
#include "mivra/common/model/Rational.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// Time stamps between time bases, and the library's monotonic clock. Any thread may call it.
class MIVRA_API MediaTime {
public:
    /// value in units of `from` as units of `to`, cut towards zero. Equal time bases, and a zero denominator,
    /// return the value unchanged. Arithmetic is 64-bit, multiplication first, and wraps.
    static std::int64_t Convert(std::int64_t value, const Rational& from, const Rational& to);

    /// Time since the library was loaded, in units of 1/timescale s and at most microsecond precision; 0 for
    /// a timescale below 1.
    static std::int64_t Get(std::int64_t timescale);
    /// The wall-clock time at which Get() was 0.
    static DateTime GetStartTime();
};

}  // namespace Mivra::Common
