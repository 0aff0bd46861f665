#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "tools/mivra/FfmpegSupport.h"
#include "tools/mivra/StopSignal.h"
#include "tools/mivra/WriteBehind.h"

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

/// Writes a file, or standard output, for libavformat. One thread uses it; to a regular file another one, its
/// own, does the writing. A reader of a pipe may let it wait; once
/// the signal is raised, one that takes nothing for kGraceMilliseconds counts as a failure, ECANCELED.
class OutputFile {
public:
    static constexpr int kGraceMilliseconds = 2000;

    /// Opens the file, which keeps what it holds until Begin; a named pipe when it has a reader.
    /// std::system_error when it cannot be opened, with ECANCELED when the signal came before the reader.
    OutputFile(const std::string& path, const StopSignal& stop);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Empties the file. False with errno.
    bool Begin();
    /// Takes the file away again, when this object made it.
    void Discard();
    AVIOContext* Context() { return context; }
    bool IsRegular() const { return regular; }
    /// errno of the first write that failed; 0: none.
    int WriteError() const { return writeError; }
    /// How many pieces have left the buffer, and how many of those the system has taken.
    std::uint64_t PiecesSent() const { return sent; }
    std::uint64_t PiecesWritten() const { return behind != nullptr ? behind->Written() : sent; }
    /// Waits until all is written and closes the descriptor; a failure, which some file systems report only
    /// here, counts as a write error.
    void Close();

private:
    static int write(void* self, std::uint8_t* data, int size);
    static std::int64_t seek(void* self, std::int64_t offset, int whence);
    void openStandard();
    void openNamed();
    bool awaitReader();
    bool waitWritable();
    int writeRegular(const std::uint8_t* data, int size);
    int writeOther(const std::uint8_t* data, int size);
    int noteError(int error);
    std::int64_t currentSize();

    const std::string path;
    const StopSignal& stop;
    int descriptor = -1;
    bool standard = false;
    bool regular = false;
    bool created = false;
    bool mayBlock = false;  // the descriptor is shared with others, who may want it to block
    int writeError = 0;
    std::uint64_t sent = 0;
    std::int64_t position = 0;  // of a regular file that is not standard output
    std::unique_ptr<WriteBehind> behind;
    AVIOContext* context = nullptr;
};

}  // namespace Mivra::Tool
