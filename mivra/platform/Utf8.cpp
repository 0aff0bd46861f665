#include "mivra/platform/Utf8.h"

#include <cstddef>
#include <cstdint>

namespace Mivra::Platform {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

constexpr bool isLeadSurrogate(char32_t value) {
    return value >= 0xD800 && value <= 0xDBFF;
}

constexpr bool isTrailSurrogate(char32_t value) {
    return value >= 0xDC00 && value <= 0xDFFF;
}

void append(std::string& out, char32_t value) {
    if (isLeadSurrogate(value) || isTrailSurrogate(value) || value > 0x10FFFF) {
        value = kReplacement;
    }
    if (value < 0x80) {
        out += static_cast<char>(value);
        return;
    }
    const int followers = value < 0x800 ? 1 : value < 0x10000 ? 2 : 3;
    constexpr unsigned char kLeads[] = {0x00, 0xC0, 0xE0, 0xF0};
    out += static_cast<char>(kLeads[followers] | (value >> (6 * followers)));
    for (int i = followers - 1; i >= 0; --i) {
        out += static_cast<char>(0x80 | ((value >> (6 * i)) & 0x3F));
    }
}

}  // namespace

std::string WideToUtf8(std::wstring_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        auto value = static_cast<char32_t>(text[i]);
        if constexpr (sizeof(wchar_t) == 2) {
            value &= 0xFFFF;
            if (isLeadSurrogate(value) && i + 1 < text.size()) {
                const char32_t trail = static_cast<char32_t>(text[i + 1]) & 0xFFFF;
                if (isTrailSurrogate(trail)) {
                    value = 0x10000 + ((value - 0xD800) << 10) + (trail - 0xDC00);
                    ++i;
                }
            }
        }
        append(out, value);
    }
    return out;
}

}  // namespace Mivra::Platform
