#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "mivra/common/buffers/VersatileBuffer.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

class MediaType;
class PacketBufferAllocator;
struct PoolControl;

/// The buffer in which media samples and network payloads travel: a fixed piece of memory with times, flags
/// and routing. Mostly lent by a pool (MediaGlobal::LockBuffer): the last Release sends it back, whether the
/// pool still exists or not. Any thread may add and release references; one owner writes at a time.
/// What does not fit is refused with a line at level 1; a negative size counts as too big.
class MIVRA_API PacketBuffer : public VersatileBuffer {
public:
    /// What a socket call reads into or writes from.
    struct SocketBuffer {
        std::uint32_t len;
        char* buf;
    };

    /// Wraps memory of the caller's, all of it valid data; the caller keeps it until the last Release and
    /// frees it. One reference, which is the caller's.
    PacketBuffer(char* data, int size);
    ~PacketBuffer() override;

    char* GetPointer() override;
    int AddRef() override;
    int Release() override;
    void CleanUp() override;
    bool Append(const VersatileBuffer* source, int offset, int size) override;
    bool Append(const void* data, int size) override;
    bool Insert(int offset, const void* data, int size, bool moveCursor) override;
    bool Insert(const void* data, int size, bool moveCursor) override;
    bool Flush(int bytesToRemove) override;
    bool CopyTo(int offset, std::shared_ptr<IStream> destination, int size) const override;
    bool CopyTo(int offset, void* destination, int size) const override;
    /// Both do nothing.
    void ReadFrom(std::istream& stream) override;
    void WriteTo(std::ostream& stream) override;
    char& operator[](unsigned index) override;
    const char& operator[](unsigned index) const override;

    /// Moves the first size valid bytes behind the data of another buffer; attributes stay. False, and
    /// nothing changed, when there are not as many here or not enough room there.
    bool MoveTo(PacketBuffer* destination, int size);
    /// A buffer of MediaGlobal with at least the same capacity, the same data, cursors and attributes (as
    /// CopyAttributes); its one reference is the caller's. Null when the pools have none.
    PacketBuffer* Clone();
    /// Copies what describes the sample: times, flags, indices, extra data, POIs, source, file position,
    /// addresses and a new media type of its own. Not the data, sizes and cursors, nor the state of a socket
    /// operation.
    void CopyAttributes(PacketBuffer* source);

    /// WsaBuffer becomes the room behind the valid data / the valid data from Position on / nothing.
    void SetupRead();
    void SetupWrite();
    void SetupZeroByteRead();

    char* Buffer() { return data; }
    /// The owning pool; null for a buffer of its own.
    PacketBufferAllocator*& Allocator() { return allocator; }
    /// Slot in the pool's table.
    int& PoolIndex() { return poolIndex; }
    /// Bit cursor in the byte at Position, 0 to 7.
    int& BitPosition() { return bitPosition; }
    int& ProgramIndex() { return programIndex; }
    /// The media type that holds from this sample on, or null. Owned: deleted with the buffer and by CleanUp.
    MediaType*& NewMediaType() { return newMediaType; }
    bool& OneMessage() { return oneMessage; }
    std::int64_t& FilePosition() { return filePosition; }
    std::string& SourceId() { return sourceId; }
    std::map<std::int32_t, std::int64_t>& POIs() { return pois; }
    /// Pending socket operation, -1: none.
    int& Operation() { return operation; }
    bool& OperationFinished() { return operationFinished; }
    std::int64_t& OperationTime() { return operationTime; }
    sockaddr_in& RemoteAddr() { return remoteAddr; }
    sockaddr_in& LocalAddr() { return localAddr; }
    int& RemoteAddrLen() { return remoteAddrLen; }
    /// For the transport's own use; not owned.
    void*& UserContext() { return userContext; }
    SocketBuffer& WsaBuffer() { return wsaBuffer; }

protected:
    /// A buffer of a pool (or, without one, of its own): allocates the memory and takes the next id; no
    /// reference yet. std::bad_alloc when there is no memory or the size is negative.
    PacketBuffer(PacketBufferAllocator* allocator, int size);

private:
    friend class DefaultPacketBufferAllocator;

    /// A free buffer's count goes to 1 under the pool's lock: nobody else can hold the buffer.
    void takeFirstReference() MIVRA_NO_THREAD_SAFETY_ANALYSIS { referenceCount = 1; }
    /// What the last Release does, outside the lock.
    void giveBack();
    void dropOwned();
    bool fits(int offset, int count) const;
    bool hasRoom(int count) const;
    bool isInside(const void* address) const;

    PacketBufferAllocator* allocator = nullptr;
    PoolControl* control = nullptr;  // keeps the way to the pool valid, also after its end
    int poolIndex = 0;
    char* data = nullptr;
    bool ownsData = false;
    int bitPosition = 0;
    int programIndex = 0;
    MediaType* newMediaType = nullptr;
    bool oneMessage = false;
    std::int64_t filePosition = 0;
    std::string sourceId;
    std::map<std::int32_t, std::int64_t> pois;
    int operation = -1;
    bool operationFinished = false;
    std::int64_t operationTime = 0;
    sockaddr_in remoteAddr{};
    sockaddr_in localAddr{};
    int remoteAddrLen = sizeof(sockaddr_in);
    void* userContext = nullptr;
    SocketBuffer wsaBuffer{0, nullptr};
};

inline int PacketBuffer::AddRef() {
    AutoLock guard(lock);
    return ++referenceCount;
}

inline int PacketBuffer::Release() {
    int count;
    {
        AutoLock guard(lock);
        count = --referenceCount;
    }
    if (count == 0) {
        giveBack();
    }
    return count;
}

}  // namespace Mivra::Common
