#pragma once

// How the program's options are explained and checked, the same for every subcommand.

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

namespace Mivra::Tool {

/// Lists an option as "-o,--output OUTPUT"; an option's type_name is what stands for its value, a
/// positional's is all that is shown of it.
std::shared_ptr<CLI::Formatter> makeHelpFormatter();

/// Takes numbers from low to high, both included.
CLI::Validator numberBetween(double low, double high);
CLI::Validator wholeNumberBetween(int low, int high);
CLI::Validator oneOf(std::vector<std::string> words);

/// "640x360" into its numbers, each from 2 to `most`. CLI::ValidationError, in the option's name.
void parseSize(const std::string& word, int most, const char* option, int& width, int& height);

/// --stats, which `stats` explains, --json, --log and --log-level.
void addReporting(CLI::App& command, const char* stats, double& seconds, bool& json, std::string& log,
                  int& logLevel);

}  // namespace Mivra::Tool
