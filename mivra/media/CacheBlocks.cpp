#include "mivra/media/CacheBlocks.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "mivra/platform/System.h"

namespace Mivra::Media {

using Platform::System;

namespace {

constexpr std::uint32_t kHead = sizeof(CacheRecord);
// From this size on data goes between the packet and the file without a stop in the block.
constexpr std::uint32_t kLargeToWrite = 64 << 10;
constexpr std::uint32_t kLargeToRead = 8 << 10;
// The first read of small records; each that follows without a gap is twice as large.
constexpr std::uint32_t kFirstFill = 4 << 10;

}  // namespace

CacheBlock::~CacheBlock() {
    System().free(memory);
}

char* CacheBlock::Get() {
    if (memory == nullptr) {
        memory = static_cast<char*>(System().allocate(kSize));
        if (memory == nullptr) {
            throw std::bad_alloc();
        }
    }
    return memory;
}

CacheWriter::~CacheWriter() {
    End();
}

void CacheWriter::Begin(int descriptor) {
    block.Get();
    file = descriptor;
    written = 0;
    pending = 0;
}

int CacheWriter::MakeRoom(std::uint32_t dataSize) {
    const bool fits = dataSize < kLargeToWrite && kHead + dataSize <= CacheBlock::kSize - pending;
    return fits || pending == 0 ? 0 : Flush();
}

int CacheWriter::Put(const CacheRecord& record, const char* data) {
    if (record.size >= kLargeToWrite) {
        int error = writeAll(reinterpret_cast<const char*>(&record), kHead, written);
        if (error == 0) {
            error = writeAll(data, record.size, written + kHead);
        }
        if (error == 0) {
            written += kHead + record.size;
        }
        return error;
    }
    char* const place = block.Get() + pending;
    std::memcpy(place, &record, kHead);
    std::memcpy(place + kHead, data, record.size);
    pending += kHead + record.size;
    return 0;
}

int CacheWriter::Flush() {
    if (pending == 0) {
        return 0;
    }
    const int error = writeAll(block.Get(), pending, written);
    if (error == 0) {
        written += std::exchange(pending, 0);
    }
    return error;
}

void CacheWriter::End() {
    if (file >= 0) {
        System().close(std::exchange(file, -1));
    }
    written = 0;
    pending = 0;
}

int CacheWriter::writeAll(const char* data, std::size_t size, std::uint32_t offset) const {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count =
            System().writeAt(file, data + done, size - done, static_cast<off_t>(offset + done));
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (count == 0) {
            return ENOSPC;
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

CacheReader::~CacheReader() {
    End();
}

void CacheReader::Begin(int descriptor) {
    End();
    file = descriptor;
    blockSize = 0;
    nextFill = kFirstFill;
    position = 0;
}

void CacheReader::End() {
    if (file >= 0) {
        System().close(std::exchange(file, -1));
    }
}

bool CacheReader::Read(std::uint32_t offset, std::uint32_t dataSize, CacheRecord& record, char* data) {
    const std::uint32_t whole = kHead + dataSize;
    position = offset + whole;
    const bool inBlock = offset >= blockOffset && offset - blockOffset <= blockSize &&
                         whole <= blockSize - (offset - blockOffset);
    if (!inBlock) {
        if (dataSize >= kLargeToRead) {
            nextFill = kFirstFill;
            return readDirectly(offset, dataSize, record, data);
        }
        if (!fill(offset, whole)) {
            return false;
        }
    }
    const char* const place = block.Get() + (offset - blockOffset);
    std::memcpy(&record, place, kHead);
    std::memcpy(data, place + kHead, dataSize);
    return true;
}

bool CacheReader::readDirectly(std::uint32_t offset, std::uint32_t dataSize, CacheRecord& record,
                               char* data) const {
    std::uint32_t done = 0;
    while (done < kHead + dataSize) {
        const std::uint32_t head = std::min(done, kHead);
        const std::uint32_t body = done - head;
        const iovec pair[2] = {{reinterpret_cast<char*>(&record) + head, kHead - head},
                               {data + body, dataSize - body}};
        const ssize_t count = System().readPairAt(file, pair, static_cast<off_t>(offset) + done);
        if (count > 0) {
            done += static_cast<std::uint32_t>(count);
        } else if (count == 0) {
            errno = 0;
            return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

/// Makes the block begin at the offset, with at least as many bytes as needed.
bool CacheReader::fill(std::uint32_t offset, std::uint32_t needed) {
    const std::uint32_t wanted = std::max(needed, nextFill);
    nextFill = std::min(nextFill * 2, CacheBlock::kSize);
    blockOffset = offset;
    blockSize = 0;
    char* const memory = block.Get();
    while (blockSize < needed) {
        const ssize_t count = System().readAt(file, memory + blockSize, wanted - blockSize,
                                              static_cast<off_t>(offset) + blockSize);
        if (count > 0) {
            blockSize += static_cast<std::uint32_t>(count);
        } else if (count == 0) {
            errno = 0;
            return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace Mivra::Media
