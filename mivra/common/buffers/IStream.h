#pragma once

#include <cstdint>

#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// What an offset of a seek is counted from: forward from the begin or the current place, back from the end.
enum class Origin { Begin = 0, Current = 1, End = 2 };

/// A seekable stream of bytes with a bit cursor inside the current byte; bit 0 is the most significant.
/// Positions and lengths are bytes, offset 0 is the first. Whoever makes a stream owns it, mostly through a
/// std::shared_ptr. Range errors are a GeneralException and leave the stream as it was. The streams of this
/// library may be called from any thread, one call at a time inside; a cursor that two threads share is not
/// useful, though.
class MIVRA_API IStream {
public:
    enum StreamType { File = 1, Buffer = 2 };

    explicit IStream(StreamType type = Buffer) noexcept : streamType(type) {}
    IStream(const IStream&) = delete;
    IStream& operator=(const IStream&) = delete;
    virtual ~IStream();

    virtual bool CanRead() const = 0;
    virtual bool CanSeek() const = 0;
    virtual bool CanWrite() const = 0;

    virtual std::int64_t GetLength() = 0;
    /// Cuts the stream, or lets it grow with zeros where it can grow. A position behind the new end moves to
    /// the end, bit 0.
    virtual void SetLength(std::int64_t length) = 0;

    virtual std::int64_t GetPosition() = 0;
    /// From 0 to the length, inclusive. The bit position becomes 0.
    virtual void SetPosition(std::int64_t position) = 0;
    /// 0 to 7, inside the current byte.
    virtual int GetBitPosition() = 0;
    virtual void SetBitPosition(int bitPosition) = 0;

    /// Hands what is buffered to where it is going.
    virtual void Flush() = 0;

    /// Returns the new byte position; the bit position becomes 0. From the end, a positive offset goes back.
    virtual std::int64_t Seek(std::int64_t offset, Origin origin) = 0;
    /// The same in bits. Returns the new position in bits from the begin.
    virtual std::int64_t SeekBits(std::int64_t offset, Origin origin) = 0;

    /// Reads at most count bytes to dst + offset and returns how many; 0 only at the end (or for count 0).
    /// Begins at the current byte, whatever the bit position, which becomes 0.
    virtual int Read(unsigned char* dst, int offset, int count) = 0;
    /// The next byte, or -1 at the end.
    virtual int ReadByte() = 0;
    /// The same without moving either cursor.
    virtual int PeekByte() = 0;
    /// Writes all count bytes from src + offset over what is there, or throws and writes nothing when they do
    /// not fit. Begins at the current byte, whatever the bit position, which becomes 0.
    virtual void Write(const unsigned char* src, int offset, int count) = 0;
    virtual void WriteByte(unsigned char value) = 0;

    StreamType GetStreamType() const noexcept { return streamType; }

private:
    StreamType streamType;
};

}  // namespace Mivra::Common
