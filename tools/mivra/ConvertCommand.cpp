// mivra convert: another form of H.264 or AAC, without coding anything anew.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <memory>

#include "tools/mivra/AacTransforms.h"
#include "tools/mivra/Commands.h"
#include "tools/mivra/H264Transforms.h"
#include "tools/mivra/OutputFormat.h"

namespace Mivra::Tool {
namespace {

using Common::Codec_t;
using Common::MediaType;

/// A form, the codec it is one of, and the outputs that hold it.
struct Form {
    const char* name;
    Codec_t codec;
    std::unique_ptr<PacketTransform> (*make)();
    const char* wanted;
    std::array<const char*, 4> outputs;
};

constexpr Form kForms[] = {
    {"annexb", Codec_t::H264, makeAnnexBTransform, "no H.264 stream", {".h264", ".ts"}},
    {"avcc", Codec_t::H264, makeAvcTransform, "no H.264 stream", {".mp4", ".mkv", ".flv"}},
    {"adts", Codec_t::AAC, makeAdtsTransform, "no AAC stream", {".aac", ".ts"}},
    {"asc", Codec_t::AAC, makeAscTransform, "no AAC stream", {".mp4", ".m4a", ".mkv", ".flv"}},
};

struct Arguments {
    std::vector<std::string> files;
    std::string form;
};

ExitCode convert(const Arguments& arguments) {
    Console console(arguments.files.back() == kStandardStream ? STDERR_FILENO : STDOUT_FILENO);
    const Form& form = *std::find_if(std::begin(kForms), std::end(kForms),
                                     [&](const Form& known) { return arguments.form == known.name; });
    const OutputFormat* const format = findOutputFormat(arguments.files.back());
    std::string names;
    bool holds = false;
    for (const char* const extension : form.outputs) {
        if (extension != nullptr) {
            names.append(names.empty() ? "" : ", ").append(extension);
            holds = holds || (format != nullptr && std::string(format->extension) == extension);
        }
    }
    if (!holds) {
        console.Error(
            {"the output holds no " + arguments.form, arguments.files.back(), "use one of " + names});
        return ExitCode::Usage;
    }
    MediaCopyOptions options{arguments.files.front(), arguments.files.back(), {}, form.wanted};
    options.transform = [&form](const MediaType& type) {
        return type.CodecId() == form.codec ? form.make() : nullptr;
    };
    return copyMedia(options, console);
}

}  // namespace

void addConvertCommand(CLI::App& program, Action& action) {
    auto* const command = program.add_subcommand("convert", "Copy a file, its H.264 or AAC in another form");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("FILE", arguments->files, "The input, then the output")
        ->expected(0, 2)
        ->type_name("INPUT OUTPUT");
    command->add_option("--to", arguments->form, "annexb, avcc, adts or asc")
        ->type_name("FORM")
        ->check(CLI::Validator(
            [](std::string& word) -> std::string {
                const bool known = std::any_of(std::begin(kForms), std::end(kForms),
                                               [&](const Form& form) { return word == form.name; });
                return known ? "" : "'" + word + "' is not annexb, avcc, adts or asc";
            },
            ""));
    command->footer(
        "  annexb  H.264 with start codes              .h264 .ts"
        "\n  avcc    H.264 with a configuration record   .mp4 .mkv .flv"
        "\n  adts    AAC in ADTS frames                  .aac .ts"
        "\n  asc     AAC with an AudioSpecificConfig     .mp4 .m4a .mkv .flv"
        "\n\nOther streams are copied as far as the output holds them. Nothing is encoded anew."
        "\n\nEnds with 0 done, 2 usage, 3 an input or output that cannot be opened, 5 damaged input,"
        "\n6 an output that failed while writing.");
    command->callback([arguments, &action] {
        if (arguments->files.size() != 2) {
            throw CLI::ValidationError("an input and an output are needed");
        }
        if (arguments->form.empty()) {
            throw CLI::ValidationError("--to is needed");
        }
        action = [arguments] { return convert(*arguments); };
    });
}

}  // namespace Mivra::Tool
