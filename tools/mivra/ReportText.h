#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace Mivra::Tool {

/// The lines for people that say what the report of a file says.
std::vector<std::string> reportText(const nlohmann::ordered_json& file);

}  // namespace Mivra::Tool
