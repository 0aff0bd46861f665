#include "mivra/ffmpeg/FramePool.h"

#include <limits>
#include <new>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/platform/System.h"

namespace Mivra::FFmpeg {

using Common::AutoLock;
using Common::FileLog;
using Common::LogLine;
using Common::PacketBuffer;
using Platform::System;

FrameBuffer::FrameBuffer(char* aligned, int size_, void* memory_)
    : PacketBuffer(aligned, size_), memory(memory_) {
    id = nextId();
}

FrameBuffer::~FrameBuffer() {
    System().free(memory);
}

FramePool::Pointer FramePool::Make() {
    return Pointer::Adopt(new FramePool);
}

FramePool::~FramePool() {
    const AutoLock guard(lock);
    for (FrameBuffer* const buffer : idle) {
        delete buffer;
    }
}

int FramePool::AddRef() {
    return references.fetch_add(1, std::memory_order_relaxed) + 1;
}

int FramePool::Release() {
    const int left = references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) {
        delete this;
    }
    return left;
}

void FramePool::Expect(int count) {
    const AutoLock guard(lock);
    expected = count;
}

FrameBuffer* FramePool::Lend(int size) noexcept {
    FrameBuffer* buffer = nullptr;
    if (size < 0 || size > std::numeric_limits<int>::max() - FrameBuffer::kSlack) {
        return nullptr;
    }
    {
        const AutoLock guard(lock);
        if (size + FrameBuffer::kSlack > bufferSize) {
            resize(size + FrameBuffer::kSlack);
        }
        buffer = take();
    }
    if (buffer != nullptr) {
        AddRef();
    }
    return buffer;
}

FrameBuffer* FramePool::take() {
    FrameBuffer* buffer = nullptr;
    if (!idle.empty()) {
        buffer = idle.back();
        idle.pop_back();
        buffer->AddRef();
    } else {
        buffer = make();  // with its first reference
    }
    if (buffer != nullptr) {
        buffer->IsDelivered() = false;
        buffer->Layout() = {};
    }
    return buffer;
}

FrameBuffer* FramePool::make() {
    const std::size_t bytes = static_cast<std::size_t>(bufferSize) + FrameBuffer::kAlignment;
    void* const memory = System().allocateZeroed(bytes);  // what a damaged stream leaves out is no old data
    if (memory == nullptr) {
        return nullptr;
    }
    FrameBuffer* buffer = nullptr;
    try {
        buffers.reserve(buffers.size() + 1);
        idle.reserve(buffers.capacity());  // so that taking back allocates nothing
        const auto address = reinterpret_cast<std::uintptr_t>(memory);
        const std::size_t skip =
            (FrameBuffer::kAlignment - address % FrameBuffer::kAlignment) % FrameBuffer::kAlignment;
        buffer = new FrameBuffer(static_cast<char*>(memory) + skip, bufferSize, memory);
    } catch (const std::bad_alloc&) {
        System().free(memory);
        return nullptr;
    }
    buffer->Allocator() = this;
    buffer->PoolIndex() = static_cast<int>(buffers.size());
    buffers.push_back(buffer);
    if (!toldGrowth && expected > 0 && buffers.size() > static_cast<std::size_t>(expected)) {
        toldGrowth = true;
        LogLine(FileLog::Warning, "FramePool::Lend[%p/%d]: more than the expected %d frames are held",
                static_cast<void*>(this), bufferSize, expected);
    }
    return buffer;
}

/// Takes a buffer out of the table; its caller deletes it.
void FramePool::drop(FrameBuffer* buffer) {
    const auto place = static_cast<std::size_t>(buffer->PoolIndex());
    buffers[place] = buffers.back();
    buffers[place]->PoolIndex() = static_cast<int>(place);
    buffers.pop_back();
}

void FramePool::resize(int size) {
    for (FrameBuffer* const buffer : idle) {
        drop(buffer);
        delete buffer;
    }
    idle.clear();
    bufferSize = size;
}

FrameBuffer* FramePool::Find(const std::uint8_t* bytes) {
    const AutoLock guard(lock);
    for (FrameBuffer* const buffer : buffers) {
        if (buffer->Bytes() == bytes) {
            return buffer;
        }
    }
    return nullptr;
}

PacketBuffer* FramePool::LockBuffer(bool) {
    return Lend(0);
}

void FramePool::Reallocate(int size, int count) {
    const AutoLock guard(lock);
    if (size >= 0 && size <= std::numeric_limits<int>::max() - FrameBuffer::kSlack) {
        resize(size + FrameBuffer::kSlack);
        expected = count;
    }
}

int FramePool::BufferSize() {
    const AutoLock guard(lock);
    return bufferSize;
}

int FramePool::BufferCount() {
    const AutoLock guard(lock);
    return static_cast<int>(buffers.size());
}

bool FramePool::releaseBuffer(PacketBuffer* released) {
    auto* const buffer = static_cast<FrameBuffer*>(released);
    bool outgrown = false;
    {
        const AutoLock guard(lock);
        buffer->CleanUp();
        outgrown = buffer->Size() != bufferSize;
        if (outgrown) {
            drop(buffer);
        } else {
            idle.push_back(buffer);
        }
    }
    if (outgrown) {
        delete buffer;
    }
    Release();  // perhaps the last, with which the pool goes
    return false;
}

}  // namespace Mivra::FFmpeg
