#pragma once

#include <ctime>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/mivra/Console.h"

namespace Mivra::Tool {

/// Names of the files of a recording: a pattern with conversions of strftime (%Y %m %d %H %M %S %j %s %F %%),
/// filled in with the local time. Any one thread.
class RecordNames {
public:
    RecordNames(std::string pattern, std::vector<std::string> inputs, std::string log);

    /// What is wrong with the pattern, or with the name that it gives now. Empty when all is well.
    std::optional<Problem> Check() const;
    /// The name for this time (seconds since 1970), which was never given before and is neither an input's
    /// nor the log's: "-2", "-3" and so on come in front of the extension where that is needed.
    std::string Next(std::time_t now);
    /// The name for this time as it is.
    std::string At(std::time_t now) const;

private:
    const std::string pattern;
    const std::vector<std::string> inputs;
    const std::string log;
    std::set<std::string> given;
};

}  // namespace Mivra::Tool
