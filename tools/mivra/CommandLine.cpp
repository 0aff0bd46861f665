#include "tools/mivra/CommandLine.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace Mivra::Tool {
namespace {

/// The value's name. Checks that have a description would put it behind; those of this program have none.
std::string valueName(const CLI::Option& option) {
    return option.get_type_name();
}

class HelpFormatter : public CLI::Formatter {
public:
    HelpFormatter() { label("SUBCOMMAND", "COMMAND"); }

    std::string make_option_name(const CLI::Option* option, bool isPositional) const override {
        return isPositional ? valueName(*option) : CLI::Formatter::make_option_name(option, false);
    }

    std::string make_option_opts(const CLI::Option* option) const override {
        const bool hasValue = option->get_type_size() != 0 && !option->get_positional();
        return hasValue ? " " + valueName(*option) : "";
    }

    std::string make_option_usage(const CLI::Option* option) const override { return valueName(*option); }
};

std::string text(double value) {
    char digits[64];
    std::snprintf(digits, sizeof(digits), "%.15g", value);
    return digits;
}

}  // namespace

std::shared_ptr<CLI::Formatter> makeHelpFormatter() {
    return std::make_shared<HelpFormatter>();
}

CLI::Validator numberBetween(double low, double high) {
    return CLI::Validator(
        [low, high](std::string& word) -> std::string {
            char* end = nullptr;
            const double value = std::strtod(word.c_str(), &end);
            if (!word.empty() && *end == '\0' && value >= low && value <= high) {
                return "";
            }
            return "'" + word + "' is not a number from " + text(low) + " to " + text(high);
        },
        "");
}

CLI::Validator wholeNumberBetween(int low, int high) {
    return CLI::Validator(
        [low, high](std::string& word) -> std::string {
            char* end = nullptr;
            const long value = std::strtol(word.c_str(), &end, 10);
            if (!word.empty() && *end == '\0' && value >= low && value <= high) {
                return "";
            }
            return "'" + word + "' is not a whole number from " + std::to_string(low) + " to " +
                   std::to_string(high);
        },
        "");
}

CLI::Validator oneOf(std::vector<std::string> words) {
    return CLI::Validator(
        [words = std::move(words)](std::string& word) -> std::string {
            std::string list;
            for (const std::string& one : words) {
                if (one == word) {
                    return "";
                }
                list += (list.empty() ? "" : ", ") + one;
            }
            return "'" + word + "' is none of " + list;
        },
        "");
}

void parseSize(const std::string& word, int most, const char* option, int& width, int& height) {
    char rest = 0;
    if (std::sscanf(word.c_str(), "%6dx%6d%c", &width, &height, &rest) != 2 || width < 2 || height < 2 ||
        width > most || height > most) {
        throw CLI::ValidationError(std::string(option) + ": '" + word +
                                   "' is not such as 640x360, from 2x2 to " + std::to_string(most) + "x" +
                                   std::to_string(most));
    }
}

void addReporting(CLI::App& command, const char* stats, double& seconds, bool& json, std::string& log,
                  int& logLevel) {
    constexpr double kLongest = 1e9;
    command.add_option("--stats", seconds, stats)->type_name("SECONDS")->check(numberBetween(0, kLongest));
    command.add_flag("--json", json, "Figures as one JSON object a line");
    command.add_option("--log", log, "Write a log file")->type_name("FILE");
    command.add_option("--log-level", logLevel, "0 off, 1 error, 2 warning, 3 information, 4 debug, 5 trace")
        ->type_name("N")
        ->check(wholeNumberBetween(0, 5));
}

}  // namespace Mivra::Tool
