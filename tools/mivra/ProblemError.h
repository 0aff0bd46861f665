#pragma once

#include <exception>
#include <string>
#include <utility>

#include "tools/mivra/Console.h"
#include "tools/mivra/ExitCode.h"

namespace Mivra::Tool {

/// A problem that ends what its thrower was about, with the exit code that it means.
class ProblemError : public std::exception {
public:
    ProblemError(ExitCode exitCode, Problem what) : code(exitCode), problem(std::move(what)) {
        text = toLine(problem);
    }

    const char* what() const noexcept override { return text.c_str(); }

    ExitCode code;
    Problem problem;

private:
    std::string text;
};

}  // namespace Mivra::Tool
