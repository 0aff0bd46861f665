// A sequence of stream operations beside a flat vector of bytes that does the same: once on chains of
// buffers, and what all streams have in common once more on files.

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/OperationSource.h"
#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/FileStream.h"
#include "mivra/common/buffers/FindStreamWindow.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/buffers/VersatileBufferStream.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/Reference.h"

namespace {

using namespace Mivra::Common;
using Bytes = std::vector<unsigned char>;
using Mivra::Media::MediaGlobal;

constexpr std::int64_t kLongest = 4096;

struct Model {
    Bytes bytes;
    std::int64_t position = 0;
    int bit = 0;
    bool grows = false;

    std::int64_t length() const { return static_cast<std::int64_t>(bytes.size()); }
    bool inside(std::int64_t at) const { return at >= 0 && at <= length(); }
    void moveTo(std::int64_t at) {
        position = at;
        bit = 0;
    }
    Bytes range(std::int64_t at, std::int64_t count) const {
        return {bytes.begin() + at, bytes.begin() + at + count};
    }
    void put(const Bytes& data) {
        std::copy(data.begin(), data.end(), bytes.begin() + position);
        moveTo(position + static_cast<std::int64_t>(data.size()));
    }
};

/// A stream and what it should be.
class Pair {
public:
    Pair() : chain(new VersatileBufferStream), stream(chain) {}
    explicit Pair(const std::string& path) : stream(new FileStream(path, "w+b")) { model.grows = true; }

    void Run(OperationSource& source, Pair& other);
    void Check();

private:
    /// Runs an operation that should throw exactly when it is not allowed.
    template <typename Operation>
    bool attempt(bool allowed, Operation operation) {
        try {
            operation();
        } catch (const GeneralException&) {
            Require(!allowed);
            return false;
        }
        Require(allowed);
        return true;
    }
    void append(OperationSource& source);
    void write(OperationSource& source);
    void setLength(OperationSource& source);
    void read(OperationSource& source);
    void seek(OperationSource& source);
    void seekBits(OperationSource& source);
    void trim(OperationSource& source);
    void copyTo(OperationSource& source, Pair& other);
    void handOver(bool all, Pair& other);
    void workThroughWindow(OperationSource& source);
    bool room(std::int64_t count) const { return model.grows || count <= model.length() - model.position; }
    /// Growth adds whole buffers: the new length is the stream's to say, the new bytes are zero.
    void grow(std::int64_t atLeast) {
        if (atLeast > model.length()) {
            Require(chain != nullptr ? stream->GetLength() >= atLeast : stream->GetLength() == atLeast);
            model.bytes.resize(static_cast<std::size_t>(stream->GetLength()));
        }
    }

    VersatileBufferStream* const chain = nullptr;  // null: a file
    const std::unique_ptr<IStream> stream;
    Model model;
};

void Pair::append(OperationSource& source) {
    const int size = source.Small();
    const auto buffer = Reference<PacketBuffer>::Adopt(MediaGlobal::LockBuffer(size));
    const Bytes data = source.Bytes(size);
    buffer->Append(data.data(), size);
    const int offset = source.Small();
    const int count = source.Small();
    const bool allowed = offset <= buffer->Size() && count <= buffer->Size() - offset;
    const Bytes all(buffer->Buffer(), buffer->Buffer() + buffer->Size());
    if (attempt(allowed, [&] { chain->Append(buffer.get(), offset, count); })) {
        model.bytes.insert(model.bytes.end(), all.begin() + offset, all.begin() + offset + count);
    }
}

void Pair::write(OperationSource& source) {
    const Bytes data = source.Bytes(source.Small());
    if (attempt(room(static_cast<std::int64_t>(data.size())), [&] {
            data.size() == 1 ? stream->WriteByte(data[0])
                             : stream->Write(data.data(), 0, static_cast<int>(data.size()));
        })) {
        grow(model.position + static_cast<std::int64_t>(data.size()));
        model.put(data);
    }
}

void Pair::setLength(OperationSource& source) {
    const std::int64_t length = source.Number();
    if (length > kLongest) {
        return;
    }
    if (attempt(length >= 0 && (model.grows || length <= model.length()),
                [&] { stream->SetLength(length); })) {
        model.bytes.resize(static_cast<std::size_t>(length));
        if (model.position > length) model.moveTo(length);
    }
}

void Pair::read(OperationSource& source) {
    const int count = source.Small();
    Bytes data(static_cast<std::size_t>(count) + 1);
    if (source.Flag() && chain != nullptr) {
        const std::int64_t at = source.Number();
        attempt(model.inside(at), [&] {
            const int got = chain->ReadFrom(at, data.data(), 1, count);
            Require(got == std::min<std::int64_t>(count, model.length() - at));
            Require(std::equal(data.begin() + 1, data.begin() + 1 + got, model.bytes.begin() + at));
        });
        return;
    }
    const std::int64_t expected = std::min<std::int64_t>(count, model.length() - model.position);
    Require(stream->Read(data.data(), 1, count) == expected);
    Require(std::equal(data.begin() + 1, data.begin() + 1 + expected, model.bytes.begin() + model.position));
    model.moveTo(model.position + expected);
    const int next =
        model.position < model.length() ? model.bytes[static_cast<std::size_t>(model.position)] : -1;
    Require(stream->PeekByte() == next);
    Require(stream->ReadByte() == next);
    model.moveTo(model.position + (next >= 0 ? 1 : 0));
}

std::int64_t target(std::int64_t offset, Origin origin, std::int64_t current, std::int64_t end) {
    return origin == Origin::Begin ? offset : origin == Origin::Current ? current + offset : end - offset;
}

void Pair::seek(OperationSource& source) {
    const auto origin = static_cast<Origin>(source.Small() % 3);
    const std::int64_t offset = source.Number();
    const std::int64_t at = target(offset, origin, model.position, model.length());
    if (attempt(model.inside(at), [&] { Require(stream->Seek(offset, origin) == at); })) {
        model.moveTo(at);
    }
}

void Pair::seekBits(OperationSource& source) {
    const auto origin = static_cast<Origin>(source.Small() % 3);
    const std::int64_t offset = source.Number();
    const std::int64_t at = target(offset, origin, model.position * 8 + model.bit, model.length() * 8);
    if (attempt(at >= 0 && at <= model.length() * 8,
                [&] { Require(stream->SeekBits(offset, origin) == at); })) {
        model.position = at / 8;
        model.bit = static_cast<int>(at % 8);
    }
    const int bit = source.Small() % 10;
    if (attempt(bit <= 7, [&] { stream->SetBitPosition(bit); })) {
        model.bit = bit;
    }
}

void Pair::trim(OperationSource& source) {
    const std::int64_t count = source.Flag() ? source.Number() : model.position;
    const bool whole = count == model.position && source.Flag();
    if (attempt(model.inside(count), [&] { whole ? chain->TrimBegin() : chain->TrimBegin(count); })) {
        model.bytes.erase(model.bytes.begin(), model.bytes.begin() + count);
        model.position >= count ? void(model.position -= count) : model.moveTo(0);
    }
}

void Pair::copyTo(OperationSource& source, Pair& other) {
    const std::int64_t offset = source.Flag() ? model.position : source.Number();
    const int count = source.Small();
    const bool move = source.Flag();
    const bool allowed = model.inside(offset) && count <= model.length() - offset && other.room(count);
    if (!attempt(allowed, [&] { chain->CopyTo(other.chain, offset, count, move); })) {
        return;
    }
    const Bytes data = model.range(offset, count);
    other.grow(other.model.position + count);
    if (count > 0) other.model.put(data);  // nothing copied: the destination is not touched
    if (move) model.moveTo(offset + count);
}

/// Shared bytes would need a model of their own, so a shared chain is compared and dropped.
void Pair::handOver(bool all, Pair& other) {
    if (all) {
        VersatileBufferStream copy;
        chain->CopyAllTo(&copy);
        Bytes data(model.bytes.size() + 1);
        Require(copy.ReadFrom(0, data.data(), 0, static_cast<int>(data.size())) == model.length());
        data.pop_back();
        Require(data == model.bytes);
        return;
    }
    if (&other != this && model.length() + other.model.length() <= kLongest) {
        chain->MoveTo(other.chain);
        other.model.bytes.insert(other.model.bytes.end(), model.bytes.begin(), model.bytes.end());
        model.bytes.clear();
        model.moveTo(0);
    }
}

void Pair::workThroughWindow(OperationSource& source) {
    StreamWindow* const window = FindStreamWindow(chain);
    Require(window->length == model.length());
    Require(window->position == model.position && window->bitPosition == model.bit);
    if (window->data == nullptr || window->length == 0) {
        return;
    }
    Require(std::equal(model.bytes.begin(), model.bytes.end(), window->data));
    const std::int64_t at = source.Small() % window->length;
    window->data[at] = model.bytes[static_cast<std::size_t>(at)] = static_cast<unsigned char>(source.Small());
    window->position = model.position = at;
    window->bitPosition = model.bit = source.Small() % 8;
}

void Pair::Run(OperationSource& source, Pair& other) {
    const int operation = source.Small() % 11;
    switch (operation) {
        case 1:
            return write(source);
        case 2:
            return setLength(source);
        case 3:
            return read(source);
        case 4:
            return seek(source);
        case 5:
            return seekBits(source);
        default:
            break;
    }
    if (chain == nullptr) return;
    switch (operation) {
        case 0:
            return append(source);
        case 6:
            return trim(source);
        case 7:
            return copyTo(source, other);
        case 8:
            return handOver(source.Flag(), other);
        case 9:
            return workThroughWindow(source);
        default:
            model.grows = source.Flag();
            chain->SetAutoGrowth(model.grows);
    }
}

void Pair::Check() {
    Require(stream->GetLength() == model.length());
    Require(stream->GetPosition() == model.position);
    Require(stream->GetBitPosition() == model.bit);
    Bytes data(model.bytes.size() + 1);
    const int size = static_cast<int>(data.size());
    if (chain != nullptr) {
        Require(chain->ReadFrom(0, data.data(), 0, size) == model.length());
    } else {
        stream->SetPosition(0);
        Require(stream->Read(data.data(), 0, size) == model.length());
        stream->SetPosition(model.position);
        stream->SetBitPosition(model.bit);
    }
    data.pop_back();
    Require(data == model.bytes);
}

void run(OperationSource source, std::unique_ptr<Pair> first, std::unique_ptr<Pair> second) {
    for (int operations = 0; !source.AtEnd() && operations < 300; ++operations) {
        Pair& subject = source.Flag() ? *first : *second;
        Pair& other = source.Flag() ? *first : *second;
        subject.Run(source, other);
        first->Check();
        second->Check();
    }
}

/// Two names of this process, gone as soon as it is.
const std::string& place() {
    static const struct Place {
        Place() { Require(::mkdtemp(name.data()) != nullptr); }
        ~Place() {
            for (const char* const file : {"/first", "/second"})
                ::unlink((name + file).c_str());
            ::rmdir(name.c_str());
        }
        std::string name = "/tmp/mivra-fuzz-XXXXXX";
    } s_place;
    return s_place.name;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr float kEnough = 10000.0F;
    MediaGlobal::Initialize({16, 8, true, kEnough}, {40, 8, true, kEnough}, {100, 4, true, kEnough});
    MediaGlobal::InitializeExtra({300, 4, true, kEnough});
    const OperationSource source(data, size);
    run(source, std::make_unique<Pair>(), std::make_unique<Pair>());
    run(source, std::make_unique<Pair>(place() + "/first"), std::make_unique<Pair>(place() + "/second"));
    for (PacketBufferAllocator* pool :
         {MediaGlobal::GetSmallAllocator(), MediaGlobal::GetAllocator(), MediaGlobal::GetBigAllocator()}) {
        Require(static_cast<DefaultPacketBufferAllocator*>(pool)->FreeBufferCount() == pool->BufferCount());
    }
    return 0;
}
