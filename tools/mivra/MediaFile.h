#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "tools/mivra/MediaIo.h"
#include "tools/mivra/WriteBehind.h"

namespace Mivra::Tool {

/// Reads a file, or standard input.
class InputFile : public IMediaInput {
public:
    /// std::system_error when the file cannot be opened.
    explicit InputFile(const std::string& path);
    ~InputFile() override;
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    AVIOContext* Context() override { return context.get(); }
    void Interrupt() override;
    std::int64_t Size() const override { return size; }
    std::int64_t BytesRead() const override { return bytesRead.load(std::memory_order_relaxed); }

private:
    static int read(void* self, std::uint8_t* data, int size);
    static std::int64_t seek(void* self, std::int64_t offset, int whence);
    bool waitReadable();

    int descriptor = -1;
    int wakeDescriptor = -1;  // only where a read may wait
    std::int64_t size = -1;
    std::atomic<bool> interrupted{false};
    std::atomic<std::int64_t> bytesRead{0};
    AvioPointer context;
};

/// Writes a file, or standard output; to a regular file a thread of its own does the writing. A reader of a
/// pipe may let it wait; once the signal is raised, one that takes nothing for kGraceMilliseconds counts as a
/// failure, ECANCELED.
class OutputFile : public IMediaOutput {
public:
    static constexpr int kGraceMilliseconds = 2000;

    /// Opens the file, which keeps what it holds until Begin; a named pipe when it has a reader.
    /// std::system_error when it cannot be opened, with ECANCELED when the signal came before the reader.
    OutputFile(const std::string& path, const StopSignal& stop);
    ~OutputFile() override;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Empties the file. False with errno.
    bool Begin() override;
    /// Takes the file away again, when this object made it.
    void Discard() override;
    AVIOContext* Context() override { return context.get(); }
    bool IsRegular() const override { return regular; }
    int WriteError() const override { return writeError; }
    std::uint64_t PiecesSent() const override { return sent; }
    std::uint64_t PiecesWritten() const override { return behind != nullptr ? behind->Written() : sent; }
    /// A failure, which some file systems report only when the descriptor is closed, counts as a write error.
    void Close() override;

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
    AvioPointer context;
};

}  // namespace Mivra::Tool
