#pragma once

#include <any>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>

#include "mivra/common/buffers/IStream.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// A reference-counted buffer with the attributes of a media sample. Whoever takes a reference gives it back
/// with Release; the last Release decides what becomes of the buffer. Any thread may add and release
/// references; data and attributes are not locked: one owner writes at a time.
/// Sizes and positions are bytes; times are in the time unit of the sample's stream.
class MIVRA_API VersatileBuffer {
public:
    // Keys of ExtraData.
    static constexpr const char* EndPointAttribute = "EndPoint";
    static constexpr const char* LocalEndPointAttribute = "LocalEndPoint";
    static constexpr const char* RemoteEndPointAttribute = "RemoteEndPoint";
    static constexpr const char* FilePositionAttribute = "FilePosition";
    static constexpr const char* FlagsAttribute = "Flags";
    static constexpr const char* PoisAttribute = "Pois";
    static constexpr const char* ProgramIndexAttribute = "ProgramIndex";
    static constexpr const char* NewMediaTypeAttribute = "NewMediaType";

    VersatileBuffer(const VersatileBuffer&) = delete;
    VersatileBuffer& operator=(const VersatileBuffer&) = delete;
    virtual ~VersatileBuffer();

    /// The storage, Size() bytes.
    virtual char* GetPointer() = 0;
    /// Bytes of valid data, from the start of the storage.
    virtual int& ActualSize();
    /// The cursor.
    virtual int& Position();

    /// Both return the new count.
    virtual int AddRef() = 0;
    virtual int Release() = 0;

    /// Sets the data and all attributes back to their defaults; the storage stays.
    virtual void CleanUp();

    /// Add bytes behind the valid data. False, and nothing changed, when they do not fit or the source does
    /// not hold them.
    virtual bool Append(const VersatileBuffer* source, int offset, int size) = 0;
    virtual bool Append(const void* data, int size) = 0;

    /// Put bytes in front of the valid byte at offset (of the second: at Position) and move what follows.
    /// With moveCursor a cursor at or behind that place stays on its byte; otherwise Position keeps its
    /// value. The bytes may lie in this buffer. False, and nothing changed, when they do not fit.
    virtual bool Insert(int offset, const void* data, int size, bool moveCursor) = 0;
    virtual bool Insert(const void* data, int size, bool moveCursor) = 0;

    /// Drops bytes from the front, -1: all up to Position. When there are not as many, drops everything and
    /// answers false.
    virtual bool Flush(int bytesToRemove) = 0;

    /// Copy size valid bytes from offset on. False when there are not as many, and without a stream. The
    /// stream form lets a GeneralException of the stream through.
    virtual bool CopyTo(int offset, std::shared_ptr<IStream> destination, int size) const = 0;
    virtual bool CopyTo(int offset, void* destination, int size) const = 0;

    virtual void ReadFrom(std::istream& stream) = 0;
    virtual void WriteTo(std::ostream& stream) = 0;

    /// A byte of the storage; the index is not checked.
    virtual char& operator[](unsigned index) = 0;
    virtual const char& operator[](unsigned index) const = 0;

    /// Unique in the process for a buffer of a pool, from 1; -1 for one that wraps foreign memory.
    int Id() const { return id; }
    /// Capacity.
    int Size() const { return size; }
    /// Which making of its pool the buffer comes from.
    int& Generation() { return generation; }
    /// For diagnostics: read without the lock.
    int& ReferenceCount() MIVRA_NO_THREAD_SAFETY_ANALYSIS { return referenceCount; }
    std::int64_t& Pts() { return pts; }
    std::int64_t& Dts() { return dts; }
    std::int64_t& Duration() { return duration; }
    int& StreamIndex() { return streamIndex; }
    bool& KeyFrame() { return keyFrame; }
    bool& CleanPoint() { return cleanPoint; }
    bool& Discontinuity() { return discontinuity; }
    /// Named attributes beyond these; a value's type is settled by who writes and who reads its name.
    std::map<std::string, std::any>& ExtraData() { return extraData; }

protected:
    /// Id -1, no references, no capacity.
    VersatileBuffer();

    /// What CleanUp does; inline for the way back to a pool.
    void resetAttributes() {
        actualSize = 0;
        position = 0;
        pts = 0;
        dts = 0;
        duration = 0;
        streamIndex = 0;
        keyFrame = false;
        cleanPoint = false;
        discontinuity = false;
        if (!extraData.empty()) {
            extraData.clear();
        }
    }

    /// The next number for a pooled buffer.
    static int nextId() MIVRA_EXCLUDES(staticCS);

    static CritSec staticCS;
    static int idCounter MIVRA_GUARDED_BY(staticCS);

    CritSec lock;
    int id = -1;
    int generation = 0;
    int referenceCount MIVRA_GUARDED_BY(lock) = 0;
    int size = 0;
    int actualSize = 0;
    int position = 0;
    std::int64_t pts = 0;
    std::int64_t dts = 0;
    std::int64_t duration = 0;
    int streamIndex = 0;
    bool keyFrame = false;
    bool cleanPoint = false;
    bool discontinuity = false;
    std::map<std::string, std::any> extraData;
};

}  // namespace Mivra::Common
