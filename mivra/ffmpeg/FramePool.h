#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/buffers/PacketBufferAllocator.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/ffmpeg/PictureLayout.h"

namespace Mivra::FFmpeg {

/// A packet buffer whose memory FFmpeg may decode into: aligned for vector instructions, with room behind its
/// end that these may touch. Made by a FramePool.
class FrameBuffer : public Common::PacketBuffer {
public:
    static constexpr std::size_t kAlignment = 64;
    /// Bytes behind the valid ones, inside Size(), that vector instructions may touch: FFmpeg's encoders too.
    static constexpr int kSlack = 128;

    ~FrameBuffer() override;

    std::uint8_t* Bytes() { return reinterpret_cast<std::uint8_t*>(Buffer()); }
    /// How FFmpeg was told to put its picture, by FramePool::Lend's caller.
    PictureLayout& Layout() { return layout; }
    const PictureLayout& Layout() const { return layout; }
    /// Whether a caller has been given the buffer since it left the pool: its attributes are that frame's
    /// then.
    bool& IsDelivered() { return delivered; }

private:
    friend class FramePool;

    FrameBuffer(char* aligned, int size, void* memory);

    void* const memory;
    PictureLayout layout;
    bool delivered = false;
};

/// The pool of one engine. It makes buffers as they are needed, up to a size of its own without a word and
/// beyond it with one log line, and keeps what comes back; in the steady state it allocates nothing. Counted:
/// the engine and every buffer that is out hold a reference, so that frames may outlive the engine. Any
/// thread may lend and release.
class FramePool : public Common::PacketBufferAllocator {
public:
    using Pointer = Common::Reference<FramePool>;

    /// std::bad_alloc when there is no memory.
    static Pointer Make();

    int AddRef();
    int Release();

    /// How many buffers the engine and its caller are expected to hold at once.
    void Expect(int count);

    /// A buffer of at least so many bytes with one reference; null when there is no memory. A size beyond all
    /// earlier ones retires the buffers made so far: those that are out go when they come back.
    FrameBuffer* Lend(int size) noexcept;

    /// The lent buffer that begins at this address, or null. Takes no reference.
    FrameBuffer* Find(const std::uint8_t* bytes);

    Common::PacketBuffer* LockBuffer(bool logExhaustion) override;
    /// Only sets the size, and makes nothing ahead of need.
    void Reallocate(int size, int count) override;
    int BufferSize() override;
    int BufferCount() override;

protected:
    bool releaseBuffer(Common::PacketBuffer* buffer) override;

private:
    FramePool() = default;
    ~FramePool() override;

    FrameBuffer* take() MIVRA_REQUIRES(lock);
    FrameBuffer* make() MIVRA_REQUIRES(lock);
    void drop(FrameBuffer* buffer) MIVRA_REQUIRES(lock);
    void resize(int size) MIVRA_REQUIRES(lock);

    std::atomic<int> references{1};
    Common::CritSec lock;
    int bufferSize MIVRA_GUARDED_BY(lock) = 0;
    int expected MIVRA_GUARDED_BY(lock) = 0;
    bool toldGrowth MIVRA_GUARDED_BY(lock) = false;
    std::vector<FrameBuffer*> buffers MIVRA_GUARDED_BY(lock);  // all that live; PoolIndex() is the place
    std::vector<FrameBuffer*> idle MIVRA_GUARDED_BY(lock);     // of the present size; capacity of buffers
};

}  // namespace Mivra::FFmpeg
