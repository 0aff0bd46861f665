#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string>

#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// A 16-byte identifier; a plain value. The empty one is all zeros.
class MIVRA_API Guid {
public:
    /// The empty identifier.
    Guid() noexcept = default;
    /// Reads the form of ToString, upper case too; anything else gives the empty identifier.
    Guid(const std::string& text) noexcept;
    /// A new random identifier.
    static Guid NewGuid() noexcept;

    /// Lower case, 8-4-4-4-12, no braces.
    std::string ToString() const;
    bool IsEmpty() const noexcept { return *this == Guid(); }

    /// Equality, and the order of the bytes.
    bool operator==(const Guid&) const noexcept = default;
    std::strong_ordering operator<=>(const Guid&) const noexcept = default;

private:
    std::array<std::uint8_t, 16> bytes{};
};

}  // namespace Mivra::Common
