#include "mivra/ffmpeg/EncoderOptions.h"

#include <cstddef>

namespace Mivra::FFmpeg {
namespace {

/// Takes the text up to one of the ends, which is taken too; ended is it, or 0 for the end of the text.
/// False when a backslash is the last character.
bool takeWord(std::string_view& text, std::string_view ends, std::string& word, char& ended) {
    word.clear();
    ended = '\0';
    std::size_t at = 0;
    for (; at < text.size() && ended == '\0'; ++at) {
        if (text[at] == '\\') {
            if (++at == text.size()) {
                return false;
            }
            word += text[at];
        } else if (ends.find(text[at]) != ends.npos) {
            ended = text[at];
        } else {
            word += text[at];
        }
    }
    text.remove_prefix(at);
    return true;
}

std::string readPairs(std::string_view text, EncoderOptionList& options) {
    if (text.find('\0') != text.npos) {
        return "a zero byte in the options";
    }
    bool more = !text.empty();
    while (more) {
        std::pair<std::string, std::string> option;
        char ended = '\0';
        if (!takeWord(text, "=:", option.first, ended)) {
            return "the options end in a backslash";
        }
        if (ended != '=') {
            return "option '" + option.first + "' has no value";
        }
        if (option.first.empty()) {
            return "an option has no name";
        }
        if (!takeWord(text, ":", option.second, ended)) {
            return "the options end in a backslash";
        }
        more = ended == ':';
        options.push_back(std::move(option));
    }
    return {};
}

}  // namespace

bool parseEncoderOptions(std::string_view text, EncoderOptionList& options, std::string& error) {
    options.clear();
    error = readPairs(text, options);
    if (!error.empty()) {
        options.clear();
    }
    return error.empty();
}

}  // namespace Mivra::FFmpeg
