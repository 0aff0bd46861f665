// The program `mivra`: reads the command line, runs the one subcommand that it names, and turns everything
// that goes wrong on the way into one line and an exit code.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mivra/common/runtime/Version.h"
#include "tools/mivra/CommandLine.h"
#include "tools/mivra/Commands.h"
#include "tools/mivra/Console.h"

namespace Mivra::Tool {
namespace {

constexpr std::string_view kExamples =
    "Examples:\n"
    "  mivra relay film.mp4 film.ts            copy into MPEG-TS\n"
    "  mivra relay film.mp4 a.ts -o b.mkv      two outputs at once\n"
    "  mivra record cam.ts -o 'cam-%H%M%S.ts'  the last seconds before a key, and what follows\n"
    "  mivra transcode film.mkv film.mp4       into H.264 and AAC\n"
    "  mivra snapshot film.mp4 --at 12 -o 12.png\n"
    "  mivra probe film.mp4                    what its streams are\n"
    "  mivra convert film.mp4 film.aac --to adts\n"
    "  mivra sps film.mp4 --aspect 4:3 -o wide.mp4\n"
    "  mivra doctor                            what is here and what is missing\n";

/// The subcommand that the first plain word names; null when there is none of that name, or no word.
const CLI::App* namedCommand(const CLI::App& program, int count, char** words, std::string& unknown) {
    for (int i = 1; i < count; ++i) {
        const std::string_view word = words[i];
        if (word.empty() || word.front() == '-') {
            continue;
        }
        for (const CLI::App* command : program.get_subcommands(nullptr)) {
            if (command->get_name() == word) {
                return command;
            }
        }
        unknown = word;
        return nullptr;
    }
    return nullptr;
}

/// The parser's text from its colon on: the argument that it means.
std::string afterColon(const std::string& text) {
    const std::size_t colon = text.find(':');
    return colon == text.npos ? "" : text.substr(colon);
}

std::string beforeColon(const std::string& text) {
    return text.substr(0, text.find(':'));
}

/// In our words: the parser's say how many values an option takes and how many there were.
std::string mismatch(const std::string& text) {
    if (text.find(':') == text.npos) {
        return text;
    }
    const bool tooMany = text.find("At Most") != text.npos || text.find("xactly") != text.npos;
    return beforeColon(text) + (tooMany ? " is given more than once" : " needs a value");
}

ExitCode reportUsage(Console& console, const CLI::App& program, int count, char** words,
                     const std::string& text) {
    std::string unknown;
    const CLI::App* const command = namedCommand(program, count, words, unknown);
    if (command != nullptr) {
        const std::string& name = command->get_name();
        console.Error({name + ": " + text, "", "see 'mivra " + name + " --help'"});
    } else if (!unknown.empty()) {
        console.Error({"there is no such command", unknown, "'mivra --help' lists the commands"});
    } else {
        console.Error({text, "", "see 'mivra --help'"});
    }
    return ExitCode::Usage;
}

/// Standard streams that the caller has closed: files opened later would get their numbers, and what is meant
/// for a stream would go into them. Each is opened the wrong way round, so that its use still fails.
void occupyStandardStreams() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) < 0) {
            // The lowest free number, which is this one.
            ::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

/// The words behind "--" are files, whatever they begin with; the parser gives up on that mark in a command.
std::vector<std::string> plainWords(int count, char** words) {
    std::vector<std::string> result;
    bool filesOnly = false;
    for (int i = 1; i < count; ++i) {
        const std::string_view word = words[i];
        if (!filesOnly && word == "--") {
            filesOnly = true;
            continue;
        }
        std::string plain = filesOnly && word.size() > 1 && word.front() == '-' ? "./" : "";
        plain += word;
        result.push_back(std::move(plain));
    }
    std::reverse(result.begin(), result.end());  // as the parser takes them
    return result;
}

ExitCode run(int count, char** words) {
    Console console(STDOUT_FILENO);
    CLI::App program("Moves media through sources, a session and sinks.", "mivra");
    program.formatter(makeHelpFormatter());
    program.set_version_flag("--version", std::string(Common::LibraryVersion()),
                             "Print the version and exit");
    program.require_subcommand(1);
    program.failure_message({});
    program.footer(std::string(kExamples));
    Action action;
    addRelayCommand(program, action);
    addRecordCommand(program, action);
    addDoctorCommand(program, action);
    addProbeCommand(program, action);
    addConvertCommand(program, action);
    addSpsCommand(program, action);
    addTranscodeCommand(program, action);
    addSnapshotCommand(program, action);
    for (CLI::App* command : program.get_subcommands(nullptr)) {
        command->group("Commands");
    }
    try {
        program.parse(plainWords(count, words));
    } catch (const CLI::Success& help) {
        program.exit(help);
        return ExitCode::Done;
    } catch (const CLI::ExtrasError& error) {
        return reportUsage(console, program, count, words, "unexpected argument" + afterColon(error.what()));
    } catch (const CLI::ArgumentMismatch& error) {
        return reportUsage(console, program, count, words, mismatch(error.what()));
    } catch (const CLI::Error& error) {
        return reportUsage(console, program, count, words, error.what());
    }
    return action ? action() : ExitCode::Usage;
}

}  // namespace
}  // namespace Mivra::Tool

int main(int count, char** words) {
    using Mivra::Tool::ExitCode;
    Mivra::Tool::occupyStandardStreams();
    try {
        return static_cast<int>(Mivra::Tool::run(count, words));
    } catch (const std::exception& error) {
        Mivra::Tool::Console(STDERR_FILENO)
            .Error({error.what(), "", "this should not happen; please report it"});
    }
    return static_cast<int>(ExitCode::Failed);
}
