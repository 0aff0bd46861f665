#pragma once

#include <atomic>
#include <cstdint>

#include "mivra/common/buffers/AllocatorProperties.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/buffers/PacketBufferAllocator.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {
class VersatileBufferStream;
}

namespace Mivra::Media {

/// The pools that the whole process shares: small, normal and big buffers, and extra big ones on demand. The
/// library owns them; they come with the first use and go with Uninitialize. Any thread may lock buffers and
/// get pools, but not while another one uninitializes, nor use a pool that came with a getter while the first
/// Initialize or LockBuffer replaces it: who has several threads calls Initialize before they start. Buffers
/// that are out when their pool goes stay valid.
/// A pool that finds no memory is not there: a level-1 line, and null where a buffer or a pool is returned.
class MIVRA_API MediaGlobal {
public:
    MediaGlobal() = delete;

    /// Make the three standard pools in place of those that came with a getter. Nothing happens while they
    /// are initialized. The count form allows growth to ten times the counts.
    static void Initialize(const AllocatorProperties& small, const AllocatorProperties& normal,
                           const AllocatorProperties& big);
    static void Initialize(int smallSize, int smallCount, int normalSize, int normalCount, int bigSize,
                           int bigCount);
    /// 1000, 100 and 20 buffers times the scale, of 5120, 51200 and 1048576 bytes. A scale below 0.1 is
    /// deliberately taken as 1, not as 0.1.
    static void Initialize(float scale);
    /// Makes the extra big pool, when there is none yet. The count form allows growth to three times the
    /// count.
    static void InitializeExtra(const AllocatorProperties& properties);
    static void InitializeExtra(int size, int count);
    static void Uninitialize();
    static bool IsInitialized();

    /// The pool; made on the first use. The big one then has 10 buffers where Initialize(1) gives it 20:
    /// meant to differ.
    static Common::PacketBufferAllocator* GetSmallAllocator();
    static Common::PacketBufferAllocator* GetAllocator();
    static Common::PacketBufferAllocator* GetBigAllocator();
    /// Put another pool in place, which the library owns from now on; the caller gets back the care for the
    /// old one.
    static void SetSmallAllocator(Common::PacketBufferAllocator* allocator);
    static void SetAllocator(Common::PacketBufferAllocator* allocator);
    static void SetBigAllocator(Common::PacketBufferAllocator* allocator);

    /// A buffer of at least size bytes from the smallest pool that holds such; its one reference is the
    /// caller's. Null when that pool has none and may not grow, and for a negative size.
    static Common::PacketBuffer* LockBuffer(int size);

private:
    friend class Common::VersatileBufferStream;

    using Pool = std::atomic<Common::PacketBufferAllocator*>;

    static void create(const AllocatorProperties& small, const AllocatorProperties& normal,
                       const AllocatorProperties& big) MIVRA_REQUIRES(s_CS);
    static Common::PacketBufferAllocator* lazyPool(Pool& pool, int size, int count);
    static Common::PacketBuffer* lockExtraBig(int size) MIVRA_EXCLUDES(s_CS);
    static Common::PacketBuffer* lockForGrowth(std::int64_t shortfall) MIVRA_EXCLUDES(s_CS);

    static std::atomic<bool> s_bIsInitialized;
    static Pool s_pSmallAllocator;
    static Pool s_pAllocator;
    static Pool s_pBigAllocator;
    static Pool s_pExtraBigAllocator;
    static Common::CritSec s_CS;
};

}  // namespace Mivra::Media
