#include "mivra/common/runtime/LogLineText.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace Mivra::Common {

void LogLineText::Append(std::string_view text) noexcept {
    const std::size_t taken = std::min(text.size(), limit - size);
    std::memcpy(buffer + size, text.data(), taken);
    size += taken;
    if (taken < text.size()) {
        cut();
    }
}

void LogLineText::AppendNumber(int value) noexcept {
    char digits[12];
    const auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
    Append({digits, static_cast<std::size_t>(end - digits)});
}

void LogLineText::AppendFormatted(const char* format, std::va_list arguments) noexcept {
    // The terminating zero falls into the room of the line ending.
    const int length = std::vsnprintf(buffer + size, limit - size + 1, format, arguments);
    if (length < 0) {
        Append(format);  // text that the C library cannot convert
        return;
    }
    if (static_cast<std::size_t>(length) <= limit - size) {
        size += static_cast<std::size_t>(length);
        return;
    }
    size = limit;
    cut();
}

std::size_t LogLineText::Finish() noexcept {
    std::memcpy(buffer + size, kEnding.data(), kEnding.size());
    return size + kEnding.size();
}

// Takes away the beginning of a UTF-8 character whose end did not fit.
void LogLineText::cut() noexcept {
    constexpr std::size_t kMostFollowers = 3;
    std::size_t followers = 0;
    while (followers < kMostFollowers && followers + 1 < size &&
           (static_cast<unsigned char>(buffer[size - 1 - followers]) & 0xC0) == 0x80) {
        ++followers;
    }
    const auto lead = static_cast<unsigned char>(buffer[size - 1 - followers]);
    const std::size_t wanted = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
    if (wanted > followers) {
        size -= followers + 1;
    }
}

}  // namespace Mivra::Common
