#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <new>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/buffers/PoolControl.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/platform/System.h"

namespace Mivra::Common {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t kSecondsBetweenReports = 60;
constexpr unsigned char kFree = 1;
constexpr unsigned char kLent = 0;

}  // namespace

DefaultPacketBufferAllocator::DefaultPacketBufferAllocator(int bufferSize_, int bufferCount_,
                                                           bool allowGrowth_, float growthLimit_)
    : control(new PoolControl(this)),
      lock(control->lock),
      bufferSize(bufferSize_),
      bufferCount(bufferCount_),
      initialBufferCount(bufferCount_),
      allowGrowth(allowGrowth_),
      growthLimit(growthLimit_),
      nextReport(std::numeric_limits<std::int64_t>::min()) {
    try {
        if (bufferSize_ < 0 || bufferCount_ < 0) {
            throw GeneralException("DefaultPacketBufferAllocator: %d buffers of %d bytes are not possible",
                                   bufferCount_, bufferSize_);
        }
        const auto count = static_cast<std::size_t>(bufferCount_);
        freeFlags.assign(count, kFree);
        buffers.reserve(count);
        makeBuffers(buffers, bufferCount_, bufferSize_, generation);
        freeBufferCount = bufferCount_;
    } catch (...) {
        control->DropHolder();
        throw;
    }
}

DefaultPacketBufferAllocator::~DefaultPacketBufferAllocator() {
    retire();
    control->DropHolder();
}

// lock is the control's own, which the analysis cannot know.
void DefaultPacketBufferAllocator::retire() MIVRA_NO_THREAD_SAFETY_ANALYSIS {
    AutoLock guard(lock);
    if (control->pool == nullptr) {
        return;
    }
    const int locked = bufferCount - freeBufferCount;
    if (locked > 0) {
        LogLine(FileLog::Error,
                "DefaultPacketBufferAllocator::~DefaultPacketBufferAllocator[%p/%d/%d]: %d MediaBuffers are "
                "still locked, deleting them anyway...",
                static_cast<void*>(this), bufferSize.load(), bufferCount.load(), locked);
    }
    control->pool = nullptr;
    for (std::size_t slot = 0; slot < buffers.size(); ++slot) {
        if (freeFlags[slot] == kFree) {
            delete buffers[slot];
        }
    }
    buffers.clear();
    freeFlags.clear();
    oldGenerationBuffers.clear();
    freeBufferCount = 0;
}

/// Adds count buffers to a table; adds none when there is no memory for all.
void DefaultPacketBufferAllocator::makeBuffers(Buffers& made, int count, int ofSize, int ofGeneration) {
    const std::size_t before = made.size();
    try {
        made.reserve(before + static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i) {
            auto* const buffer = new PacketBuffer(this, ofSize);
            buffer->control = control;
            control->AddHolder();
            buffer->generation = ofGeneration;
            buffer->poolIndex = static_cast<int>(made.size());
            made.push_back(buffer);
        }
    } catch (...) {
        deleteBuffers(made, before);
        throw;
    }
}

void DefaultPacketBufferAllocator::deleteBuffers(Buffers& made, std::size_t from) {
    for (std::size_t slot = from; slot < made.size(); ++slot) {
        delete made[slot];
    }
    made.resize(from);
}

/// Statistics of one locking or release.
inline void DefaultPacketBufferAllocator::account() {
    const int usage = bufferCount.load(std::memory_order_relaxed) - freeBufferCount;
    peakUsage = std::max(peakUsage, usage);
    usageSum += usage;
    ++usageSamples;
    const std::int64_t now = Platform::System().coarseTime();
    if (now >= nextReport) [[unlikely]] {
        report(now, usage);
    }
}

void DefaultPacketBufferAllocator::report(std::int64_t now, int usage) {
    LogLine(FileLog::Debug,
            "DefaultPacketBufferAllocator::LockBuffer[%p/%d/%d]: peak usage %d, average usage %d, current "
            "usage %d",
            static_cast<void*>(this), bufferSize.load(), bufferCount.load(), peakUsage,
            static_cast<int>(usageSum / usageSamples), usage);
    nextReport = (now / kNanosecondsPerSecond + kSecondsBetweenReports) * kNanosecondsPerSecond;
}

/// The lowest free slot; the number of slots when there is none.
inline std::size_t DefaultPacketBufferAllocator::findFree() const {
    const auto from = static_cast<std::size_t>(searchCursor);
    const unsigned char* const flags = freeFlags.data();
    if (from < freeFlags.size() && flags[from] == kFree) {
        return from;
    }
    const void* const flag = std::memchr(flags + from, kFree, freeFlags.size() - from);
    return flag == nullptr ? freeFlags.size()
                           : static_cast<std::size_t>(static_cast<const unsigned char*>(flag) - flags);
}

PacketBuffer* DefaultPacketBufferAllocator::LockBuffer(bool logExhaustion) {
    AutoLock guard(lock);
    if (freeBufferCount == 0 && !grow(logExhaustion)) {
        return nullptr;
    }
    const std::size_t slot = findFree();
    if (slot == freeFlags.size()) [[unlikely]] {
        return nullptr;
    }
    freeFlags[slot] = kLent;
    searchCursor = static_cast<int>(slot) + 1;
    if (--freeBufferCount < 0) [[unlikely]] {
        LogLine(FileLog::Error, "DefaultPacketBufferAllocator::LockBuffer[%p/%d/%d]: m_nFreeBufferCount < 0!",
                static_cast<void*>(this), bufferSize.load(), bufferCount.load());
    }
    account();
    PacketBuffer* const buffer = buffers[slot];
    buffer->takeFirstReference();
    return buffer;
}

std::int64_t DefaultPacketBufferAllocator::growthCeiling() const {
    const float ceiling = static_cast<float>(initialBufferCount) * growthLimit;
    constexpr float kBeyondCounts = 2147483648.0F;
    if (!(ceiling > 0.0F)) return 0;
    return static_cast<std::int64_t>(std::min(ceiling, kBeyondCounts));
}

bool DefaultPacketBufferAllocator::grow(bool logExhaustion) {
    if (!allowGrowth) {
        return false;
    }
    autoGrown = true;
    const int count = bufferCount;
    const int increment = std::max(count / 10, 1);
    if (count >= growthCeiling()) {
        if (logExhaustion) {
            LogLine(FileLog::Error,
                    "DefaultPacketBufferAllocator::LockBuffer[%p/%d/%d]: no more empty buffers but "
                    "auto-growth prevented: original %d buffers, current %d buffers",
                    static_cast<void*>(this), bufferSize.load(), count, initialBufferCount, count);
        }
        return false;
    }
    LogLine(FileLog::Warning,
            "DefaultPacketBufferAllocator::LockBuffer[%p/%d/%d]: no more empty buffers, allocate additional "
            "%d buffers",
            static_cast<void*>(this), bufferSize.load(), count, increment);
    return addBuffers(increment);
}

bool DefaultPacketBufferAllocator::addBuffers(int increment) {
    const auto count = static_cast<std::size_t>(bufferCount) + static_cast<std::size_t>(increment);
    try {
        freeFlags.reserve(count);
        makeBuffers(buffers, increment, bufferSize, generation);
    } catch (const std::exception&) {
        LogLine(FileLog::Error, "DefaultPacketBufferAllocator::LockBuffer[%p/%d/%d]: out of memory",
                static_cast<void*>(this), bufferSize.load(), bufferCount.load());
        return false;
    }
    freeFlags.resize(count, kFree);
    bufferCount = static_cast<int>(count);
    freeBufferCount = increment;
    return true;
}

bool DefaultPacketBufferAllocator::releaseBuffer(PacketBuffer* buffer) {
    AutoLock guard(lock);
    if (buffer->generation < generation) {
        if (oldGenerationBuffers.erase(buffer) == 0) {
            LogLine(FileLog::Error,
                    "DefaultPacketBufferAllocator::ReleaseBuffer[%p/%d/%d]: PacketBuffer 0x%p not found in "
                    "m_OldGenerationBuffers!",
                    static_cast<void*>(this), bufferSize.load(), bufferCount.load(),
                    static_cast<void*>(buffer));
        }
        return true;
    }
    buffer->CleanUp();
    const int slot = buffer->poolIndex;
    freeFlags[static_cast<std::size_t>(slot)] = kFree;
    if (++freeBufferCount > bufferCount.load(std::memory_order_relaxed)) [[unlikely]] {
        LogLine(FileLog::Error,
                "DefaultPacketBufferAllocator::ReleaseBuffer[%p/%d/%d]: m_nFreeBufferCount >= "
                "m_nBufferCount!",
                static_cast<void*>(this), bufferSize.load(), bufferCount.load());
    }
    searchCursor = std::min(searchCursor, slot);
    account();
    return false;
}

void DefaultPacketBufferAllocator::Reallocate(int newSize, int newCount) {
    AutoLock guard(lock);
    LogLine(FileLog::Warning,
            "DefaultPacketBufferAllocator::Reallocate[%p/%d/%d]: re-allocating %d buffers of %d bytes",
            static_cast<void*>(this), bufferSize.load(), bufferCount.load(), newCount, newSize);
    const bool possible = newSize >= 0 && newCount >= 0;
    try {
        if (possible) {
            renew(newSize, newCount);
            return;
        }
    } catch (const std::exception&) {
    }
    LogLine(FileLog::Error, "DefaultPacketBufferAllocator::Reallocate[%p/%d/%d]: %s",
            static_cast<void*>(this), bufferSize.load(), bufferCount.load(),
            possible ? "out of memory" : "a size or count below 0");
}

/// The new generation is complete before the old one is touched, so that a failure leaves the pool as it was.
void DefaultPacketBufferAllocator::renew(int newSize, int newCount) {
    std::set<PacketBuffer*> lent;
    for (std::size_t slot = 0; slot < buffers.size(); ++slot) {
        if (freeFlags[slot] == kLent) {
            lent.insert(buffers[slot]);
        }
    }
    std::vector<unsigned char> newFlags(static_cast<std::size_t>(newCount), kFree);
    Buffers newBuffers;
    makeBuffers(newBuffers, newCount, newSize, generation + 1);

    for (std::size_t slot = 0; slot < buffers.size(); ++slot) {
        if (freeFlags[slot] == kFree) {
            delete buffers[slot];
        }
    }
    oldGenerationBuffers.merge(lent);
    buffers.swap(newBuffers);
    freeFlags.swap(newFlags);
    ++generation;
    bufferSize = newSize;
    bufferCount = newCount;
    freeBufferCount = newCount;
    searchCursor = 0;
}

int DefaultPacketBufferAllocator::BufferSize() {
    return bufferSize.load(std::memory_order_relaxed);
}

int DefaultPacketBufferAllocator::BufferCount() {
    return bufferCount.load(std::memory_order_relaxed);
}

int DefaultPacketBufferAllocator::FreeBufferCount() {
    AutoLock guard(lock);
    return freeBufferCount;
}

bool DefaultPacketBufferAllocator::IsAutoGrown() {
    AutoLock guard(lock);
    return autoGrown;
}

int DefaultPacketBufferAllocator::GetAverageUsage() {
    AutoLock guard(lock);
    return usageSamples == 0 ? 0 : static_cast<int>(usageSum / usageSamples);
}

}  // namespace Mivra::Common
