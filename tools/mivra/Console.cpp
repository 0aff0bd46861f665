#include "tools/mivra/Console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace Mivra::Tool {
namespace {

using Common::AutoLock;

constexpr int kDefaultWidth = 80;
constexpr std::string_view kEraseLine = "\r\x1b[K";

std::string_view environment(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? std::string_view() : std::string_view(value);
}

bool speaksToTerminal(int descriptor) {
    const std::string_view kind = environment("TERM");
    return ::isatty(descriptor) != 0 && !kind.empty() && kind != "dumb";
}

/// The character set of the environment's locale, by the names that systems give it.
bool localeIsUtf8() {
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const std::string_view value = environment(name);
        if (!value.empty()) {
            return value.find("UTF-8") != value.npos || value.find("utf8") != value.npos;
        }
    }
    return false;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        const unsigned char code = static_cast<unsigned char>(c);
        if (code < 0x20 || code == 0x7F) {
            c = '?';
        }
    }
    return result;
}

std::string toLine(const Problem& problem) {
    std::string line = "mivra: " + printable(problem.what);
    if (!problem.where.empty()) {
        line += ": " + printable(problem.where);
    }
    if (!problem.remedy.empty()) {
        line += "; " + printable(problem.remedy);
    }
    return line;
}

Console::Console(int textDescriptor)
    : text(textDescriptor),
      terminal(speaksToTerminal(textDescriptor)),
      color(terminal && environment("NO_COLOR").empty()),
      unicode(localeIsUtf8()) {}

Console::~Console() {
    EndLive();
}

void Console::Error(const Problem& problem) {
    AutoLock hold(lock);
    eraseLive();
    write(STDERR_FILENO, toLine(problem) + "\n");
    redrawLive();
}

void Console::Warning(std::string_view line) {
    AutoLock hold(lock);
    eraseLive();
    write(STDERR_FILENO, "mivra: " + printable(line) + "\n");
    redrawLive();
}

void Console::Line(std::string_view line) {
    AutoLock hold(lock);
    eraseLive();
    write(text, std::string(line) + "\n");
    redrawLive();
}

void Console::Part(std::string_view part) {
    AutoLock hold(lock);
    write(text, part);
}

void Console::SetLive(std::string_view line) {
    if (!terminal) {
        return;
    }
    AutoLock hold(lock);
    live = line;
    redrawLive();
}

void Console::EndLive() {
    AutoLock hold(lock);
    eraseLive();
    live.clear();
}

int Console::Width() const {
    winsize size{};
    if (::ioctl(text, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    const int columns = std::atoi(std::string(environment("COLUMNS")).c_str());
    return columns > 0 ? columns : kDefaultWidth;
}

void Console::eraseLive() {
    if (!live.empty()) {
        write(text, kEraseLine);
    }
}

void Console::redrawLive() {
    if (!live.empty()) {
        write(text, std::string(kEraseLine) + live);
    }
}

void Console::write(int descriptor, std::string_view line) {
    while (!line.empty()) {
        const ssize_t written = ::write(descriptor, line.data(), line.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        line.remove_prefix(static_cast<std::size_t>(written));
    }
}

}  // namespace Mivra::Tool
