// mivra sps: changes the sequence parameter sets of a file, without coding anything anew.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <memory>

#include "tools/mivra/Commands.h"
#include "tools/mivra/H264Transforms.h"
#include "tools/mivra/OutputFormat.h"

namespace Mivra::Tool {
namespace {

using Common::Codec_t;
using Common::MediaType;

struct Arguments {
    std::string input;
    std::string output;
    std::string crop;
    std::string aspect;
};

/// So many whole numbers, each from 0 to the most, with a mark between them; empty when it is anything else.
std::vector<int> numbers(const std::string& text, std::size_t count, char mark, int most) {
    std::vector<int> values;
    const char* at = text.data();
    const char* const end = at + text.size();
    while (values.size() < count) {
        int value = -1;
        const auto [next, error] = std::from_chars(at, end, value);
        if (error != std::errc() || value < 0 || value > most) {
            return {};
        }
        values.push_back(value);
        at = next;
        if (values.size() < count && (at == end || *at++ != mark)) {
            return {};
        }
    }
    return at == end ? values : std::vector<int>();
}

constexpr int kMostSamples = 1 << 20;
constexpr int kMostAspect = 65535;

SetChanges readChanges(const Arguments& arguments) {
    SetChanges changes;
    if (!arguments.crop.empty()) {
        const std::vector<int> sides = numbers(arguments.crop, 4, ',', kMostSamples);
        if (sides.empty()) {
            throw CLI::ValidationError("--crop: '" + arguments.crop + "' is not LEFT,RIGHT,TOP,BOTTOM");
        }
        changes.crop = SetChanges::Crop{sides[0], sides[1], sides[2], sides[3]};
    }
    if (!arguments.aspect.empty()) {
        const std::vector<int> parts = numbers(arguments.aspect, 2, ':', kMostAspect);
        if (parts.empty() || (parts[0] == 0) != (parts[1] == 0)) {
            throw CLI::ValidationError("--aspect: '" + arguments.aspect +
                                       "' is not N:D, each from 1 to 65535, or 0:0");
        }
        changes.aspect = Common::Rational(parts[0], parts[1]);
    }
    if (!changes.crop && !changes.aspect) {
        throw CLI::ValidationError("--crop or --aspect is needed");
    }
    return changes;
}

ExitCode changeSets(const Arguments& arguments, const SetChanges& changes) {
    Console console(arguments.output == kStandardStream ? STDERR_FILENO : STDOUT_FILENO);
    MediaCopyOptions options{arguments.input, arguments.output, {}, "no H.264 stream"};
    // What only holds start codes gets them.
    const OutputFormat* const format = findOutputFormat(arguments.output);
    const std::string extension = format != nullptr ? format->extension : "";
    const bool annexB = extension == ".ts" || extension == ".h264";
    options.transform = [&changes, annexB](const MediaType& type) {
        return type.CodecId() == Codec_t::H264 ? makeSetTransform(changes, annexB) : nullptr;
    };
    return copyMedia(options, console);
}

}  // namespace

void addSpsCommand(CLI::App& program, Action& action) {
    auto* const command =
        program.add_subcommand("sps", "Change the size or aspect ratio that H.264 streams tell");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("FILE", arguments->input, "The input")->type_name("INPUT");
    command->add_option("--crop", arguments->crop, "Luma samples to cut off each side of the coded picture")
        ->type_name("L,R,T,B");
    command->add_option("--aspect", arguments->aspect, "Aspect ratio of a sample; 0:0 takes it away")
        ->type_name("N:D");
    command->add_option("-o,--output", arguments->output, "The output")->type_name("OUTPUT");
    command->footer(
        "Changes the sequence parameter sets of the private data and of the packets, and what the container"
        "\nsays of the picture. The cropping is in place of any earlier one. Nothing is encoded anew."
        "\n\nExamples:"
        "\n  mivra sps film.mp4 --aspect 4:3 -o wide.mp4"
        "\n  mivra sps film.ts --crop 0,0,0,8 -o 1080.ts"
        "\n\nEnds with 0 done, 2 usage, 3 an input or output that cannot be opened, 5 damaged input,"
        "\n6 an output that failed while writing.");
    command->callback([arguments, &action] {
        if (arguments->input.empty() || arguments->output.empty()) {
            throw CLI::ValidationError("an input and an output (-o) are needed");
        }
        const SetChanges changes = readChanges(*arguments);
        action = [arguments, changes] { return changeSets(*arguments, changes); };
    });
}

}  // namespace Mivra::Tool
