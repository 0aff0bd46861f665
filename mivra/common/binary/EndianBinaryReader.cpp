#include "mivra/common/binary/EndianBinaryReader.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include "mivra/common/buffers/FindStreamWindow.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/buffers/VersatileBufferStream.h"
#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Common {

namespace {

constexpr int MaxPrefixZeros = 32;
// The bytes that a prefix of 33 zeros and whatever bits stand before it can span, and more.
constexpr std::int64_t PrefixBytes = 9;

// Stands for the window of a stream without one; nobody writes to it.
StreamWindow s_noWindow;

}  // namespace

Endianness EndianBinaryReader::g_nGlobalEndiannes = Endianness::Big;

EndianBinaryReader::EndianBinaryReader(PacketBuffer* buffer) : window(&s_noWindow) {
    if (buffer != nullptr) {
        stream = std::make_shared<VersatileBufferStream>(buffer);
        stream->SetPosition(buffer->Position());
        stream->SetBitPosition(buffer->BitPosition());
        packetPosition = &buffer->Position();
        packetBitPosition = &buffer->BitPosition();
        buffer->AddRef();
        packet = buffer;
    }
    attach();
}

EndianBinaryReader::EndianBinaryReader(std::shared_ptr<IStream> source)
    : stream(std::move(source)), window(&s_noWindow) {
    attach();
}

EndianBinaryReader::~EndianBinaryReader() {
    if (packet != nullptr) {
        packet->Release();
    }
}

void EndianBinaryReader::attach() {
    if (StreamWindow* found = FindStreamWindow(stream.get())) {
        window = found;
    }
    SetEndiannes(g_nGlobalEndiannes);
}

void EndianBinaryReader::SetEndiannes(Endianness order) {
    converter = &forOrder(order);
    isBig = converter == &bigEndian;
}

const EndianBitConverter& EndianBinaryReader::forOrder(Endianness order) const {
    if (order == Endianness::Little) {
        return littleEndian;
    }
    if (order == Endianness::Big) {
        return bigEndian;
    }
    return *converter;
}

bool EndianBinaryReader::hasWindow() const {
    return window != &s_noWindow;
}

std::int64_t EndianBinaryReader::Position() const {
    requireStream();
    return hasWindow() ? window->position : stream->GetPosition();
}

int EndianBinaryReader::BitPosition() const {
    requireStream();
    return hasWindow() ? window->bitPosition : stream->GetBitPosition();
}

std::int64_t EndianBinaryReader::Length() const {
    requireStream();
    return hasWindow() ? window->length : stream->GetLength();
}

std::int64_t EndianBinaryReader::Seek(std::int64_t offset, Origin origin) {
    requireStream();
    const std::int64_t position = stream->Seek(offset, origin);
    mirror();
    return position;
}

std::int64_t EndianBinaryReader::SeekBits(std::int64_t bitOffset, Origin origin) {
    requireStream();
    const std::int64_t position = stream->SeekBits(bitOffset, origin);
    mirror();
    return position;
}

void EndianBinaryReader::setFullBitPosition(std::int64_t bits) {
    if (hasWindow()) {
        moveTo(bits >> 3, static_cast<int>(bits & 7));
    } else {
        stream->SeekBits(bits, Origin::Begin);
    }
}

// The packet follows the stream, which has a window.
void EndianBinaryReader::mirror() {
    if (packet != nullptr) {
        *packetPosition = static_cast<int>(window->position);
        *packetBitPosition = window->bitPosition;
    }
}

void EndianBinaryReader::requireStream() const {
    if (stream == nullptr) {
        throw GeneralException("EndianBinaryReader::checkBuffer: stream is NULL");
    }
}

void EndianBinaryReader::checkBuffer(std::int64_t count) const {
    requireStream();
    if (count < 0 || count > Length() - Position()) {
        failOutbound(count);
    }
}

void EndianBinaryReader::failOutbound(std::int64_t count) const {
    throw GeneralException(
        "EndianBinaryReader::checkBuffer: outbound size nRequiredSize %d, this->buffer->Position() %lld, "
        "this->buffer->ActualSize() %lld",
        static_cast<int>(std::clamp<std::int64_t>(count, INT_MIN, INT_MAX)),
        static_cast<long long>(Position()), static_cast<long long>(Length()));
}

unsigned char* EndianBinaryReader::readInternal(int count) {
    checkBuffer(count);
    if (window->data == nullptr) {
        readStream(scratch, count, "readInternal");
        return scratch;
    }
    unsigned char* bytes = window->data + window->position;
    if (count > 0) {
        moveTo(window->position + count, 0);
    }
    return bytes;
}

void EndianBinaryReader::readStream(unsigned char* dst, int count, const char* operation) {
    int done = 0;
    while (done < count) {
        const int got = stream->Read(dst, done, count - done);
        mirror();
        if (got <= 0) {
            const int missing = count - done;
            // The plural is inverted on purpose: readers of these texts match them as they are.
            throw GeneralException(
                "EndianBinaryReader::%s: End of stream reached with %d byte%s left to read.", operation,
                missing, missing == 1 ? "s" : "");
        }
        done += got;
    }
}

int EndianBinaryReader::Read(unsigned char* dst, int count) {
    checkBuffer(count);
    if (window->data == nullptr) {
        readStream(dst, count, "Read");
    } else if (count > 0) {
        std::memcpy(dst, window->data + window->position, static_cast<std::size_t>(count));
        moveTo(window->position + count, 0);
    }
    return count;
}

int EndianBinaryReader::Read(std::string& dst, int count) {
    checkBuffer(count);
    dst.resize(static_cast<std::size_t>(count));
    return Read(reinterpret_cast<unsigned char*>(dst.data()), count);
}

std::int64_t EndianBinaryReader::readBytes(int count, const EndianBitConverter& order) {
    if (count > 8) {
        throw GeneralException("EndianBinaryReader::ReadInt64: max byte count is 8");
    }
    return order.FromBytes(readInternal(count), 0, count);
}

std::int64_t EndianBinaryReader::readBits(int count, const EndianBitConverter& order) {
    if (count < 0 || count > 64) {
        throw GeneralException("EndianBinaryReader::ReadBits: bit count %d is not between 0 and 64", count);
    }
    const std::int64_t start = FullBitPosition();
    const int bit = static_cast<int>(start & 7);
    unsigned char* bytes = readInternal((count + 7 + bit) / 8);
    const std::int64_t value = order.FromBits(bytes, bit, count);
    setFullBitPosition(start + count);
    return value;
}

std::uint64_t EndianBinaryReader::readExpGolombSlowly() {
    const std::int64_t start = FullBitPosition();
    const int first = static_cast<int>(start & 7);
    const int available = static_cast<int>(std::min(PrefixBytes, Length() - Position()));
    const unsigned char* bytes = readInternal(available);
    int bit = first;
    while (bit < available * 8 && (bytes[bit / 8] >> (7 - bit % 8) & 1) == 0) {
        ++bit;
    }
    const int zeros = bit - first;
    if (zeros > MaxPrefixZeros) {
        setFullBitPosition(start);
        throw GeneralException("EndianBinaryReader::ReadExpGolomb: more than %d leading zero bits",
                               MaxPrefixZeros);
    }
    if (bit >= available * 8) {
        failOutbound(1);
    }
    setFullBitPosition(start + zeros + 1);
    const std::uint64_t info = static_cast<std::uint64_t>(readBits(zeros, bigEndian));
    return (std::uint64_t{1} << zeros) - 1 + info;
}

}  // namespace Mivra::Common
