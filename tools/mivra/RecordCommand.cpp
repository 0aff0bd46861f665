// mivra record: keeps the last seconds of its inputs, and records them and what follows from a trigger on.

#include <CLI/CLI.hpp>
#include <memory>

#include "tools/mivra/CommandLine.h"
#include "tools/mivra/Commands.h"
#include "tools/mivra/Record.h"

namespace Mivra::Tool {
namespace {

using Media::MediaSession;

constexpr const char* kFooter =
    "Inputs are those of relay, the network too; files come no faster than they play. The output's name may "
    "hold %Y %m %d"
    "\n%H %M %S for the local time when the file begins. It begins with a key frame, so the pre-roll may be"
    "\nshorter than asked for. Nothing is encoded anew."
    "\n\nExamples:"
    "\n  mivra record cam.ts -o 'cam-%Y%m%d-%H%M%S.ts'"
    "\n  mivra record - -o cam.mp4 --preroll 30 --cache disk --trigger signal --for 60"
    "\n  mivra record cam.ts -o 'cam-%H%M%S.ts' --trigger after:0 --rotate 600"
    "\n\nEnds with 0 done, 2 usage, 3 an input or output that cannot be opened, 4 time-out, or neither"
    "\ntrigger nor key frame before the end, 5 damaged input, 6 an output that failed while writing.";

constexpr int kMostFiles = 1000;
constexpr int kLongestPreroll = 86400;  // seconds
constexpr double kLongest = 1e9;        // seconds
constexpr double kLongestFile = 2e6;    // seconds

struct Arguments {
    std::string cache = "memory";
    RecordOptions options;
};

ExitCode runRecord(Arguments& arguments) {
    if (arguments.cache == "disk") {
        arguments.options.cache = MediaSession::BufferingType::Disk;
    }
    return record(arguments.options);
}

void addOptions(CLI::App& command, Arguments& arguments) {
    RecordOptions& options = arguments.options;
    command.add_option("INPUT", options.inputs, "What to record")
        ->expected(0, kMostFiles)
        ->type_name("INPUT...");
    command.add_option("-o,--output", options.output, "The output's name, perhaps with %Y%m%d-%H%M%S")
        ->type_name("NAME");
    command.add_option("--preroll", options.preroll, "How much to keep before the trigger; 10")
        ->type_name("SECONDS")
        ->check(wholeNumberBetween(1, kLongestPreroll));
    command.add_option("--cache", arguments.cache, "Where to keep it: memory or disk; memory")
        ->type_name("KIND")
        ->check(oneOf({"memory", "disk"}));
    command.add_option("--trigger", options.trigger, "key, signal (SIGUSR1) or after:SECONDS; key")
        ->type_name("TRIGGER");
    command.add_option("--for", options.seconds, "Stop so many seconds after the trigger")
        ->type_name("SECONDS")
        ->check(numberBetween(0.001, kLongest));
    command.add_option("--rotate", options.rotation, "Begin another file, at a key frame, so often")
        ->type_name("SECONDS")
        ->check(numberBetween(0.001, kLongestFile));
    command.add_option("--no-samples", options.noSamples, "Give up when an input brings nothing for so long")
        ->type_name("SECONDS")
        ->check(numberBetween(0.001, kLongest));
    addReporting(command, "Seconds between lines of figures, of clients too; 0: only the last",
                 options.statsSeconds, options.json, options.log, options.logLevel);
}

}  // namespace

void addRecordCommand(CLI::App& program, Action& action) {
    auto* const command =
        program.add_subcommand("record", "Record from a trigger on, and what came before it");
    const auto arguments = std::make_shared<Arguments>();
    addOptions(*command, *arguments);
    command->footer(kFooter);
    command->callback([arguments, command, &action] {
        arguments->options.clients = command->count("--stats") > 0;
        if (arguments->options.inputs.empty() || arguments->options.output.empty()) {
            throw CLI::ValidationError("an input and -o with the output's name are needed");
        }
        action = [arguments] { return runRecord(*arguments); };
    });
}

}  // namespace Mivra::Tool
