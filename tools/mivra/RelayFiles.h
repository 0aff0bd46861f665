#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/mivra/Console.h"

namespace Mivra::Tool {

/// What is wrong with the names of a command line before any of them is opened: an output of no known kind,
/// an address that is none or given twice, a file that is also an input or another output, by whatever name,
/// or a log (empty: none) that is one of them. Empty when all is well.
std::optional<Problem> checkRelayFiles(const std::vector<std::string>& inputs,
                                       const std::vector<std::string>& outputs, const std::string& log);

/// Whether a log could be written there: 0, or the error. A file that was not there before is not there
/// afterwards.
int tryToWrite(const std::string& path);

/// A path in the wide characters that the library's log takes: UTF-8 decoded, other bytes as they are.
std::wstring widePath(const std::string& path);

}  // namespace Mivra::Tool
