// mivra relay: copies the streams of files into other files.

#include <CLI/CLI.hpp>
#include <memory>

#include "tools/mivra/CommandLine.h"
#include "tools/mivra/Commands.h"
#include "tools/mivra/Relay.h"

namespace Mivra::Tool {
namespace {

constexpr const char* kFooter =
    "The last file is the first output; -o adds more. Outputs: .ts .mp4 .mkv .flv .h264 .aac .m4a; '-' is "
    "standard"
    "\ninput or output, which is written as MPEG-TS. Nothing is encoded anew."
    "\n\nThe network carries MPEG-TS: tcp://HOST:PORT connects, tcp-listen://HOST:PORT waits for others,"
    "\nudp://HOST:PORT gets or sends datagrams, of a group too (?interface=ADDRESS). Whoever connects to a"
    "\ntcp-listen output begins at the next key frame. An input that brings nothing for 10 s, or what"
    "\n?timeout=SECONDS says, is a time-out."
    "\n\nExamples:"
    "\n  mivra relay film.mp4 film.ts"
    "\n  mivra relay film.mp4 copy.mkv -o film.ts"
    "\n  mivra relay picture.mp4 sound.mp4 both.mkv"
    "\n  mivra relay --realtime film.mp4 - | player"
    "\n  mivra relay --seek 90 --for 30 film.mp4 part.mp4"
    "\n  mivra relay film.mp4 tcp-listen://0.0.0.0:9000 --realtime"
    "\n  mivra relay 'udp://239.1.1.1:5000?interface=10.0.0.2' tape.ts"
    "\n\nEnds with 0 done, 2 usage, 3 an input or output that cannot be opened, 4 time-out, 5 damaged input,"
    "\n6 an output that failed while writing.";

constexpr int kMostFiles = 1000;
constexpr double kLongest = 1e9;  // seconds
constexpr double kLowestRate = 0.01;
constexpr double kHighestRate = 1000;
constexpr int kMostLoops = 1000000;

struct Arguments {
    std::vector<std::string> files;
    std::vector<std::string> more;
    RelayOptions options;
};

ExitCode runRelay(const Arguments& arguments) {
    RelayOptions options = arguments.options;
    options.inputs.assign(arguments.files.begin(), arguments.files.end() - 1);
    options.outputs.assign(1, arguments.files.back());
    options.outputs.insert(options.outputs.end(), arguments.more.begin(), arguments.more.end());
    return relay(options);
}

}  // namespace

void addRelayCommand(CLI::App& program, Action& action) {
    auto* const command = program.add_subcommand("relay", "Copy the streams of files into other files");
    const auto arguments = std::make_shared<Arguments>();
    RelayOptions& options = arguments->options;
    command->add_option("FILE", arguments->files, "Inputs, then the first output")
        ->expected(0, kMostFiles)
        ->type_name("INPUT... OUTPUT");
    command->add_option("-o,--output", arguments->more, "One more output")
        ->type_name("OUTPUT")
        ->allow_extra_args(false);
    command->add_flag("--realtime", options.realtime, "No faster than the media plays");
    command->add_option("--rate", options.rate, "So many times as fast as the media plays")
        ->type_name("R")
        ->check(numberBetween(kLowestRate, kHighestRate));
    command->add_option("--seek", options.seek, "Begin at the key frame at or before this second")
        ->type_name("SECONDS")
        ->check(numberBetween(0, kLongest));
    command->add_option("--loop", options.loops, "Read the inputs so many times more; -1: without end")
        ->type_name("N")
        ->check(wholeNumberBetween(-1, kMostLoops));
    command->add_option("--for", options.seconds, "Stop after so many seconds of media")
        ->type_name("SECONDS")
        ->check(numberBetween(0.001, kLongest));
    addReporting(*command, "Seconds between lines of figures, of clients too; 0: only the last",
                 options.statsSeconds, options.json, options.log, options.logLevel);
    command->footer(kFooter);
    command->callback([arguments, command, &action] {
        arguments->options.clients = command->count("--stats") > 0;
        if (arguments->files.size() < 2) {
            throw CLI::ValidationError("an input and an output are needed");
        }
        action = [arguments] { return runRelay(*arguments); };
    });
}

}  // namespace Mivra::Tool
