// mivra doctor: tells what a relay needs, what of it is here, and what to do about the rest.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

#include "mivra/common/runtime/Version.h"
#include "tools/mivra/Commands.h"
#include "tools/mivra/Console.h"
#include "tools/mivra/Diagnosis.h"

namespace Mivra::Tool {
namespace {

struct DoctorOptions {
    bool json = false;
    std::string log;
};

constexpr std::size_t kSubjectWidth = 20;

std::string word(Health health, bool color) {
    struct Look {
        const char* text;
        const char* tint;
    };
    static constexpr Look kLooks[] = {
        {"ok     ", "\x1b[32m"}, {"poor   ", "\x1b[33m"}, {"MISSING", "\x1b[31m"}};
    const Look& look = kLooks[static_cast<int>(health)];
    return color ? std::string(look.tint) + look.text + "\x1b[0m" : look.text;
}

void print(Console& console, const Diagnosis& diagnosis) {
    console.Line(std::string("mivra ") + Common::LibraryVersion());
    for (const Finding& finding : diagnosis.findings) {
        std::string subject = finding.subject;
        subject.resize(std::max(subject.size(), kSubjectWidth), ' ');
        console.Line("  " + word(finding.health, console.HasColor()) + "  " + subject + "  " +
                     printable(finding.text));
        if (!finding.remedy.empty()) {
            console.Line("           try: " + printable(finding.remedy));
        }
    }
    if (diagnosis.IsReady()) {
        console.Line("A relay would work.");
    }
}

ExitCode diagnoseAndPrint(const DoctorOptions& options) {
    Console console(STDOUT_FILENO);
    const Diagnosis diagnosis = diagnose(options.log);
    if (options.json) {
        console.Line(diagnosis.details.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    } else {
        print(console, diagnosis);
    }
    if (const Finding* const bad = diagnosis.FirstBad()) {
        console.Error({"a relay would not work", bad->subject + ": " + bad->text,
                       bad->remedy.empty() ? "" : "try: " + bad->remedy});
        return ExitCode::Failed;
    }
    return ExitCode::Done;
}

}  // namespace

void addDoctorCommand(CLI::App& program, Action& action) {
    auto* const command =
        program.add_subcommand("doctor", "Tell what a relay needs and what of it is missing");
    const auto options = std::make_shared<DoctorOptions>();
    command->add_flag("--json", options->json, "One JSON object instead of text");
    command->add_option("--log", options->log, "A log file to try")->type_name("FILE");
    command->footer("Ends with 0 only when a relay would work.");
    command->callback([options, &action] { action = [options] { return diagnoseAndPrint(*options); }; });
}

}  // namespace Mivra::Tool
