#include <CLI/CLI.hpp>

#include "tools/mivra/Commands.h"

namespace Mivra::Tool {

void addDoctorCommand(CLI::App& program, Action&) {
    program.add_subcommand("doctor", "Tell what a relay needs and what of it is missing");
}

}  // namespace Mivra::Tool
