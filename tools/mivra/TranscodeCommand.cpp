// mivra transcode: decodes the streams of a file and encodes them anew.

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "tools/mivra/CodecNames.h"
#include "tools/mivra/CommandLine.h"
#include "tools/mivra/Commands.h"
#include "tools/mivra/Transcode.h"

namespace Mivra::Tool {
namespace {

using Common::ContentType_t;

constexpr const char* kFooter =
    "Outputs: .ts .mp4 .mkv .flv .h264 .aac .m4a; '-' is standard input or output, which is written as"
    "\nMPEG-TS. Video becomes H.264 and audio AAC unless told otherwise. Streams that the output does not"
    "\nhold, subtitles and cover pictures are left out and named."
    "\n\nVideo codecs: h264, h265, mpeg2, mpeg4, mjpeg, vp8, vp9, copy."
    "\nAudio codecs: aac, mp2, mp3, ac3, opus, flac, pcm, copy."
    "\n\n--start is exact: the first picture is the first one at or after that second, audio begins at the"
    "\nsample. --fps leaves pictures out or repeats them, by their times. Times are kept otherwise. Pictures"
    "\nthat a player is to turn stay so; .mp4 can tell it."
    "\n\nExamples:"
    "\n  mivra transcode film.mkv film.mp4"
    "\n  mivra transcode film.mp4 small.mp4 --size 640x360 --bitrate 800k"
    "\n  mivra transcode film.mp4 part.mp4 --start 90.5 --for 30 --preset veryfast"
    "\n  mivra transcode film.mkv film.ts --video h265 --audio copy"
    "\n\nEnds with 0 done, 2 usage, 3 an input, output or codec that cannot be opened, 4 time-out, 5 damaged"
    "\ninput, 6 an output that failed while writing.";

constexpr double kLongest = 1e9;  // seconds
constexpr int kMostThreads = 64;
constexpr int kLargestSide = 16384;
constexpr double kHighestRate = 1000;

struct Arguments {
    std::vector<std::string> files;
    std::string video;
    std::string audio;
    std::string size;
    std::string bitrate;
    std::string rate;
    bool software = false;
    TranscodeOptions options;
};

CodecChoice choiceOf(ContentType_t kind, const char* option, const std::string& word) {
    CodecChoice choice;
    if (word.empty() || word == "copy") {
        choice.copy = !word.empty();
        return choice;
    }
    choice.codec = findCodec(kind, word);
    if (!choice.codec.has_value()) {
        throw CLI::ValidationError(std::string(option) + ": '" + word + "' is none of " + codecWords(kind) +
                                   ", copy");
    }
    return choice;
}

std::int32_t bitrateOf(const std::string& word) {
    if (word.empty()) {
        return 0;
    }
    char* end = nullptr;
    const double number = std::strtod(word.c_str(), &end);
    const std::string unit = end;
    const double factor = unit == "k" ? 1e3 : unit == "M" ? 1e6 : unit.empty() ? 1 : 0;
    const double bits = number * factor;
    if (!(bits >= 1000 && bits <= 2e9)) {
        throw CLI::ValidationError("--bitrate: '" + word +
                                   "' is not from 1000 to 2000M bits a second (a number, with k or M)");
    }
    return static_cast<std::int32_t>(std::llround(bits));
}

AVRational rateOf(const std::string& word) {
    if (word.empty()) {
        return {0, 1};
    }
    constexpr int kParts = 1000;
    int numerator = 0;
    int denominator = 0;
    char rest = 0;
    if (std::sscanf(word.c_str(), "%9d/%9d%c", &numerator, &denominator, &rest) == 2 && numerator > 0 &&
        denominator > 0 && numerator <= kHighestRate * denominator) {
        return {numerator, denominator};
    }
    char* end = nullptr;
    const double number = std::strtod(word.c_str(), &end);
    if (*end != '\0' || !(number >= 1.0 / kParts && number <= kHighestRate)) {
        throw CLI::ValidationError("--fps: '" + word +
                                   "' is not from 0.001 to 1000 (a number, or such as 30000/1001)");
    }
    const Common::Rational exact(static_cast<std::int64_t>(std::llround(number * kParts)),
                                 std::int64_t{kParts});
    return {exact.Num(), exact.Den()};
}

void checkCombination(const Arguments& arguments) {
    const TranscodeOptions& options = arguments.options;
    if (options.video.copy &&
        (!arguments.size.empty() || !arguments.rate.empty() || !options.preset.empty())) {
        throw CLI::ValidationError("--size, --fps and --preset need video that is encoded, not copied");
    }
    if (options.video.copy && options.start > 0) {
        throw CLI::ValidationError(
            "--start is exact, which copied video cannot be; see 'mivra relay --seek'");
    }
    if (options.video.copy && options.audio.copy) {
        throw CLI::ValidationError("nothing is left to encode; see 'mivra relay'");
    }
    if (!options.preset.empty() && options.video.codec.has_value() && !hasPresets(*options.video.codec)) {
        throw CLI::ValidationError("--preset is for h264 and h265");
    }
}

void complete(Arguments& arguments) {
    TranscodeOptions& options = arguments.options;
    if (arguments.files.size() != 2) {
        throw CLI::ValidationError("an input and an output are needed");
    }
    options.input = arguments.files[0];
    options.output = arguments.files[1];
    options.video = choiceOf(ContentType_t::Video, "--video", arguments.video);
    options.audio = choiceOf(ContentType_t::Audio, "--audio", arguments.audio);
    options.bitrate = bitrateOf(arguments.bitrate);
    options.rate = rateOf(arguments.rate);
    if (!arguments.size.empty()) {
        parseSize(arguments.size, kLargestSide, "--size", options.width, options.height);
    }
    options.hardware = !arguments.software;
    checkCombination(arguments);
}

void addEncoding(CLI::App& command, Arguments& arguments) {
    TranscodeOptions& options = arguments.options;
    command.add_option("--video", arguments.video, "What video becomes, or copy")->type_name("CODEC");
    command.add_option("--audio", arguments.audio, "What audio becomes, or copy")->type_name("CODEC");
    command.add_option("--size", arguments.size, "Size of the pictures, in pixels")->type_name("WxH");
    command
        .add_option("--bitrate", arguments.bitrate,
                    "Bits a second of the video, or of audio alone; with k or M")
        ->type_name("N");
    command.add_option("--fps", arguments.rate, "Pictures a second")->type_name("N");
    command.add_option("--preset", options.preset, "How hard h264 and h265 try: ultrafast ... veryslow")
        ->type_name("P")
        ->check(oneOf({"ultrafast", "superfast", "veryfast", "faster", "fast", "medium", "slow", "slower",
                       "veryslow", "placebo"}));
    command.add_option("--threads", options.threads, "Threads of each decoder and encoder; 0: they decide")
        ->type_name("N")
        ->check(wholeNumberBetween(0, kMostThreads));
    command.add_flag("--no-hardware", arguments.software, "Decode and encode in software only");
}

}  // namespace

void addTranscodeCommand(CLI::App& program, Action& action) {
    auto* const command =
        program.add_subcommand("transcode", "Decode the streams of a file and encode them anew");
    const auto arguments = std::make_shared<Arguments>();
    TranscodeOptions& options = arguments->options;
    command->add_option("FILE", arguments->files, "The input, then the output")
        ->expected(0, 2)
        ->type_name("INPUT OUTPUT");
    addEncoding(*command, *arguments);
    command->add_option("--start", options.start, "Begin at this second, exactly")
        ->type_name("SECONDS")
        ->check(numberBetween(0, kLongest));
    command->add_option("--for", options.seconds, "Stop after so many seconds of media")
        ->type_name("SECONDS")
        ->check(numberBetween(0.001, kLongest));
    addReporting(*command, "Seconds between lines of figures; 0: only the last", options.statsSeconds,
                 options.json, options.log, options.logLevel);
    command->footer(kFooter);
    command->callback([arguments, &action] {
        complete(*arguments);
        action = [arguments] { return transcode(arguments->options); };
    });
}

}  // namespace Mivra::Tool
