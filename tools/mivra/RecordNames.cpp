#include "tools/mivra/RecordNames.h"

#include <cstring>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <utility>

#include "tools/mivra/MediaFile.h"
#include "tools/mivra/RelayFiles.h"

namespace Mivra::Tool {
namespace {

constexpr const char* kConversions = "YmdHMSjsF%";

}  // namespace

RecordNames::RecordNames(std::string text, std::vector<std::string> read, std::string written)
    : pattern(std::move(text)), inputs(std::move(read)), log(std::move(written)) {}

std::optional<Problem> RecordNames::Check() const {
    if (pattern == kStandardStream) {
        return Problem{"a recording goes into files, not into standard output", pattern, "give it a name"};
    }
    for (std::size_t i = pattern.find('%'); i != pattern.npos; i = pattern.find('%', i + 2)) {
        if (i + 1 == pattern.size() || std::strchr(kConversions, pattern[i + 1]) == nullptr) {
            return Problem{"the output's name has an unknown conversion", pattern.substr(i, 2),
                           "use %Y %m %d %H %M %S, and %% for a percent sign"};
        }
    }
    return checkRelayFiles(inputs, {At(std::time(nullptr))}, log);
}

std::string RecordNames::At(std::time_t now) const {
    struct tm local {};
    ::localtime_r(&now, &local);
    std::string name;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '%') {
            name += pattern[i];
            continue;
        }
        const char conversion[] = {'%', pattern[++i], '\0'};
        std::ostringstream text;
        text << std::put_time(&local, conversion);
        name += text.str();
    }
    return name;
}

std::string RecordNames::Next(std::time_t now) {
    const std::filesystem::path first = At(now);
    std::filesystem::path name = first;
    for (int number = 2; given.contains(name) || checkRelayFiles(inputs, {name}, log).has_value(); ++number) {
        name = first;
        name.replace_filename(first.stem().string() + "-" + std::to_string(number) +
                              first.extension().string());
    }
    given.insert(name);
    return name;
}

}  // namespace Mivra::Tool
