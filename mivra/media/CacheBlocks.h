#pragma once

// One cache file at a time, written and read in large pieces.

#include <cstddef>
#include <cstdint>

#include "mivra/media/CacheRecord.h"

namespace Mivra::Media {

/// Memory from the system table; empty when there is none.
class CacheBlock {
public:
    CacheBlock() = default;
    ~CacheBlock();
    CacheBlock(const CacheBlock&) = delete;
    CacheBlock& operator=(const CacheBlock&) = delete;

    static constexpr std::uint32_t kSize = 1024 << 10;
    /// std::bad_alloc when there is no memory.
    char* Get();

private:
    char* memory = nullptr;
};

/// Writes records behind each other. Small ones gather in a block; large ones go straight to the file. Errors
/// are numbers of errno, 0: none; after one the file ends at Written(), and Flush may be tried again.
class CacheWriter {
public:
    CacheWriter() = default;
    ~CacheWriter();
    CacheWriter(const CacheWriter&) = delete;
    CacheWriter& operator=(const CacheWriter&) = delete;

    /// Takes over an empty file. std::bad_alloc when there is no memory for the block: then it does not.
    void Begin(int descriptor);
    /// Writes what must go out so that a record fits; then Put cannot fail but for a large record, which it
    /// writes whole or not at all.
    int MakeRoom(std::uint32_t dataSize);
    int Put(const CacheRecord& record, const char* data);
    int Flush();
    /// Drops what is not written and closes the file.
    void End();

    bool IsOpen() const { return file >= 0; }
    /// Bytes of all records, and of those in the file.
    std::uint32_t Size() const { return written + pending; }
    std::uint32_t Written() const { return written; }
    /// What is not written yet, from Written() on.
    const char* Pending() { return block.Get(); }

private:
    int writeAll(const char* data, std::size_t size, std::uint32_t offset) const;

    int file = -1;
    CacheBlock block;
    std::uint32_t written = 0;
    std::uint32_t pending = 0;
};

/// Reads records, mostly behind each other.
class CacheReader {
public:
    CacheReader() = default;
    ~CacheReader();
    CacheReader(const CacheReader&) = delete;
    CacheReader& operator=(const CacheReader&) = delete;

    void Begin(int descriptor);
    void End();
    bool IsOpen() const { return file >= 0; }
    /// Where the last record that was read ends.
    std::uint32_t Position() const { return position; }
    /// The head of a record at an offset and its data, which has the given size. False when the file does not
    /// have them (errno 0) or cannot be read (errno). std::bad_alloc when there is no memory.
    bool Read(std::uint32_t offset, std::uint32_t dataSize, CacheRecord& record, char* data);

private:
    bool readDirectly(std::uint32_t offset, std::uint32_t dataSize, CacheRecord& record, char* data) const;
    bool fill(std::uint32_t offset, std::uint32_t needed);

    int file = -1;
    CacheBlock block;
    std::uint32_t blockOffset = 0;
    std::uint32_t blockSize = 0;
    std::uint32_t nextFill = 0;
    std::uint32_t position = 0;
};

}  // namespace Mivra::Media
