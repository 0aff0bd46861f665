#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "tools/mivra/FfmpegSupport.h"

namespace Mivra::Tool {

/// The name that stands for standard input or output.
inline constexpr const char* kStandardStream = "-";

/// Reads a file, or standard input, for libavformat. One thread reads; any may interrupt. FFmpeg has to stay
/// loaded while it lives.
class InputFile {
public:
    /// std::system_error when the file cannot be opened.
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    AVIOContext* Context() { return context; }
    /// Ends a read that waits for data, and every later one: they fail with AVERROR_EXIT.
    void Interrupt();
    /// Bytes of a regular file; -1 for anything else.
    std::int64_t Size() const { return size; }
    std::int64_t BytesRead() const { return bytesRead.load(std::memory_order_relaxed); }

private:
    static int read(void* self, std::uint8_t* data, int size);
    static std::int64_t seek(void* self, std::int64_t offset, int whence);
    bool waitReadable();

    int descriptor = -1;
    int wakeDescriptor = -1;  // only where a read may wait
    std::int64_t size = -1;
    std::atomic<bool> interrupted{false};
    std::atomic<std::int64_t> bytesRead{0};
    AVIOContext* context = nullptr;
};

/// Writes a file, or standard output, for libavformat. One thread.
class OutputFile {
public:
    /// Opens the file, which keeps what it holds until Begin. std::system_error when it cannot be opened.
    explicit OutputFile(const std::string& path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Empties the file. False with errno.
    bool Begin();
    /// Takes the file away again, when this object made it.
    void Discard();
    AVIOContext* Context() { return context; }
    /// errno of the first write that failed; 0: none.
    int WriteError() const { return writeError; }
    /// Closes the descriptor; a failure, which some file systems report only here, counts as a write error.
    void Close();

private:
    static int write(void* self, std::uint8_t* data, int size);
    static std::int64_t seek(void* self, std::int64_t offset, int whence);

    const std::string path;
    int descriptor = -1;
    bool standard = false;
    bool regular = false;
    bool created = false;
    int writeError = 0;
    AVIOContext* context = nullptr;
};

}  // namespace Mivra::Tool
