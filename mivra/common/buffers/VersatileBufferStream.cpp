#include "mivra/common/buffers/VersatileBufferStream.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <typeinfo>
#include <utility>

#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/buffers/SeekTarget.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/Reference.h"

namespace Mivra::Common {
namespace {

[[noreturn]] void failRange(const char* operation) {
    throw GeneralException("VersatileBufferStream::%s: Argument out of range", operation);
}

[[noreturn]] void failRange(const char* operation, int number) {
    throw GeneralException("VersatileBufferStream::%s: Argument out of range #%d", operation, number);
}

void checkMemory(const char* operation, const void* memory, int offset, int count) {
    if (offset < 0 || count < 0 || (count > 0 && memory == nullptr)) {
        failRange(operation);
    }
}

}  // namespace

StreamWindow* StreamWindow::Of(IStream* stream) noexcept {
    if (stream == nullptr || typeid(*stream) != typeid(VersatileBufferStream)) {
        return nullptr;
    }
    return &static_cast<VersatileBufferStream*>(stream)->window;
}

/// Locks a stream and what it copies to, which may be the same or no stream of this kind. Two streams are
/// locked in the order of their addresses, so that two threads that copy opposite ways never wait for each
/// other.
class MIVRA_SCOPED_CAPABILITY VersatileBufferStream::BothLocks {
public:
    // The analysis cannot follow a pair whose order is settled at run time; it is told of the source's lock.
    BothLocks(VersatileBufferStream& source, IStream* destination)
        MIVRA_ACQUIRE(source.lock) MIVRA_NO_THREAD_SAFETY_ANALYSIS;
    ~BothLocks() MIVRA_RELEASE() MIVRA_NO_THREAD_SAFETY_ANALYSIS;
    BothLocks(const BothLocks&) = delete;
    BothLocks& operator=(const BothLocks&) = delete;

private:
    VersatileBufferStream* first;
    VersatileBufferStream* second;
};

VersatileBufferStream::BothLocks::BothLocks(VersatileBufferStream& source, IStream* destination)
    : first(&source), second(dynamic_cast<VersatileBufferStream*>(destination)) {
    if (second != nullptr && std::less<>()(second, first)) {
        std::swap(first, second);
    }
    first->lock.Lock();
    if (second != nullptr) {
        second->lock.Lock();
    }
}

VersatileBufferStream::BothLocks::~BothLocks() {
    if (second != nullptr) {
        second->lock.Unlock();
    }
    first->lock.Unlock();
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

// The chain.

void VersatileBufferStream::Append(VersatileBuffer* buffer, int offset, int count) {
    AutoLock guard(lock);
    if (buffer == nullptr || offset < 0 || count < 0 || offset > buffer->Size() ||
        count > buffer->Size() - offset) {
        failRange("Append");
    }
    append(buffer, offset, count);
}

void VersatileBufferStream::append(VersatileBuffer* buffer, int offset, int count) {
    chain.push_back({window.length, buffer, offset, count});
    buffer->AddRef();
    window.length += count;
    updateWindow();
}

/// Takes the slices, not references on their buffers.
void VersatileBufferStream::appendChain(const Chain& slices) {
    chain.reserve(chain.size() + slices.size());
    for (const Slice& slice : slices) {
        chain.push_back(slice);
        chain.back().start = window.length;
        window.length += slice.count;
    }
    updateWindow();
}

/// Only a packet buffer is known never to move its storage.
void VersatileBufferStream::updateWindow() {
    window.data = nullptr;
    if (chain.size() == 1) {
        if (auto* const packet = dynamic_cast<PacketBuffer*>(chain.front().buffer)) {
            window.data = reinterpret_cast<unsigned char*>(packet->Buffer()) + chain.front().offset;
        }
    }
}

/// Gives back what lies behind a length.
void VersatileBufferStream::cut(std::int64_t length) {
    while (!chain.empty() && window.length > length) {
        Slice& last = chain.back();
        window.length = last.start;
        if (last.start < length) {
            last.count = static_cast<int>(length - last.start);
            window.length = length;
        } else {
            last.buffer->Release();
            chain.pop_back();
        }
    }
    if (window.position > window.length) {
        moveTo(window.length);
    }
    updateWindow();
}

/// Gives back what lies before an offset.
void VersatileBufferStream::trim(std::int64_t count) {
    if (count == 0) {
        return;
    }
    const auto kept = std::find_if(chain.begin(), chain.end(),
                                   [count](const Slice& slice) { return slice.start + slice.count > count; });
    for (auto slice = chain.begin(); slice != kept; ++slice) {
        slice->buffer->Release();
    }
    chain.erase(chain.begin(), kept);
    for (Slice& slice : chain) {
        slice.start -= count;
    }
    if (!chain.empty() && chain.front().start < 0) {
        const int dropped = static_cast<int>(-chain.front().start);
        chain.front().offset += dropped;
        chain.front().count -= dropped;
        chain.front().start = 0;
    }
    window.length -= count;
    if (window.position >= count) {
        window.position -= count;
    } else {
        moveTo(0);
    }
    updateWindow();
}

void VersatileBufferStream::TrimBegin() {
    AutoLock guard(lock);
    trim(window.position);
}

void VersatileBufferStream::TrimBegin(std::int64_t count) {
    AutoLock guard(lock);
    if (count < 0 || count > window.length) {
        failRange("TrimBegin");
    }
    trim(count);
}

VersatileBuffer* VersatileBufferStream::GetFirstBuffer() {
    AutoLock guard(lock);
    return chain.empty() ? nullptr : chain.front().buffer;
}

/// The slice that holds an offset inside the stream.
std::size_t VersatileBufferStream::sliceAt(std::int64_t offset) const {
    const auto next = std::upper_bound(chain.begin(), chain.end(), offset,
                                       [](std::int64_t at, const Slice& slice) { return at < slice.start; });
    return static_cast<std::size_t>(next - chain.begin()) - 1;
}

template <typename Visit>
void VersatileBufferStream::visitRange(std::int64_t offset, std::int64_t count, Visit visit) const {
    if (count <= 0) {
        return;
    }
    for (std::size_t index = sliceAt(offset); count > 0; ++index) {
        const Slice& slice = chain[index];
        const std::int64_t inside = offset - slice.start;
        const std::int64_t bytes = std::min(count, slice.count - inside);
        if (bytes > 0) {
            char* const storage = slice.buffer->GetPointer() + slice.offset;
            visit(reinterpret_cast<unsigned char*>(storage + inside), static_cast<std::size_t>(bytes));
            offset += bytes;
            count -= bytes;
        }
    }
}

// Growth.

/// Makes room for count bytes from the position on.
void VersatileBufferStream::reserve(const char* operation, std::int64_t count) {
    const std::int64_t shortfall = count - (window.length - window.position);
    if (shortfall <= 0) {
        return;
    }
    if (!autoGrowth) {
        failRange(operation);
    }
    grow(operation, shortfall, shortfall);
}

/// Adds buffers of the global pools for a shortfall; the first `written` new bytes are the caller's to fill,
/// the rest is zeroed. Without buffers for all nothing is added.
void VersatileBufferStream::grow(const char* operation, std::int64_t shortfall, std::int64_t written) {
    const std::int64_t before = window.length;
    try {
        PacketBufferAllocator* const normal = Media::MediaGlobal::GetAllocator();
        while (normal != nullptr && shortfall > normal->BufferSize()) {
            PacketBufferAllocator* const big = Media::MediaGlobal::GetBigAllocator();
            const int bigSize = big == nullptr ? 0 : big->BufferSize();
            appendNew(operation, bigSize > 0 ? big->LockBuffer(true) : nullptr);
            shortfall -= bigSize;
        }
        if (shortfall > 0) {
            appendNew(operation, Media::MediaGlobal::LockBuffer(
                                     static_cast<int>(std::min<std::int64_t>(shortfall, INT32_MAX))));
        }
    } catch (...) {
        cut(before);
        throw;
    }
    const std::int64_t unwritten = before + written;
    visitRange(unwritten, window.length - unwritten,
               [](unsigned char* data, std::size_t bytes) { std::memset(data, 0, bytes); });
}

/// Appends all capacity of a buffer just taken, and gives the caller's reference back.
void VersatileBufferStream::appendNew(const char* operation, PacketBuffer* taken) {
    const auto held = Reference<PacketBuffer>::Adopt(taken);
    if (!held || held->Size() <= 0) {
        throw GeneralException("VersatileBufferStream::%s: no buffer to grow by", operation);
    }
    append(taken, 0, taken->Size());
}

// Positions.

std::int64_t VersatileBufferStream::GetLength() {
    AutoLock guard(lock);
    return window.length;
}

void VersatileBufferStream::SetLength(std::int64_t length) {
    AutoLock guard(lock);
    if (length < 0) {
        failRange("SetLength", 1);
    }
    if (length > window.length) {
        if (!autoGrowth) {
            failRange("SetLength", 2);
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
        failRange("SetPosition", 1);
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
        failRange("SetBitPosition");
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
        failRange("SeekBits", outside < 0 ? 1 : 2);
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
        failRange("ReadFrom");
    }
    const std::int64_t bytes = std::min<std::int64_t>(count, window.length - offset);
    unsigned char* out = dst + dstOffset;
    visitRange(offset, bytes, [&out](const unsigned char* data, std::size_t size) {
        std::memcpy(out, data, size);
        out += size;
    });
    return static_cast<int>(bytes);
}

// Copies between streams.

void VersatileBufferStream::copyRange(IStream* destination, std::int64_t offset, int count) {
    if (destination == nullptr || offset < 0 || count < 0 || offset > window.length ||
        count > window.length - offset) {
        failRange("CopyTo");
    }
    if (count == 0) {
        return;
    }
    auto* const target = dynamic_cast<VersatileBufferStream*>(destination);
    if (target == this) {
        std::vector<unsigned char> bytes(static_cast<std::size_t>(count));
        ReadFrom(offset, bytes.data(), 0, count);
        Write(bytes.data(), 0, count);
        return;
    }
    if (target != nullptr) {
        AutoLock guard(target->lock);
        target->reserve("Write", count);
    }
    visitRange(offset, count, [destination](const unsigned char* data, std::size_t size) {
        destination->Write(data, 0, static_cast<int>(size));
    });
}

void VersatileBufferStream::CopyTo(IStream* destination, int count) {
    BothLocks guard(*this, destination);
    const std::int64_t offset = window.position;
    copyRange(destination, offset, count);
    moveTo(offset + count);
}

void VersatileBufferStream::CopyTo(IStream* destination, std::int64_t offset, int count, bool movePosition) {
    BothLocks guard(*this, destination);
    copyRange(destination, offset, count);
    if (movePosition) {
        moveTo(offset + count);
    }
}

void VersatileBufferStream::UnlockedCopyTo(IStream* destination, std::int64_t offset, int count) {
    copyRange(destination, offset, count);
}

// The lock of the destination is taken together with this one's, beyond what the analysis can follow.
void VersatileBufferStream::CopyAllTo(VersatileBufferStream* destination) MIVRA_NO_THREAD_SAFETY_ANALYSIS {
    if (destination == nullptr) {
        failRange("CopyAllTo");
    }
    BothLocks guard(*this, destination);
    const Chain slices = chain;
    destination->appendChain(slices);
    for (const Slice& slice : slices) {
        slice.buffer->AddRef();
    }
}

void VersatileBufferStream::MoveTo(VersatileBufferStream* destination) MIVRA_NO_THREAD_SAFETY_ANALYSIS {
    if (destination == nullptr) {
        failRange("MoveTo");
    }
    if (destination == this) {
        return;
    }
    BothLocks guard(*this, destination);
    destination->appendChain(chain);
    chain.clear();
    window.length = 0;
    moveTo(0);
    updateWindow();
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
