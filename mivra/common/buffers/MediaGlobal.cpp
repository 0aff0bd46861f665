#include "mivra/common/buffers/MediaGlobal.h"

#include <algorithm>
#include <cstdint>
#include <exception>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/runtime/GlobalLog.h"

namespace Mivra::Media {

using Common::AutoLock;
using Common::DefaultPacketBufferAllocator;
using Common::FileLog;
using Common::LogLine;
using Common::PacketBuffer;
using Common::PacketBufferAllocator;

namespace {

constexpr int kSmallSize = 5120;
constexpr int kNormalSize = 51200;
constexpr int kBigSize = 1048576;
constexpr int kSmallCount = 1000;
constexpr int kNormalCount = 100;
constexpr int kBigCount = 20;
constexpr int kLazyBigCount = 10;
constexpr int kExtraBigCount = 3;
constexpr float kGrowthLimit = 10.0F;
constexpr float kExtraBigGrowthLimit = 3.0F;

/// A pool, or null after a line that says why not.
PacketBufferAllocator* makePool(const char* operation, const AllocatorProperties& properties) {
    try {
        return new DefaultPacketBufferAllocator(properties.BufferSize, properties.BufferCount,
                                                properties.AllowGrowth, properties.GrowthLimit);
    } catch (const std::exception& failure) {
        LogLine(FileLog::Error, "MediaGlobal::%s: no pool of %d buffers of %d bytes: %s", operation,
                properties.BufferCount, properties.BufferSize, failure.what());
        return nullptr;
    }
}

int scaled(float scale, int count) {
    const double result = static_cast<double>(scale * static_cast<float>(count));
    return result >= INT32_MAX ? INT32_MAX : static_cast<int>(result);
}

int twice(int size) {
    return static_cast<int>(std::min<std::int64_t>(std::int64_t{2} * size, INT32_MAX));
}

}  // namespace

constinit std::atomic<bool> MediaGlobal::s_bIsInitialized{false};
constinit MediaGlobal::Pool MediaGlobal::s_pSmallAllocator{nullptr};
constinit MediaGlobal::Pool MediaGlobal::s_pAllocator{nullptr};
constinit MediaGlobal::Pool MediaGlobal::s_pBigAllocator{nullptr};
constinit MediaGlobal::Pool MediaGlobal::s_pExtraBigAllocator{nullptr};
constinit Common::CritSec MediaGlobal::s_CS;

void MediaGlobal::Initialize(const AllocatorProperties& small, const AllocatorProperties& normal,
                             const AllocatorProperties& big) {
    AutoLock guard(s_CS);
    if (!s_bIsInitialized) {
        create(small, normal, big);
    }
}

void MediaGlobal::Initialize(int smallSize, int smallCount, int normalSize, int normalCount, int bigSize,
                             int bigCount) {
    Initialize(AllocatorProperties{smallSize, smallCount, true, kGrowthLimit},
               AllocatorProperties{normalSize, normalCount, true, kGrowthLimit},
               AllocatorProperties{bigSize, bigCount, true, kGrowthLimit});
}

void MediaGlobal::Initialize(float scale) {
    AutoLock guard(s_CS);
    if (s_bIsInitialized) {
        return;
    }
    if (!(scale >= 0.1F)) {
        scale = 1.0F;
    }
    Initialize(kSmallSize, scaled(scale, kSmallCount), kNormalSize, scaled(scale, kNormalCount), kBigSize,
               scaled(scale, kBigCount));
}

/// Without memory for all three none is left.
void MediaGlobal::create(const AllocatorProperties& small, const AllocatorProperties& normal,
                         const AllocatorProperties& big) {
    struct Standard {
        Pool& pool;
        const AllocatorProperties& properties;
        const char* name;
    };
    const Standard standards[] = {{s_pSmallAllocator, small, "small"},
                                  {s_pAllocator, normal, "normal"},
                                  {s_pBigAllocator, big, "media"}};
    for (const Standard& standard : standards) {
        delete standard.pool.exchange(nullptr);
    }
    for (const Standard& standard : standards) {
        PacketBufferAllocator* const pool = makePool("Initialize", standard.properties);
        if (pool == nullptr) {
            for (const Standard& made : standards) {
                delete made.pool.exchange(nullptr);
            }
            return;
        }
        standard.pool = pool;
        LogLine(FileLog::Debug, "Created %s allocator, buffer size %d, buffer count %d", standard.name,
                pool->BufferSize(), pool->BufferCount());
    }
    s_bIsInitialized = true;
}

void MediaGlobal::InitializeExtra(const AllocatorProperties& properties) {
    AutoLock guard(s_CS);
    if (s_pExtraBigAllocator != nullptr) {
        return;
    }
    PacketBufferAllocator* const pool = makePool("InitializeExtra", properties);
    if (pool == nullptr) {
        return;
    }
    s_pExtraBigAllocator = pool;
    // The line deliberately names the big pool's figures: that is how the message is defined.
    PacketBufferAllocator* const big = s_pBigAllocator;
    LogLine(FileLog::Debug, "Created extra big allocator, buffer size %d, buffer count %d",
            big == nullptr ? 0 : big->BufferSize(), big == nullptr ? 0 : big->BufferCount());
}

void MediaGlobal::InitializeExtra(int size, int count) {
    InitializeExtra(AllocatorProperties{size, count, true, kExtraBigGrowthLimit});
}

void MediaGlobal::Uninitialize() {
    AutoLock guard(s_CS);
    for (Pool* pool : {&s_pSmallAllocator, &s_pAllocator, &s_pBigAllocator, &s_pExtraBigAllocator}) {
        delete pool->exchange(nullptr);
    }
    s_bIsInitialized = false;
}

bool MediaGlobal::IsInitialized() {
    return s_bIsInitialized;
}

PacketBufferAllocator* MediaGlobal::lazyPool(Pool& pool, int size, int count) {
    if (PacketBufferAllocator* const existing = pool.load(std::memory_order_acquire)) {
        return existing;
    }
    AutoLock guard(s_CS);
    if (pool == nullptr) {
        pool = makePool("GetAllocator", {size, count, true, kGrowthLimit});
    }
    return pool;
}

PacketBufferAllocator* MediaGlobal::GetSmallAllocator() {
    return lazyPool(s_pSmallAllocator, kSmallSize, kSmallCount);
}

PacketBufferAllocator* MediaGlobal::GetAllocator() {
    return lazyPool(s_pAllocator, kNormalSize, kNormalCount);
}

PacketBufferAllocator* MediaGlobal::GetBigAllocator() {
    return lazyPool(s_pBigAllocator, kBigSize, kLazyBigCount);
}

void MediaGlobal::SetSmallAllocator(PacketBufferAllocator* allocator) {
    s_pSmallAllocator = allocator;
}

void MediaGlobal::SetAllocator(PacketBufferAllocator* allocator) {
    s_pAllocator = allocator;
}

void MediaGlobal::SetBigAllocator(PacketBufferAllocator* allocator) {
    s_pBigAllocator = allocator;
}

PacketBuffer* MediaGlobal::LockBuffer(int size) {
    if (size < 0) {
        LogLine(FileLog::Error, "MediaGlobal::LockBuffer: size %d is below 0", size);
        return nullptr;
    }
    if (!s_bIsInitialized.load(std::memory_order_acquire)) {
        Initialize(1.0F);
        if (!s_bIsInitialized) return nullptr;
    }
    PacketBufferAllocator* const big = GetBigAllocator();
    PacketBufferAllocator* const normal = GetAllocator();
    PacketBufferAllocator* const small = GetSmallAllocator();
    if (big == nullptr || normal == nullptr || small == nullptr) {
        return nullptr;
    }
    if (size > big->BufferSize()) {
        return lockExtraBig(size);
    }
    PacketBufferAllocator* const pool = size > normal->BufferSize()  ? big
                                        : size > small->BufferSize() ? normal
                                                                     : small;
    return pool->LockBuffer(true);
}

/// A buffer for a stream that lacks so many bytes: a big one while a normal one would not do. Under s_CS,
/// since a pool that came with a getter may be replaced meanwhile.
PacketBuffer* MediaGlobal::lockForGrowth(std::int64_t shortfall) {
    AutoLock guard(s_CS);
    PacketBufferAllocator* const normal = GetAllocator();
    if (normal != nullptr && shortfall > normal->BufferSize()) {
        PacketBufferAllocator* const big = GetBigAllocator();
        return big == nullptr ? nullptr : big->LockBuffer(true);
    }
    return LockBuffer(static_cast<int>(std::min<std::int64_t>(shortfall, INT32_MAX)));
}

PacketBuffer* MediaGlobal::lockExtraBig(int size) {
    AutoLock guard(s_CS);
    PacketBufferAllocator* pool = s_pExtraBigAllocator;
    if (pool == nullptr) {
        pool = makePool("LockBuffer", {twice(size), kExtraBigCount, true, kExtraBigGrowthLimit});
        s_pExtraBigAllocator = pool;
    } else if (pool->BufferSize() < size) {
        pool->Reallocate(twice(size), pool->BufferCount());
    }
    if (pool == nullptr || pool->BufferSize() < size) {
        return nullptr;
    }
    return pool->LockBuffer(true);
}

}  // namespace Mivra::Media
