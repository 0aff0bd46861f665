#include "mivra/common/buffers/PacketBuffer.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>
#include <utility>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/buffers/PacketBufferAllocator.h"
#include "mivra/common/buffers/PoolControl.h"
// A look up the floors: a buffer owns a media type, and only this file knows what that is.
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/platform/System.h"

namespace Mivra::Common {

PacketBuffer::PacketBuffer(char* data_, int size_) : data(data_) {
    size = std::max(size_, 0);
    actualSize = size;
    referenceCount = 1;
}

PacketBuffer::PacketBuffer(PacketBufferAllocator* allocator_, int size_) : allocator(allocator_) {
    void* memory = nullptr;
    if (size_ >= 0) {
        memory = Platform::System().allocate(static_cast<std::size_t>(std::max(size_, 1)));
    }
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    data = static_cast<char*>(memory);
    ownsData = true;
    size = size_;
    id = nextId();
}

PacketBuffer::~PacketBuffer() {
    delete newMediaType;
    if (ownsData) {
        Platform::System().free(data);
    }
    if (control != nullptr) {
        control->DropHolder();
    }
}

// What may run foreign code when it is destroyed goes before the pool's lock is taken.
inline void PacketBuffer::dropOwned() {
    if (!extraData.empty()) {
        extraData.clear();
    }
    if (!pois.empty()) {
        pois.clear();
    }
    if (newMediaType != nullptr) {
        delete std::exchange(newMediaType, nullptr);
    }
}

void PacketBuffer::giveBack() {
    dropOwned();
    bool last = true;
    if (PoolControl* const pool = control) {
        // The pool may have gone, and this buffer be lent again as soon as the lock is free.
        AutoLock guard(pool->lock);
        last = pool->pool == nullptr || pool->pool->releaseBuffer(this);
    } else if (allocator != nullptr) {
        last = allocator->releaseBuffer(this);
    }
    if (last) {
        delete this;
    }
}

void PacketBuffer::CleanUp() {
    resetAttributes();
    dropOwned();
    bitPosition = 0;
    operation = -1;
    operationFinished = false;
    operationTime = 0;
    programIndex = 0;
    oneMessage = false;
    filePosition = 0;
    sourceId.clear();
    userContext = nullptr;
    remoteAddr = {};
    localAddr = {};
    remoteAddrLen = sizeof(sockaddr_in);
}

char* PacketBuffer::GetPointer() {
    return data;
}

char& PacketBuffer::operator[](unsigned index) {
    return data[index];
}

const char& PacketBuffer::operator[](unsigned index) const {
    return data[index];
}

/// Whether count valid bytes follow offset.
bool PacketBuffer::fits(int offset, int count) const {
    return offset >= 0 && count >= 0 && offset <= actualSize && count <= actualSize - offset;
}

/// Whether count bytes go behind the valid data; logs when they do not.
bool PacketBuffer::hasRoom(int count) const {
    const int remaining = size - actualSize;
    if (count >= 0 && count <= remaining) {
        return true;
    }
    LogLine(FileLog::Error,
            "PacketBuffer::Append: allocator %p requested size %d is bigger than remaining %d (total %d)",
            static_cast<void*>(allocator), count, remaining, size);
    return false;
}

bool PacketBuffer::Append(const void* source, int count) {
    if (!hasRoom(count)) {
        return false;
    }
    if (count > 0) {
        std::memmove(data + actualSize, source, static_cast<std::size_t>(count));
        actualSize += count;
    }
    return true;
}

bool PacketBuffer::Append(const VersatileBuffer* source, int offset, int count) {
    if (source == nullptr || !hasRoom(count) ||
        !source->CopyTo(offset, static_cast<void*>(data + actualSize), count)) {
        return false;
    }
    actualSize += count;
    return true;
}

/// Whether an address lies in the storage.
bool PacketBuffer::isInside(const void* address) const {
    const std::less<> before;
    return !before(address, data) && before(address, data + size);
}

bool PacketBuffer::Insert(int offset, const void* source, int count, bool moveCursor) {
    if (!fits(offset, 0) || count < 0 || count > size - actualSize) {
        LogLine(FileLog::Error, "PacketBuffer::Insert: requested size %d is bigger than actual %d", count,
                actualSize);
        return false;
    }
    if (count == 0) {
        return true;
    }
    char* const place = data + offset;
    char* const end = data + actualSize;
    const auto bytes = static_cast<std::size_t>(count);
    if (isInside(source)) {
        // To make room first would move the source.
        std::memmove(end, source, bytes);
        std::rotate(place, end, end + count);
    } else {
        std::memmove(place + count, place, static_cast<std::size_t>(end - place));
        std::memcpy(place, source, bytes);
    }
    actualSize += count;
    if (moveCursor && position >= offset) {
        position += count;
    }
    return true;
}

bool PacketBuffer::Insert(const void* source, int count, bool moveCursor) {
    return Insert(position, source, count, moveCursor);
}

bool PacketBuffer::Flush(int bytesToRemove) {
    const int count = bytesToRemove == -1 ? position : bytesToRemove;
    if (count == 0) {
        return true;
    }
    if (count < 0 || count > size || count > actualSize) {
        LogLine(FileLog::Error, "PacketBuffer::Flush: bytesToRemove %d is too big", count);
        actualSize = 0;
        position = 0;
        return false;
    }
    std::memmove(data, data + count, static_cast<std::size_t>(actualSize - count));
    actualSize -= count;
    position = std::max(position - count, 0);
    return true;
}

bool PacketBuffer::CopyTo(int offset, void* destination, int count) const {
    if (!fits(offset, count)) {
        LogLine(FileLog::Error, "PacketBuffer::CopyTo: requested size %d is bigger than actual %d", count,
                actualSize);
        return false;
    }
    if (count > 0) {
        std::memmove(destination, data + offset, static_cast<std::size_t>(count));
    }
    return true;
}

bool PacketBuffer::CopyTo(int offset, std::shared_ptr<IStream> destination, int count) const {
    if (!fits(offset, count)) {
        LogLine(FileLog::Error, "PacketBuffer::CopyTo: requested size %d is bigger than actual %d", count,
                actualSize);
        return false;
    }
    if (destination == nullptr) {
        LogLine(FileLog::Error, "PacketBuffer::CopyTo: there is no stream");
        return false;
    }
    destination->Write(reinterpret_cast<const unsigned char*>(data), offset, count);
    return true;
}

bool PacketBuffer::MoveTo(PacketBuffer* destination, int count) {
    if (destination == nullptr || count <= 0 || count > actualSize) {
        LogLine(FileLog::Error,
                "PacketBuffer::MoveTo: pToBuff == NULL || size <= 0 || size > this->actualBufferSize");
        return false;
    }
    return destination->Append(data, count) && Flush(count);
}

PacketBuffer* PacketBuffer::Clone() {
    Reference<PacketBuffer> copy = Reference<PacketBuffer>::Adopt(Media::MediaGlobal::LockBuffer(size));
    if (!copy || !copy->Append(data, actualSize)) {
        return nullptr;
    }
    copy->position = position;
    copy->bitPosition = bitPosition;
    copy->CopyAttributes(this);
    return copy.Detach();
}

void PacketBuffer::CopyAttributes(PacketBuffer* source) {
    if (source == nullptr || source == this) {
        return;
    }
    MediaType* const type = source->newMediaType == nullptr ? nullptr : new MediaType(*source->newMediaType);
    delete std::exchange(newMediaType, type);
    pts = source->pts;
    dts = source->dts;
    duration = source->duration;
    streamIndex = source->streamIndex;
    keyFrame = source->keyFrame;
    cleanPoint = source->cleanPoint;
    discontinuity = source->discontinuity;
    extraData = source->extraData;
    programIndex = source->programIndex;
    oneMessage = source->oneMessage;
    filePosition = source->filePosition;
    sourceId = source->sourceId;
    pois = source->pois;
    remoteAddr = source->remoteAddr;
    localAddr = source->localAddr;
    remoteAddrLen = source->remoteAddrLen;
}

void PacketBuffer::ReadFrom(std::istream&) {}

void PacketBuffer::WriteTo(std::ostream&) {}

void PacketBuffer::SetupRead() {
    wsaBuffer = {static_cast<std::uint32_t>(size - actualSize), data + actualSize};
}

void PacketBuffer::SetupWrite() {
    wsaBuffer = {static_cast<std::uint32_t>(actualSize - position), data + position};
}

void PacketBuffer::SetupZeroByteRead() {
    wsaBuffer = {0, data};
}

}  // namespace Mivra::Common
