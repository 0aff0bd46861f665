#include <CLI/CLI.hpp>

#include "tools/mivra/Commands.h"

namespace Mivra::Tool {

void addRelayCommand(CLI::App& program, Action&) {
    program.add_subcommand("relay", "Copy the streams of files into other files");
}

}  // namespace Mivra::Tool
