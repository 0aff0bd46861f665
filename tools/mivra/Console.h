#pragma once

#include <string>
#include <string_view>

#include "mivra/common/runtime/CritSec.h"

namespace Mivra::Tool {

/// One thing that went wrong, told in one line: what, where (a file, an option; may be empty) and what to
/// try.
struct Problem {
    std::string what;
    std::string where;
    std::string remedy;
};

/// "mivra: WHAT: WHERE; REMEDY", on one line whatever the parts contain.
std::string toLine(const Problem& problem);

/// Control characters become '?', so that a text from outside stays on its line and cannot steer a terminal.
std::string printable(std::string_view text);

/// Where the program writes for people: problems to standard error, all other text to the descriptor that it
/// was made for. On a terminal that one may show a live line at its end, which other lines push down. Any
/// thread may call it. Failures to write are ignored.
class Console {
public:
    /// textDescriptor: STDOUT_FILENO, or STDERR_FILENO when standard output carries media.
    explicit Console(int textDescriptor);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// One line to standard error.
    void Error(const Problem& problem);
    /// Any one line to standard error, "mivra: " in front.
    void Warning(std::string_view text);
    /// One line, without its line ending, to the text descriptor.
    void Line(std::string_view text);
    /// A part of a line, which Line() ends; not beside a live line.
    void Part(std::string_view text);

    /// Shows text in place of the live line; only on a terminal.
    void SetLive(std::string_view text);
    /// Takes the live line away.
    void EndLive();

    /// The text descriptor is a terminal that understands cursor movement.
    bool IsTerminal() const { return terminal; }
    bool HasColor() const { return color; }
    bool HasUnicode() const { return unicode; }
    /// Columns of the terminal now, at least 1; 80 when nobody knows.
    int Width() const;

private:
    void write(int descriptor, std::string_view line) MIVRA_REQUIRES(lock);
    void eraseLive() MIVRA_REQUIRES(lock);
    void redrawLive() MIVRA_REQUIRES(lock);

    const int text;
    const bool terminal;
    const bool color;
    const bool unicode;
    Common::CritSec lock;
    std::string live MIVRA_GUARDED_BY(lock);
};

}  // namespace Mivra::Tool
