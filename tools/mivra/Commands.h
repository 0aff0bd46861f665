#pragma once

// The subcommands: one source file each, which adds its options to the parser and, when the command line
// names it, puts what it does into `action`. main() runs the action after the whole line was read.

#include <CLI/CLI.hpp>
#include <functional>

#include "tools/mivra/ExitCode.h"

namespace Mivra::Tool {

using Action = std::function<ExitCode()>;

void addRelayCommand(CLI::App& program, Action& action);
void addRecordCommand(CLI::App& program, Action& action);
void addDoctorCommand(CLI::App& program, Action& action);
void addProbeCommand(CLI::App& program, Action& action);
void addConvertCommand(CLI::App& program, Action& action);
void addSpsCommand(CLI::App& program, Action& action);
void addTranscodeCommand(CLI::App& program, Action& action);
void addSnapshotCommand(CLI::App& program, Action& action);

}  // namespace Mivra::Tool
