#pragma once

#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace Mivra::Tool {

/// Something that happened and is told once: a name and values for programs, a sentence for people.
struct Event {
    std::string name;
    std::vector<std::pair<std::string, std::variant<double, std::string>>> values;
    std::string text;
};

}  // namespace Mivra::Tool
