#pragma once

// Composes one line of the log in a buffer of fixed size, without memory of its own. What does not fit is
// cut, between UTF-8 characters; the line ending always fits.

#include <cstdarg>
#include <cstddef>
#include <string_view>

#include "mivra/common/runtime/Annotations.h"

namespace Mivra::Common {

class LogLineText {
public:
    /// The buffer already holds `used` bytes of at least used + 2.
    LogLineText(char* lineBuffer, std::size_t capacity, std::size_t used) noexcept
        : buffer(lineBuffer), limit(capacity - kEnding.size()), size(used) {}

    void Append(std::string_view text) noexcept;
    void AppendNumber(int value) noexcept;
    void AppendFormatted(const char* format, std::va_list arguments) noexcept MIVRA_PRINTF(2, 0);
    /// Adds the line ending; the size of the whole line.
    std::size_t Finish() noexcept;

private:
    static constexpr std::string_view kEnding = "\r\n";

    void cut() noexcept;

    char* buffer;
    std::size_t limit;
    std::size_t size;
};

}  // namespace Mivra::Common
