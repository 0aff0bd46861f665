#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mivra/common/buffers/IStream.h"
#include "mivra/common/buffers/StreamWindow.h"
#include "mivra/common/buffers/VersatileBuffer.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

class PacketBuffer;

/// One stream over slices of several buffers, without copying them: a message in pieces can be parsed, and a
/// message can grow while it is written, by buffers of MediaGlobal. The stream holds one reference on each
/// buffer of its chain. Any thread may call it; every operation takes the stream's lock (two streams that
/// work on each other are locked in one order). The bytes themselves are not locked. Arguments outside the
/// stream are a GeneralException "VersatileBufferStream::X: Argument out of range".
class MIVRA_API VersatileBufferStream : public IStream {
public:
    VersatileBufferStream();
    /// Over the valid bytes of a buffer.
    explicit VersatileBufferStream(VersatileBuffer* buffer);
    /// Over count bytes of its storage.
    VersatileBufferStream(VersatileBuffer* buffer, int offset, int count);
    ~VersatileBufferStream() override;

    bool CanRead() const override;
    bool CanSeek() const override;
    bool CanWrite() const override;
    std::int64_t GetLength() override;
    /// Gives back the buffers behind a shorter length. A longer one needs auto growth; the new bytes are
    /// zero.
    void SetLength(std::int64_t length) override;
    std::int64_t GetPosition() override;
    void SetPosition(std::int64_t newPosition) override;
    int GetBitPosition() override;
    void SetBitPosition(int newBitPosition) override;
    /// Does nothing.
    void Flush() override;
    std::int64_t Seek(std::int64_t offset, Origin origin) override;
    std::int64_t SeekBits(std::int64_t offset, Origin origin) override;
    int Read(unsigned char* dst, int offset, int count) override;
    int ReadByte() override;
    int PeekByte() override;
    /// With auto growth, takes buffers from the global pools where the stream ends too early, and adds all of
    /// their capacity to its length; what is not written then is zero. Throws when the pools have none.
    void Write(const unsigned char* src, int offset, int count) override;
    void WriteByte(unsigned char value) override;

    /// Adds count bytes of a buffer's storage at the end and takes a reference; the caller keeps its own.
    void Append(VersatileBuffer* buffer, int offset, int count);
    /// Drops what lies before the position.
    void TrimBegin();
    /// Drops count bytes at the front; the position stays on its byte, or at the new front.
    void TrimBegin(std::int64_t count);

    /// Writes count bytes from the position on to another stream, at its position; both move behind them.
    /// With count 0 the other stream is not touched.
    void CopyTo(IStream* destination, int count);
    /// The same from an offset; this stream's position moves behind what was copied only with movePosition.
    void CopyTo(IStream* destination, std::int64_t offset, int count, bool movePosition);
    /// The same, position unmoved, for callers that hold this stream's lock through GetLock(). It takes the
    /// destination's lock as well: two threads that hold one stream each and copy into the other's would wait
    /// for ever, so who copies both ways calls CopyTo or first locks both, the lower address first.
    void UnlockedCopyTo(IStream* destination, std::int64_t offset, int count) MIVRA_REQUIRES(lock);
    /// Adds the whole chain to the end of another stream: the bytes are then shared, not copied.
    void CopyAllTo(VersatileBufferStream* destination);
    /// The same, and leaves this stream empty.
    void MoveTo(VersatileBufferStream* destination);
    /// Reads at most count bytes from an offset to dst + dstOffset and returns how many; no cursor moves.
    int ReadFrom(std::int64_t offset, unsigned char* dst, int dstOffset, int count);
    /// The buffer of the first byte, or null; the caller gets no reference.
    VersatileBuffer* GetFirstBuffer();

    /// Bookkeeping for data that comes from a file.
    std::int64_t GetFilePosition();
    void SetFilePosition(std::int64_t newFilePosition);
    bool IsOneMessage();
    void SetOneMessage(bool isOneMessage);
    /// Off at first.
    bool IsAutoGrowth();
    void SetAutoGrowth(bool isAutoGrowth);

    CritSec& GetLock() MIVRA_THREAD_ATTRIBUTE(lock_returned(lock)) { return lock; }

private:
    friend StreamWindow* FindStreamWindow(IStream* stream) noexcept;

    /// A run of bytes of one buffer, on which the stream holds a reference.
    struct Slice {
        std::int64_t start;  // in the stream
        VersatileBuffer* buffer;
        int offset;  // in the buffer's storage
        int count;
    };
    using Chain = std::vector<Slice>;

    class BothLocks;

    void append(VersatileBuffer* buffer, int offset, int count) MIVRA_REQUIRES(lock);
    void appendChain(const Chain& slices) MIVRA_REQUIRES(lock);
    void updateWindow() MIVRA_REQUIRES(lock);
    void moveTo(std::int64_t newPosition) MIVRA_REQUIRES(lock);
    void cut(std::int64_t length) MIVRA_REQUIRES(lock);
    void trim(std::int64_t count) MIVRA_REQUIRES(lock);
    void reserve(const char* operation, std::int64_t count) MIVRA_REQUIRES(lock);
    void grow(const char* operation, std::int64_t shortfall, std::int64_t written) MIVRA_REQUIRES(lock);
    void appendNew(const char* operation, PacketBuffer* taken) MIVRA_REQUIRES(lock);
    std::size_t sliceAt(std::int64_t offset) const MIVRA_REQUIRES(lock);
    int byteAtPosition() const MIVRA_REQUIRES(lock);
    /// Calls visit(address, bytes) for each piece of a range inside the stream.
    template <typename Visit>
    void visitRange(std::int64_t offset, std::int64_t count, Visit visit) const MIVRA_REQUIRES(lock);
    void copyRange(IStream* destination, std::int64_t offset, int count) MIVRA_REQUIRES(lock);

    CritSec lock;
    StreamWindow window;  // position, bit position and total size
    Chain chain MIVRA_GUARDED_BY(lock);
    std::int64_t filePosition MIVRA_GUARDED_BY(lock) = 0;
    bool oneMessage MIVRA_GUARDED_BY(lock) = false;
    bool autoGrowth MIVRA_GUARDED_BY(lock) = false;
};

}  // namespace Mivra::Common
