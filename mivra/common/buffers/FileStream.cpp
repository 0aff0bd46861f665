#include "mivra/common/buffers/FileStream.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>
#include <system_error>

#include "mivra/common/buffers/SeekTarget.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/platform/System.h"

namespace Mivra::Common {
namespace {

constexpr std::size_t kBlockSize = 64 * 1024;
constexpr mode_t kNewFileMode = 0666;

[[noreturn]] void failRange(const char* operation, const char* number) {
    throw GeneralException("FileStream::%s: Argument out of range%s", operation, number);
}

std::string reason(int error) {
    return std::system_category().message(error);
}

/// The flags of open() for a mode of fopen(); -1 for any other text.
int openFlags(std::string_view mode) {
    if (mode == "rb" || mode == "r") return O_RDONLY;
    if (mode == "r+b" || mode == "rb+" || mode == "r+") return O_RDWR;
    if (mode == "w+b" || mode == "wb+" || mode == "w+") return O_RDWR | O_CREAT | O_TRUNC;
    return -1;
}

/// Repeats a system call that a signal cut short.
template <typename Call>
auto retried(Call call) {
    decltype(call()) result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result;
}

void freeBlock(void* memory) {
    Platform::System().free(memory);
}

unsigned char* allocateBlock() {
    void* const memory = Platform::System().allocate(kBlockSize);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return static_cast<unsigned char*>(memory);
}

}  // namespace

FileStream::FileStream(const std::string& path_, const char* mode)
    : IStream(StreamType::File), path(path_), block{{allocateBlock(), freeBlock}} {
    const int flags = openFlags(mode == nullptr ? "" : mode);
    if (flags == -1) {
        throw GeneralException("FileStream: %s: mode \"%s\" is none of rb, r+b, w+b", path.c_str(),
                               mode == nullptr ? "" : mode);
    }
    writable = flags != O_RDONLY;
    descriptor = retried([&] { return Platform::System().open(path.c_str(), flags, kNewFileMode); });
    if (descriptor == -1) {
        fail("open", errno);
    }
    struct stat status {};
    off_t end = -1;
    int error = 0;
    if (Platform::System().descriptorStatus(descriptor, &status) == 0 && S_ISDIR(status.st_mode)) {
        error = EISDIR;
    } else if ((end = Platform::System().seek(descriptor, 0, SEEK_END)) == -1) {
        error = errno;
    }
    if (error != 0) {
        Platform::System().close(descriptor);
        fail("open", error);
    }
    length = end;
}

FileStream::~FileStream() {
    try {
        Flush();
    } catch (const std::exception& failure) {
        LogLine(FileLog::Error, "%s: what was not written is lost", failure.what());
    }
    if (Platform::System().close(descriptor) == -1) {
        LogLine(FileLog::Error, "FileStream::close: %s: %s", path.c_str(), reason(errno).c_str());
    }
}

void FileStream::fail(const char* operation, int error) const {
    throw GeneralException("FileStream::%s: %s: %s", operation, path.c_str(), reason(error).c_str());
}

void FileStream::requireWritable(const char* operation) const {
    if (!writable) {
        fail(operation, EBADF);
    }
}

bool FileStream::CanRead() const {
    return true;
}

bool FileStream::CanSeek() const {
    return true;
}

bool FileStream::CanWrite() const {
    return writable;
}

// The block.

bool FileStream::coversPosition() const {
    return position >= block.start && position < block.start + static_cast<std::int64_t>(block.size);
}

/// Brings the bytes at the position into the block; false at the end of the file.
bool FileStream::load(const char* operation) {
    if (coversPosition()) {
        return true;
    }
    if (position >= length) {
        return false;
    }
    store(operation);
    block.size = 0;
    block.start = position;
    const ssize_t got = retried([this]() MIVRA_NO_THREAD_SAFETY_ANALYSIS {
        return Platform::System().readAt(descriptor, block.data.get(), kBlockSize, position);
    });
    if (got == -1) {
        fail(operation, errno);
    }
    block.size = static_cast<std::size_t>(got);
    return got > 0;
}

/// Writes what is dirty. What a failure leaves unwritten stays dirty.
void FileStream::store(const char* operation) {
    while (block.dirtyBegin < block.dirtyEnd) {
        const ssize_t put = retried([this]() MIVRA_NO_THREAD_SAFETY_ANALYSIS {
            return Platform::System().writeAt(descriptor, block.data.get() + block.dirtyBegin,
                                              block.dirtyEnd - block.dirtyBegin,
                                              block.start + static_cast<std::int64_t>(block.dirtyBegin));
        });
        if (put <= 0) {
            fail(operation, put == 0 ? ENOSPC : errno);
        }
        block.dirtyBegin += static_cast<std::size_t>(put);
    }
    block.dirtyBegin = block.dirtyEnd = 0;
}

/// Puts as much at the position as the block takes, 0 when it has no room there, and moves behind it.
std::size_t FileStream::put(const unsigned char* src, std::size_t count) {
    const std::int64_t inside = position - block.start;
    if (inside < 0 || inside > static_cast<std::int64_t>(block.size) ||
        inside >= static_cast<std::int64_t>(kBlockSize)) {
        return 0;
    }
    const auto begin = static_cast<std::size_t>(inside);
    const std::size_t bytes = std::min(count, kBlockSize - begin);
    std::memcpy(block.data.get() + begin, src, bytes);
    block.size = std::max(block.size, begin + bytes);
    const bool clean = block.dirtyBegin == block.dirtyEnd;
    block.dirtyBegin = clean ? begin : std::min(block.dirtyBegin, begin);
    block.dirtyEnd = clean ? begin + bytes : std::max(block.dirtyEnd, begin + bytes);
    position += static_cast<std::int64_t>(bytes);
    length = std::max(length, position);
    return bytes;
}

void FileStream::Flush() {
    AutoLock guard(lock);
    store("Flush");
}

// Positions.

std::int64_t FileStream::GetLength() {
    AutoLock guard(lock);
    return length;
}

void FileStream::SetLength(std::int64_t newLength) {
    AutoLock guard(lock);
    if (newLength < 0) {
        failRange("SetLength", " #1");
    }
    requireWritable("SetLength");
    store("SetLength");
    if (retried([&] { return Platform::System().truncate(descriptor, newLength); }) == -1) {
        fail("SetLength", errno);
    }
    block.size = 0;
    length = newLength;
    if (position > length) {
        moveTo(length);
    }
}

std::int64_t FileStream::GetPosition() {
    AutoLock guard(lock);
    return position;
}

void FileStream::moveTo(std::int64_t newPosition) {
    position = newPosition;
    bitPosition = 0;
}

void FileStream::SetPosition(std::int64_t newPosition) {
    AutoLock guard(lock);
    if (newPosition < 0 || newPosition > length) {
        failRange("SetPosition", " #1");
    }
    moveTo(newPosition);
}

int FileStream::GetBitPosition() {
    AutoLock guard(lock);
    return bitPosition;
}

void FileStream::SetBitPosition(int newBitPosition) {
    AutoLock guard(lock);
    if (newBitPosition < 0 || newBitPosition > 7) {
        failRange("SetBitPosition", "");
    }
    bitPosition = newBitPosition;
}

std::int64_t FileStream::Seek(std::int64_t offset, Origin origin) {
    AutoLock guard(lock);
    std::int64_t target = -1;
    SeekTarget(offset, origin, position, length, target);
    SetPosition(target);
    return target;
}

std::int64_t FileStream::SeekBits(std::int64_t offset, Origin origin) {
    AutoLock guard(lock);
    std::int64_t target = 0;
    const int outside = SeekTarget(offset, origin, position * 8 + bitPosition, length * 8, target);
    if (outside != 0) {
        failRange("SeekBits", outside < 0 ? " #1" : " #2");
    }
    position = target / 8;
    bitPosition = static_cast<int>(target % 8);
    return target;
}

// Bytes.

int FileStream::Read(unsigned char* dst, int offset, int count) {
    AutoLock guard(lock);
    if (offset < 0 || count < 0 || (count > 0 && dst == nullptr)) {
        failRange("Read", "");
    }
    const std::int64_t from = position;
    const int bit = bitPosition;
    int done = 0;
    try {
        while (done < count && load("Read")) {
            const auto inside = static_cast<std::size_t>(position - block.start);
            const std::size_t bytes = std::min(block.size - inside, static_cast<std::size_t>(count - done));
            std::memcpy(dst + offset + done, block.data.get() + inside, bytes);
            done += static_cast<int>(bytes);
            position += static_cast<std::int64_t>(bytes);
        }
    } catch (...) {
        position = from;
        bitPosition = bit;
        throw;
    }
    bitPosition = 0;
    return done;
}

int FileStream::byteAtPosition(const char* operation) {
    if (!load(operation)) {
        return -1;
    }
    return block.data.get()[position - block.start];
}

int FileStream::ReadByte() {
    AutoLock guard(lock);
    const int value = byteAtPosition("ReadByte");
    moveTo(position + (value >= 0 ? 1 : 0));
    return value;
}

int FileStream::PeekByte() {
    AutoLock guard(lock);
    return byteAtPosition("PeekByte");
}

void FileStream::Write(const unsigned char* src, int offset, int count) {
    AutoLock guard(lock);
    if (offset < 0 || count < 0 || (count > 0 && src == nullptr)) {
        failRange("Write", "");
    }
    requireWritable("Write");
    const std::int64_t from = position;
    const std::int64_t oldLength = length;
    std::size_t done = 0;
    const auto wanted = static_cast<std::size_t>(count);
    try {
        while (done < wanted) {
            const std::size_t bytes = put(src + offset + done, wanted - done);
            if (bytes == 0) {
                store("Write");
                block.size = 0;
                block.start = position;
            }
            done += bytes;
        }
    } catch (...) {
        position = from;
        takeBack(oldLength);
        throw;
    }
    bitPosition = 0;
}

/// Nothing of a write that failed stays behind the length that was.
void FileStream::takeBack(std::int64_t oldLength) {
    length = oldLength;
    const std::int64_t inside = std::max<std::int64_t>(oldLength - block.start, 0);
    block.size = std::min(block.size, static_cast<std::size_t>(inside));
    block.dirtyEnd = std::min(block.dirtyEnd, block.size);
    if (block.dirtyBegin >= block.dirtyEnd) {
        block.dirtyBegin = block.dirtyEnd = 0;
    }
    if (Platform::System().seek(descriptor, 0, SEEK_END) > oldLength &&
        retried([&] { return Platform::System().truncate(descriptor, oldLength); }) == -1) {
        LogLine(FileLog::Error, "FileStream::Write: %s: a part that was written stays: %s", path.c_str(),
                reason(errno).c_str());
    }
}

void FileStream::WriteByte(unsigned char value) {
    Write(&value, 0, 1);
}

}  // namespace Mivra::Common
