#include "mivra/common/binary/EndianBinaryWriter.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>
#include <utility>

#include "mivra/common/buffers/FindStreamWindow.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/buffers/VersatileBufferStream.h"
#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Common {

namespace {

// Stands for the window of a stream without one; nobody writes to it.
StreamWindow s_noWindow;

}  // namespace

Endianness EndianBinaryWriter::g_nGlobalEndiannes = Endianness::Big;

EndianBinaryWriter::EndianBinaryWriter(PacketBuffer* buffer) : window(&s_noWindow) {
    if (buffer != nullptr) {
        stream = std::make_shared<VersatileBufferStream>(buffer, 0, buffer->Size());
        stream->SetPosition(buffer->Position());
        stream->SetBitPosition(buffer->BitPosition());
        packetPosition = &buffer->Position();
        packetBitPosition = &buffer->BitPosition();
        packetActualSize = &buffer->ActualSize();
        buffer->AddRef();
        packet = buffer;
    }
    attach();
}

EndianBinaryWriter::EndianBinaryWriter(std::shared_ptr<IStream> destination)
    : stream(std::move(destination)), window(&s_noWindow) {
    attach();
}

EndianBinaryWriter::~EndianBinaryWriter() {
    if (packet != nullptr) {
        packet->Release();
    }
}

void EndianBinaryWriter::attach() {
    if (StreamWindow* found = FindStreamWindow(stream.get())) {
        window = found;
    }
    SetEndiannes(g_nGlobalEndiannes);
}

void EndianBinaryWriter::SetEndiannes(Endianness order) {
    converter = &forOrder(order);
    endianness = order;
    isBig = converter == &bigEndian;
}

const EndianBitConverter& EndianBinaryWriter::forOrder(Endianness order) const {
    if (order == Endianness::Little) {
        return littleEndian;
    }
    if (order == Endianness::Big) {
        return bigEndian;
    }
    return *converter;
}

bool EndianBinaryWriter::hasWindow() const {
    return window != &s_noWindow;
}

std::int64_t EndianBinaryWriter::Position() const {
    requireStream();
    return hasWindow() ? window->position : stream->GetPosition();
}

int EndianBinaryWriter::BitPosition() const {
    requireStream();
    return hasWindow() ? window->bitPosition : stream->GetBitPosition();
}

std::int64_t EndianBinaryWriter::GetLength() const {
    requireStream();
    return hasWindow() ? window->length : stream->GetLength();
}

std::int64_t EndianBinaryWriter::Seek(std::int64_t offset, Origin origin) {
    requireStream();
    const std::int64_t position = stream->Seek(offset, origin);
    mirror(0);
    return position;
}

std::int64_t EndianBinaryWriter::SeekBits(std::int64_t bitOffset, Origin origin) {
    requireStream();
    const std::int64_t position = stream->SeekBits(bitOffset, origin);
    mirror(0);
    return position;
}

void EndianBinaryWriter::Flush() {
    requireStream();
    stream->Flush();
}

// The packet follows the stream, which has a window.
void EndianBinaryWriter::mirror(std::int64_t touchedEnd) {
    if (packet != nullptr) {
        *packetPosition = static_cast<int>(window->position);
        *packetBitPosition = window->bitPosition;
        touch(touchedEnd);
    }
}

void EndianBinaryWriter::requireStream() const {
    if (stream == nullptr) {
        throw GeneralException("EndianBinaryWriter::checkBuffer: stream is NULL");
    }
}

void EndianBinaryWriter::checkBuffer(std::int64_t count) const {
    requireStream();
    const bool grows = stream->GetStreamType() == IStream::File;
    if (count < 0 || (!grows && count > GetLength() - Position())) {
        throw GeneralException(
            "EndianBinaryWriter::checkBuffer: outbound size nRequiredSize %d, this->buffer->Position() %lld, "
            "this->buffer->ActualSize() %lld",
            static_cast<int>(std::clamp<std::int64_t>(count, INT_MIN, INT_MAX)),
            static_cast<long long>(Position()), static_cast<long long>(GetLength()));
    }
}

void EndianBinaryWriter::writeInternal(const unsigned char* data, int count) {
    checkBuffer(count);
    if (count == 0) {
        return;
    }
    if (window->data != nullptr) {
        std::memmove(window->data + window->position, data, static_cast<std::size_t>(count));
        moveTo(window->position + count, 0);
        touch(window->position);
    } else {
        stream->Write(data, 0, count);
        mirror(window->position);
    }
}

void EndianBinaryWriter::writeBytes(std::int64_t value, int count, const EndianBitConverter& order) {
    if (count > 8) {
        throw GeneralException("EndianBinaryWriter::Write: max byte count is 8");
    }
    checkBuffer(count);
    order.CopyBytesImpl(value, count, scratch, 0);
    writeInternal(scratch, count);
}

void EndianBinaryWriter::Write(const unsigned char* data, int offset, int count) {
    writeInternal(data + offset, count);
}

void EndianBinaryWriter::Write(const std::string& text) {
    checkBuffer(static_cast<std::int64_t>(text.size()));
    std::size_t done = 0;
    while (done < text.size()) {
        const int piece = static_cast<int>(std::min<std::size_t>(text.size() - done, INT_MAX));
        writeInternal(reinterpret_cast<const unsigned char*>(text.data()) + done, piece);
        done += static_cast<std::size_t>(piece);
    }
}

void EndianBinaryWriter::Fill(unsigned char value, std::int64_t count) {
    checkBuffer(count);
    unsigned char block[512];
    std::memset(block, value, sizeof block);
    while (count > 0) {
        const int piece = static_cast<int>(std::min<std::int64_t>(count, sizeof block));
        writeInternal(block, piece);
        count -= piece;
    }
}

void EndianBinaryWriter::writeBits(std::int64_t value, int count, const EndianBitConverter& order) {
    if (count > 64) {
        throw GeneralException("EndianBinaryWriter::WriteBits: max bit count is 64");
    }
    if (count < 0) {
        throw GeneralException("EndianBinaryWriter::WriteBits: bit count %d is negative", count);
    }
    const std::int64_t start = FullBitPosition();
    const int bit = static_cast<int>(start & 7);
    const int touched = (bit + 7 + count) / 8;
    checkBuffer(touched);
    if (count == 0) {
        return;
    }
    const std::int64_t end = start + count;
    if (window->data != nullptr) {
        order.CopyBitsImpl(value, count, window->data + window->position, bit);
        touch(window->position + touched);
        moveTo(end >> 3, static_cast<int>(end & 7));
        return;
    }
    loadTouched(touched);
    order.CopyBitsImpl(value, count, scratch, bit);
    stream->Seek(start >> 3, Origin::Begin);
    stream->Write(scratch, 0, touched);
    stream->SeekBits(end, Origin::Begin);
    mirror((start >> 3) + touched);
}

void EndianBinaryWriter::loadTouched(int count) {
    int done = 0;
    while (done < count) {
        if (stream->GetPosition() >= stream->GetLength()) {
            std::memset(scratch + done, 0, static_cast<std::size_t>(count - done));
            return;
        }
        const int got = stream->Read(scratch, done, count - done);
        if (got <= 0) {
            const int missing = count - done;
            // The plural is inverted on purpose, as the reader's.
            throw GeneralException(
                "EndianBinaryWriter::WriteBits: End of stream reached with %d byte%s left to read.", missing,
                missing == 1 ? "s" : "");
        }
        done += got;
    }
}

void EndianBinaryWriter::WriteUnsignedExpGolomb(unsigned int value) {
    writeCode(std::uint64_t{value} + 1);
}

void EndianBinaryWriter::WriteSignedExpGolomb(int value) {
    if (value == 0) {
        throw GeneralException("EndianBinaryWriter::WriteSignedExpGolomb: 0 has no code here");
    }
    const std::int64_t wide = value;
    writeCode(static_cast<std::uint64_t>(wide < 0 ? -2 * wide + 1 : 2 * wide));
}

void EndianBinaryWriter::writeCode(std::uint64_t codeNumberPlusOne) {
    const int zeros = std::bit_width(codeNumberPlusOne) - 1;
    const std::int64_t code = static_cast<std::int64_t>(codeNumberPlusOne);
    if (2 * zeros + 1 <= 64) {
        writeBits(code, 2 * zeros + 1, bigEndian);
        return;
    }
    checkBuffer((BitPosition() + 2 * zeros + 1 + 7) / 8);
    writeBits(0, zeros, bigEndian);
    writeBits(code, zeros + 1, bigEndian);
}

}  // namespace Mivra::Common
