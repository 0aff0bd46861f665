#pragma once

// What the tests of the log share: a log with its protected parts open, and its file read back.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mivra/common/runtime/FileLog.h"
#include "tests/support/FakeClock.h"
#include "tests/support/TempFolder.h"

namespace Mivra::Test {

class OpenLog : public Common::FileLog {
public:
    std::wstring RolledPath(int index) {
        Common::AutoLock guard(lock);
        return generateLogFilePath(index);
    }
};

inline std::wstring Wide(const std::string& text) {
    return {text.begin(), text.end()};
}

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

/// The lines of a log file from their 25th character on; checks the byte order mark, the line endings and the
/// stamps' length on the way.
inline std::vector<std::string> ReadLog(const std::string& path) {
    std::string text = ReadWholeFile(path);
    EXPECT_TRUE(text.starts_with(kByteOrderMark)) << path;
    text.erase(0, 3);
    EXPECT_EQ(text.find(kByteOrderMark), std::string::npos) << path;
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t end = text.find("\r\n");
        if (end == std::string::npos || end < 24 || text[23] != ' ') {
            ADD_FAILURE() << "torn line in " << path << ": " << text.substr(0, 100);
            break;
        }
        lines.push_back(text.substr(24, end - 24));
        text.erase(0, end + 2);
    }
    return lines;
}

/// The same without "[thread] ".
inline std::vector<std::string> ReadMessages(const std::string& path) {
    std::vector<std::string> lines = ReadLog(path);
    for (std::string& line : lines) {
        if (line.starts_with('[')) line.erase(0, line.find("] ") + 2);
    }
    return lines;
}

}  // namespace Mivra::Test
