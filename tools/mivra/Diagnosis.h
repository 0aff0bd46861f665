#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace Mivra::Tool {

enum class Health { Good, Poor, Bad };

/// One thing that was looked at.
struct Finding {
    Health health = Health::Good;
    std::string subject;
    std::string text;
    std::string remedy;  ///< What to try; empty when nothing is wrong or another finding says it.
};

/// What a relay needs and whether it is here. A relay works unless a finding is Bad.
struct Diagnosis {
    std::vector<Finding> findings;
    nlohmann::ordered_json details;  ///< The same for programs.

    bool IsReady() const;
    const Finding* FirstBad() const;
};

/// Looks at FFmpeg, the pools, the descriptors, and at the log file when its path is not empty. Makes the
/// process's pools for the time of the call.
Diagnosis diagnose(const std::string& logPath);

}  // namespace Mivra::Tool
