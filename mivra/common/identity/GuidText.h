#pragma once

// The text form of an identifier without memory of its own, for the log.

#include <cstddef>

#include "mivra/common/identity/Guid.h"

namespace Mivra::Common {

constexpr std::size_t kGuidTextLength = 36;

/// Writes the 36 characters of ToString and a terminating zero.
void FormatGuid(const Guid& id, char (&text)[kGuidTextLength + 1]) noexcept;

}  // namespace Mivra::Common
