#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "mivra/common/buffers/IStream.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// A stream over a file: buffered, with 64-bit positions, grown by writing at its end. Cursors, bits and
/// ranges behave as those of VersatileBufferStream. Its maker owns it; any thread may call it. A failing call
/// of the system is a GeneralException that names the file and the reason: the cursors stay, and what could
/// not be written stays buffered and goes out with a later Flush.
class MIVRA_API FileStream : public IStream {
public:
    /// Modes of fopen: "rb" reads, "r+b" also writes, "w+b" starts with an empty file. GeneralException when
    /// the file cannot be opened, is no file that can be seeked, or the mode is another.
    FileStream(const std::string& path, const char* mode);
    /// Writes what is buffered; a failure is a log line at level 1.
    ~FileStream() override;

    bool CanRead() const override;
    bool CanSeek() const override;
    bool CanWrite() const override;
    std::int64_t GetLength() override;
    void SetLength(std::int64_t newLength) override;
    std::int64_t GetPosition() override;
    void SetPosition(std::int64_t newPosition) override;
    int GetBitPosition() override;
    void SetBitPosition(int newBitPosition) override;
    /// Hands what is buffered to the system (it does not wait for the disk).
    void Flush() override;
    std::int64_t Seek(std::int64_t offset, Origin origin) override;
    std::int64_t SeekBits(std::int64_t offset, Origin origin) override;
    int Read(unsigned char* dst, int offset, int count) override;
    int ReadByte() override;
    int PeekByte() override;
    /// When it fails, the length stays, while bytes inside of it may already be the new ones.
    void Write(const unsigned char* src, int offset, int count) override;
    void WriteByte(unsigned char value) override;

private:
    [[noreturn]] void fail(const char* operation, int error) const;
    void requireWritable(const char* operation) const;
    bool coversPosition() const MIVRA_REQUIRES(lock);
    bool load(const char* operation) MIVRA_REQUIRES(lock);
    void store(const char* operation) MIVRA_REQUIRES(lock);
    int byteAtPosition(const char* operation) MIVRA_REQUIRES(lock);
    void moveTo(std::int64_t newPosition) MIVRA_REQUIRES(lock);
    void takeBack(std::int64_t oldLength) MIVRA_REQUIRES(lock);
    std::size_t put(const unsigned char* src, std::size_t count) MIVRA_REQUIRES(lock);

    /// A run of bytes of the file in memory; those of the dirty part are not written yet.
    struct Block {
        std::unique_ptr<unsigned char, void (*)(void*)> data;
        std::int64_t start = 0;  // in the file
        std::size_t size = 0;
        std::size_t dirtyBegin = 0;
        std::size_t dirtyEnd = 0;  // equal: nothing is dirty
    };

    CritSec lock;
    const std::string path;
    bool writable = false;
    int descriptor = -1;
    Block block MIVRA_GUARDED_BY(lock);
    std::int64_t length MIVRA_GUARDED_BY(lock) = 0;
    std::int64_t position MIVRA_GUARDED_BY(lock) = 0;
    int bitPosition MIVRA_GUARDED_BY(lock) = 0;
};

}  // namespace Mivra::Common
