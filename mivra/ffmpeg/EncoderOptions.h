#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Mivra::FFmpeg {

/// Names and values, in the order of the text.
using EncoderOptionList = std::vector<std::pair<std::string, std::string>>;

/// Reads "key=value:key=value". A backslash takes the next character as it is, so that a value may hold ':'
/// ("\:") and backslashes ("\\"), and a key '='; the first '=' ends the key and later ones belong to the
/// value, which may be empty. The empty text holds no options. False for a pair without a key or without '=',
/// a backslash at the end and a zero byte: `options` is then empty and `error` says what is wrong. No state.
bool parseEncoderOptions(std::string_view text, EncoderOptionList& options, std::string& error);

}  // namespace Mivra::FFmpeg
