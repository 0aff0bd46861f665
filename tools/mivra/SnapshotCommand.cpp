// mivra snapshot: one picture of a file, or a sheet of many.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>

#include "tools/mivra/CommandLine.h"
#include "tools/mivra/Commands.h"
#include "tools/mivra/Snapshot.h"

namespace Mivra::Tool {
namespace {

constexpr const char* kFooter =
    "--at takes the picture that is shown at that second: the last one whose time is not later. A time behind"
    "\nthe last picture is an error, which tells where that one ends. A sheet has its pictures spread evenly,"
    "\neach with its time; --size is then that of one of them, 320 pixels wide unless told. Pictures are "
    "turned"
    "\nas the file asks for. A terminal sees how far a sheet is."
    "\n\nExamples:"
    "\n  mivra snapshot film.mp4 --at 12.5 -o picture.png"
    "\n  mivra snapshot film.mp4 --at 12.5 --size 640x360 -o picture.jpg"
    "\n  mivra snapshot film.mp4 --grid 4x3 -o sheet.png"
    "\n\nEnds with 0 done, 2 usage, 3 an input or output that cannot be opened, 5 damaged input, 6 an output"
    "\nthat failed while writing.";

constexpr double kLongest = 1e9;  // seconds
constexpr int kLargestSide = 16384;
constexpr int kMostTiles = 100;  // in a row or column

struct Arguments {
    std::string grid;
    std::string size;
    SnapshotOptions options;
};

void complete(Arguments& arguments, bool hasTime) {
    SnapshotOptions& options = arguments.options;
    if (hasTime != arguments.grid.empty()) {
        throw CLI::ValidationError("one of --at and --grid is needed");
    }
    char rest = 0;
    if (!arguments.grid.empty() &&
        (std::sscanf(arguments.grid.c_str(), "%4dx%4d%c", &options.columns, &options.rows, &rest) != 2 ||
         options.columns < 1 || options.rows < 1 || options.columns > kMostTiles ||
         options.rows > kMostTiles)) {
        throw CLI::ValidationError("--grid: '" + arguments.grid +
                                   "' is not such as 4x3, from 1x1 to 100x100");
    }
    if (!arguments.size.empty()) {
        parseSize(arguments.size, kLargestSide, "--size", options.width, options.height);
    }
    if (!isPictureName(options.output)) {
        throw CLI::ValidationError("the output's name has to end in .png or .jpg: " + options.output);
    }
}

}  // namespace

void addSnapshotCommand(CLI::App& program, Action& action) {
    auto* const command = program.add_subcommand("snapshot", "Write a picture of a file, or a sheet of them");
    const auto arguments = std::make_shared<Arguments>();
    SnapshotOptions& options = arguments->options;
    command->add_option("FILE", options.input, "What to look into")->type_name("INPUT")->required();
    const CLI::Option* const at = command->add_option("--at", options.at, "The picture shown at this second")
                                      ->type_name("SECONDS")
                                      ->check(numberBetween(0, kLongest));
    command->add_option("--grid", arguments->grid, "So many pictures side by side, and so many rows")
        ->type_name("CxR");
    command->add_option("--size", arguments->size, "Size of the picture, or of each on a sheet")
        ->type_name("WxH");
    command->add_option("-o,--output", options.output, "Where to: .png or .jpg")
        ->type_name("OUTPUT")
        ->required();
    command->footer(kFooter);
    command->callback([arguments, at, &action] {
        complete(*arguments, at->count() > 0);
        action = [arguments] { return snapshot(arguments->options); };
    });
}

}  // namespace Mivra::Tool
