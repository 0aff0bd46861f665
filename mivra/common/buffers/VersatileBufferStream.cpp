#include "mivra/common/buffers/VersatileBufferStream.h"

#include <algorithm>
#include <cstring>
#include <typeinfo>

#include "mivra/common/buffers/FindStreamWindow.h"
#include "mivra/common/buffers/SeekTarget.h"
#include "mivra/common/buffers/StreamChain.h"

namespace Mivra::Common {
namespace {

void checkMemory(const char* operation, const void* memory, int offset, int count) {
    if (offset < 0 || count < 0 || (count > 0 && memory == nullptr)) {
        FailStreamRange(operation);
    }
}

}  // namespace

StreamWindow* FindStreamWindow(IStream* stream) noexcept {
    if (stream == nullptr || typeid(*stream) != typeid(VersatileBufferStream)) {
        return nullptr;
    }
    return &static_cast<VersatileBufferStream*>(stream)->window;
}

VersatileBufferStream::VersatileBufferStream() : IStream(StreamType::Buffer) {}

VersatileBufferStream::VersatileBufferStream(VersatileBuffer* buffer) : VersatileBufferStream() {
    Append(buffer, 0, buffer == nullptr ? 0 : buffer->ActualSize());
}

VersatileBufferStream::VersatileBufferStream(VersatileBuffer* buffer, int offset, int count)
    : VersatileBufferStream() {
    Append(buffer, offset, count);
}

VersatileBufferStream::~VersatileBufferStream() {
    for (const Slice& slice : chain) {
        slice.buffer->Release();
    }
}

bool VersatileBufferStream::CanRead() const {
    return true;
}

bool VersatileBufferStream::CanSeek() const {
    return true;
}

bool VersatileBufferStream::CanWrite() const {
    return true;
}

void VersatileBufferStream::Flush() {}

// Positions.

std::int64_t VersatileBufferStream::GetLength() {
    AutoLock guard(lock);
    return window.length;
}

void VersatileBufferStream::SetLength(std::int64_t length) {
    AutoLock guard(lock);
    if (length < 0) {
        FailStreamRange("SetLength", 1);
    }
    if (length > window.length) {
        if (!autoGrowth) {
            FailStreamRange("SetLength", 2);
        }
        grow("SetLength", length - window.length, 0);
    }
    cut(length);
}

std::int64_t VersatileBufferStream::GetPosition() {
    AutoLock guard(lock);
    return window.position;
}

void VersatileBufferStream::moveTo(std::int64_t newPosition) {
    window.position = newPosition;
    window.bitPosition = 0;
}

void VersatileBufferStream::SetPosition(std::int64_t newPosition) {
    AutoLock guard(lock);
    if (newPosition < 0 || newPosition > window.length) {
        FailStreamRange("SetPosition", 1);
    }
    moveTo(newPosition);
}

int VersatileBufferStream::GetBitPosition() {
    AutoLock guard(lock);
    return window.bitPosition;
}

void VersatileBufferStream::SetBitPosition(int newBitPosition) {
    AutoLock guard(lock);
    if (newBitPosition < 0 || newBitPosition > 7) {
        FailStreamRange("SetBitPosition");
    }
    window.bitPosition = newBitPosition;
}

std::int64_t VersatileBufferStream::Seek(std::int64_t offset, Origin origin) {
    AutoLock guard(lock);
    std::int64_t target = -1;
    SeekTarget(offset, origin, window.position, window.length, target);
    SetPosition(target);
    return target;
}

std::int64_t VersatileBufferStream::SeekBits(std::int64_t offset, Origin origin) {
    AutoLock guard(lock);
    std::int64_t target = 0;
    const int outside =
        SeekTarget(offset, origin, window.position * 8 + window.bitPosition, window.length * 8, target);
    if (outside != 0) {
        FailStreamRange("SeekBits", outside < 0 ? 1 : 2);
    }
    window.position = target / 8;
    window.bitPosition = static_cast<int>(target % 8);
    return target;
}

// Bytes.

int VersatileBufferStream::Read(unsigned char* dst, int offset, int count) {
    AutoLock guard(lock);
    checkMemory("Read", dst, offset, count);
    const std::int64_t bytes = std::min<std::int64_t>(count, window.length - window.position);
    unsigned char* out = dst + offset;
    visitRange(window.position, bytes, [&out](const unsigned char* data, std::size_t size) {
        std::memcpy(out, data, size);
        out += size;
    });
    moveTo(window.position + bytes);
    return static_cast<int>(bytes);
}

int VersatileBufferStream::byteAtPosition() const {
    int value = -1;
    if (window.position < window.length) {
        visitRange(window.position, 1, [&value](const unsigned char* data, std::size_t) { value = *data; });
    }
    return value;
}

int VersatileBufferStream::ReadByte() {
    AutoLock guard(lock);
    const int value = byteAtPosition();
    moveTo(window.position + (value >= 0 ? 1 : 0));
    return value;
}

int VersatileBufferStream::PeekByte() {
    AutoLock guard(lock);
    return byteAtPosition();
}

void VersatileBufferStream::Write(const unsigned char* src, int offset, int count) {
    AutoLock guard(lock);
    checkMemory("Write", src, offset, count);
    reserve("Write", count);
    const unsigned char* in = src + offset;
    visitRange(window.position, count, [&in](unsigned char* data, std::size_t size) {
        std::memmove(data, in, size);
        in += size;
    });
    moveTo(window.position + count);
}

void VersatileBufferStream::WriteByte(unsigned char value) {
    Write(&value, 0, 1);
}

int VersatileBufferStream::ReadFrom(std::int64_t offset, unsigned char* dst, int dstOffset, int count) {
    AutoLock guard(lock);
    checkMemory("ReadFrom", dst, dstOffset, count);
    if (offset < 0 || offset > window.length) {
        FailStreamRange("ReadFrom");
    }
    const std::int64_t bytes = std::min<std::int64_t>(count, window.length - offset);
    unsigned char* out = dst + dstOffset;
    visitRange(offset, bytes, [&out](const unsigned char* data, std::size_t size) {
        std::memcpy(out, data, size);
        out += size;
    });
    return static_cast<int>(bytes);
}

// Bookkeeping.

std::int64_t VersatileBufferStream::GetFilePosition() {
    AutoLock guard(lock);
    return filePosition;
}

void VersatileBufferStream::SetFilePosition(std::int64_t newFilePosition) {
    AutoLock guard(lock);
    filePosition = newFilePosition;
}

bool VersatileBufferStream::IsOneMessage() {
    AutoLock guard(lock);
    return oneMessage;
}

void VersatileBufferStream::SetOneMessage(bool isOneMessage) {
    AutoLock guard(lock);
    oneMessage = isOneMessage;
}

bool VersatileBufferStream::IsAutoGrowth() {
    AutoLock guard(lock);
    return autoGrowth;
}

void VersatileBufferStream::SetAutoGrowth(bool isAutoGrowth) {
    AutoLock guard(lock);
    autoGrowth = isAutoGrowth;
}

}  // namespace Mivra::Common
