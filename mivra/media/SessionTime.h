#pragma once

#include <cstdint>

namespace Mivra::Media {

/// A session counts in 100 ns.
constexpr std::int64_t kTimescale = 10'000'000;

}  // namespace Mivra::Media
