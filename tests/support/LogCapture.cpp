#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "mivra/common/MivraCommon.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/DebugOutput.h"

namespace Mivra::Test {
namespace {

using Common::AutoLock;
using Common::CritSec;
using Common::FileLog;

constexpr std::size_t kStampSize = 24;
constexpr std::size_t kLevelSize = 6;  // with its blank

// Malloc'd by hand: a planned failure of operator new must not hit the capture.
constinit CritSec s_lock;
constinit char* s_text = nullptr;
constinit std::size_t s_size = 0;
constinit std::size_t s_capacity = 0;

void take(std::string_view text) {
    AutoLock guard(s_lock);
    if (text.size() > s_capacity - s_size) {
        s_capacity = (s_size + text.size()) * 2;
        s_text = static_cast<char*>(std::realloc(s_text, s_capacity));
    }
    std::memcpy(s_text + s_size, text.data(), text.size());
    s_size += text.size();
}

void forget() {
    AutoLock guard(s_lock);
    s_size = 0;
}

// "date time [thread] LEVEL text" without what stands before the level.
std::string fromLevel(const std::string& line) {
    const std::size_t threadEnd = line.find("] ", kStampSize);
    return threadEnd == std::string::npos ? line : line.substr(threadEnd + 2);
}

}  // namespace

LogCapture::LogCapture(FileLog::FileLogLevel level) : ownsLibrary(MivraCommonGetLog() == nullptr) {
    forget();
    if (ownsLibrary) MivraCommonInitialize();
    Common::SetDebugOutputHook(take);
    MivraCommonSetLog(level, nullptr);
    forget();  // the line that says that the log is on
}

LogCapture::~LogCapture() {
    if (ownsLibrary) {
        MivraCommonShutdown();
    } else {
        MivraCommonSetLog(FileLog::Off, nullptr);
    }
    Common::SetDebugOutputHook(nullptr);
    AutoLock guard(s_lock);
    std::free(s_text);
    s_text = nullptr;
    s_size = s_capacity = 0;
}

std::vector<std::string> LogCapture::Lines() const {
    AutoLock guard(s_lock);
    std::vector<std::string> lines;
    std::string_view rest(s_text, s_size);
    while (!rest.empty()) {
        const std::size_t end = rest.find("\r\n");
        lines.push_back(fromLevel(std::string(rest.substr(0, end))));
        rest.remove_prefix(std::min(end + 2, rest.size()));
    }
    return lines;
}

std::vector<std::string> LogCapture::Lines(FileLog::FileLogLevel level) const {
    static constexpr const char* kNames[] = {"", "ERROR ", "WARN  ", "INFO  ", "DEBUG ", "TRACE "};
    std::vector<std::string> found;
    for (const std::string& line : Lines()) {
        if (line.starts_with(kNames[level])) found.push_back(line.substr(kLevelSize));
    }
    return found;
}

int LogCapture::Count(std::string_view text) const {
    const std::vector<std::string> lines = Lines();
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(text) != std::string::npos;
    }));
}

void LogCapture::Clear() {
    forget();
}

}  // namespace Mivra::Test
