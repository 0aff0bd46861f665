#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "mivra/common/runtime/FileLog.h"

namespace Mivra::Test {

/// Takes what the library logs while it lives, in memory; one at a time. It brings the library up when that
/// has not been done, and then down again at its end. It opens no file, so faults planned for the subject hit
/// the subject; lines that repeat their predecessor are folded as in any log.
class LogCapture {
public:
    explicit LogCapture(Common::FileLog::FileLogLevel level = Common::FileLog::Trace);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Each line from its level on, as in "WARN  text", without its ending.
    std::vector<std::string> Lines() const;
    /// Those of a level: "text".
    std::vector<std::string> Lines(Common::FileLog::FileLogLevel level) const;
    /// The lines of level 1, for fixtures that expect none.
    std::vector<std::string> Errors() const { return Lines(Common::FileLog::Error); }
    /// How many lines have the text in them.
    int Count(std::string_view text) const;
    bool Contains(std::string_view text) const { return Count(text) > 0; }
    void Clear();

private:
    bool ownsLibrary;
};

}  // namespace Mivra::Test
