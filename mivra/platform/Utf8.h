#pragma once

// Text conversion that does not depend on the process's locale.

#include <string>
#include <string_view>

namespace Mivra::Platform {

/// UTF-8 of wide text: UTF-32 where wchar_t has four bytes, UTF-16 where it has two. What is no character
/// (a lone surrogate, a value above U+10FFFF) becomes U+FFFD.
std::string WideToUtf8(std::wstring_view text);

}  // namespace Mivra::Platform
