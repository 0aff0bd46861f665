// The file behind the log: opening, following its path, rolling.

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <new>

#include "mivra/common/runtime/FileLog.h"
#include "mivra/common/runtime/LogFileAccess.h"
#include "mivra/platform/System.h"
#include "mivra/platform/Utf8.h"

namespace Mivra::Common {
namespace {

using Platform::System;

constexpr int kOpenAttempts = 10;
constexpr std::int64_t kOpenRetryNanoseconds = 1'000'000'000;
constexpr std::int64_t kRollCheckSeconds = 60;
constexpr mode_t kFileMode = 0666;  // less what the process masks
constexpr char kByteOrderMark[] = {'\xEF', '\xBB', '\xBF'};
constexpr std::size_t kIndexDigits = 3;

std::int64_t secondsNow() {
    return System().wallTime() / 1'000'000'000;
}

// Where the extension begins, with its dot: at the last dot of the file name, or at the end.
std::size_t extensionStart(const std::wstring& path) {
    const std::size_t separator = path.find_last_of(L"/\\");
    const std::size_t name = separator == std::wstring::npos ? 0 : separator + 1;
    const std::size_t dot = path.rfind(L'.');
    return dot == std::wstring::npos || dot < name ? path.size() : dot;
}

// Moves a file, replacing the destination, which goes even when there is nothing to move.
void moveFile(const std::string& from, const std::string& to) {
    if (System().rename(from.c_str(), to.c_str()) == -1 && errno == ENOENT) {
        System().unlink(to.c_str());
    }
}

}  // namespace

void FileLog::Initialize(FileLogLevel value, const wchar_t* path) {
    AutoLock guard(lock);
    clear();
    setLevel(value);
    previousSize = 0;
    if (path == nullptr) {
        logPath.clear();
        return;
    }
    logPath = path;
    const std::size_t split = extensionStart(logPath);
    basePath = logPath.substr(0, split);
    extension = logPath.substr(split);
    systemPath = Platform::WideToUtf8(logPath);
    createLogFile();
}

void FileLog::clear() {
    if (descriptor == -1) return;
    System().sync(descriptor);
    System().close(descriptor);
    descriptor = -1;
}

void FileLog::createLogFile() {
    if (GetLogLevel() == Off) return;
    int error = 0;
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        if (openOnce()) return;
        error = errno;
        System().sleep(kOpenRetryNanoseconds);
    }
    std::printf("Unable to open log file %s, error %d\n", systemPath.c_str(), error);
    std::fflush(stdout);
}

// Takes the file at the path in place of the open one, if any; false with errno when it cannot be opened.
bool FileLog::openOnce() {
    const int opened = System().open(systemPath.c_str(), O_WRONLY | O_APPEND | O_CREAT, kFileMode);
    if (opened == -1) return false;
    {
        const LogFileLock file(opened);
        struct stat status {};
        identity = {};
        if (System().descriptorStatus(opened, &status) == 0) {
            identity = {status.st_dev, status.st_ino, true};
            if (status.st_size == 0) {
                file.Append(kByteOrderMark, sizeof kByteOrderMark);
            }
        }
    }
    if (descriptor != -1) {
        System().close(descriptor);
    }
    descriptor = opened;
    lastPathCheck = secondsNow();
    return true;
}

FileLog::PathCheck FileLog::checkPath() const {
    struct stat status {};
    if (!identity.known) return PathCheck::Unknown;
    if (System().pathStatus(systemPath.c_str(), &status) == -1) {
        return errno == ENOENT ? PathCheck::Other : PathCheck::Unknown;
    }
    return status.st_dev == identity.device && status.st_ino == identity.inode ? PathCheck::Same
                                                                               : PathCheck::Other;
}

// Another process may have rolled the file away: once a second at most, before a line is written, this
// process follows, so that it does not append for long to a file that will be deleted.
void FileLog::followPath(std::int64_t seconds) {
    if (seconds == lastPathCheck) return;
    lastPathCheck = seconds;
    if (checkPath() == PathCheck::Other) {
        openOnce();
    }
}

std::wstring FileLog::generateLogFilePath(int index) const {
    std::wstring digits = std::to_wstring(index);
    if (digits.size() < kIndexDigits) {
        digits.insert(0, kIndexDigits - digits.size(), L'0');
    }
    return basePath + L'.' + digits + extension;
}

void FileLog::rollLog() {
    if (descriptor == -1) return;
    if (secondsNow() - lastRollCheck < kRollCheckSeconds) return;
    struct stat status {};
    if (System().descriptorStatus(descriptor, &status) == 0 && status.st_size >= maxFileSize) {
        try {
            rollFile();
        } catch (const std::bad_alloc&) {
            // No memory for the names: the file grows until the next look.
        }
    }
    lastRollCheck = secondsNow();
}

void FileLog::rollFile() {
    {
        // Whoever else wants to roll this file waits here, and then finds that the path names another.
        const LogFileLock file(descriptor);
        const PathCheck found = checkPath();
        if (found == PathCheck::Unknown) return;
        if (found == PathCheck::Same) {
            moveChain();
        }
    }
    clear();
    createLogFile();
}

void FileLog::moveChain() {
    for (int i = historySize - 1; i >= 0; --i) {
        const std::string source = i > 0 ? Platform::WideToUtf8(generateLogFilePath(i - 1)) : systemPath;
        moveFile(source, Platform::WideToUtf8(generateLogFilePath(i)));
    }
}

}  // namespace Mivra::Common
