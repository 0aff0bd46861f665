#pragma once

// The two ends of the program as libavformat sees them: what it reads from and what it writes to, a file or
// the network.

#include <cstdint>
#include <memory>
#include <string>

#include "tools/mivra/FfmpegSupport.h"
#include "tools/mivra/StopSignal.h"

namespace Mivra::Tool {

class NetworkBoard;

/// The name that stands for standard input or output.
inline constexpr const char* kStandardStream = "-";

struct AvioDeleter {
    void operator()(AVIOContext* context) const;
};
using AvioPointer = std::unique_ptr<AVIOContext, AvioDeleter>;

/// A context around three functions, of which those that are null are not offered. std::bad_alloc.
AvioPointer makeAvio(int bufferSize, bool writing, void* self, int (*read)(void*, std::uint8_t*, int),
                     int (*write)(void*, std::uint8_t*, int), std::int64_t (*seek)(void*, std::int64_t, int));

/// What media is read from. One thread reads; any may interrupt. FFmpeg has to stay loaded while it lives.
class IMediaInput {
public:
    virtual ~IMediaInput() = default;

    virtual AVIOContext* Context() = 0;
    /// Ends a read that waits for data, and every later one: they fail with AVERROR_EXIT.
    virtual void Interrupt() = 0;
    /// Bytes of a regular file; -1 for anything else.
    virtual std::int64_t Size() const = 0;
    virtual std::int64_t BytesRead() const = 0;
    /// After a read that failed: ProblemError when there is more to be told than that.
    virtual void Check() const {}
};

/// What media is written to. One thread uses it. FFmpeg has to stay loaded while it lives.
class IMediaOutput {
public:
    virtual ~IMediaOutput() = default;

    /// Before the first byte. False with errno.
    virtual bool Begin() = 0;
    /// Nothing will be written: leaves what was there before.
    virtual void Discard() = 0;
    virtual AVIOContext* Context() = 0;
    /// It is a file that could be opened once more.
    virtual bool IsRegular() const = 0;
    /// errno of the first write that failed; 0: none.
    virtual int WriteError() const = 0;
    /// How many pieces have left the buffer, and how many of those have been taken over for good.
    virtual std::uint64_t PiecesSent() const = 0;
    virtual std::uint64_t PiecesWritten() const = 0;
    /// Waits until all is written, and ends it.
    virtual void Close() = 0;
};

/// By the name: a file, standard input or output, or an address. The board (null: none) hears of clients of
/// the network. std::system_error or ProblemError when it cannot be opened.
std::unique_ptr<IMediaInput> openInput(const std::string& name, NetworkBoard* board);
std::unique_ptr<IMediaOutput> openOutput(const std::string& name, const StopSignal& stop,
                                         NetworkBoard* board);

}  // namespace Mivra::Tool
