#pragma once

// How processes share one log file: each appends under a lock on the file's first two bytes.

#include <cstddef>

namespace Mivra::Common {

/// The lock of an open log file for the lifetime of a scope. One that cannot be had is done without.
class LogFileLock {
public:
    explicit LogFileLock(int descriptor) noexcept;
    ~LogFileLock();
    LogFileLock(const LogFileLock&) = delete;
    LogFileLock& operator=(const LogFileLock&) = delete;

    /// Appends the whole text or nothing; what fails is dropped.
    void Append(const char* text, std::size_t size) const noexcept;

private:
    void dropTail(std::size_t size) const noexcept;

    int file;
    bool held;
};

}  // namespace Mivra::Common
