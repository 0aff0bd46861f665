// The chain of a VersatileBufferStream: what is added to it, what it gives back, and how it grows.

#include "mivra/common/buffers/StreamChain.h"

#include <cstring>

#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/Reference.h"

namespace Mivra::Common {

void VersatileBufferStream::Append(VersatileBuffer* buffer, int offset, int count) {
    AutoLock guard(lock);
    if (buffer == nullptr || offset < 0 || count < 0 || offset > buffer->Size() ||
        count > buffer->Size() - offset) {
        FailStreamRange("Append");
    }
    append(buffer, offset, count);
}

void VersatileBufferStream::append(VersatileBuffer* buffer, int offset, int count) {
    chain.push_back({window.length, buffer, offset, count});
    buffer->AddRef();
    window.length += count;
    updateWindow();
}

/// Takes the slices, not references on their buffers.
void VersatileBufferStream::appendChain(const Chain& slices) {
    chain.reserve(chain.size() + slices.size());
    for (const Slice& slice : slices) {
        chain.push_back(slice);
        chain.back().start = window.length;
        window.length += slice.count;
    }
    updateWindow();
}

/// Only a packet buffer is known never to move its storage.
void VersatileBufferStream::updateWindow() {
    window.data = nullptr;
    if (chain.size() == 1) {
        if (auto* const packet = dynamic_cast<PacketBuffer*>(chain.front().buffer)) {
            window.data = reinterpret_cast<unsigned char*>(packet->Buffer()) + chain.front().offset;
        }
    }
}

/// Gives back what lies behind a length.
void VersatileBufferStream::cut(std::int64_t length) {
    while (!chain.empty() && window.length > length) {
        Slice& last = chain.back();
        window.length = last.start;
        if (last.start < length) {
            last.count = static_cast<int>(length - last.start);
            window.length = length;
        } else {
            last.buffer->Release();
            chain.pop_back();
        }
    }
    if (window.position > window.length) {
        moveTo(window.length);
    }
    updateWindow();
}

/// Gives back what lies before an offset.
void VersatileBufferStream::trim(std::int64_t count) {
    if (count == 0) {
        return;
    }
    const auto kept = std::find_if(chain.begin(), chain.end(),
                                   [count](const Slice& slice) { return slice.start + slice.count > count; });
    for (auto slice = chain.begin(); slice != kept; ++slice) {
        slice->buffer->Release();
    }
    chain.erase(chain.begin(), kept);
    for (Slice& slice : chain) {
        slice.start -= count;
    }
    if (!chain.empty() && chain.front().start < 0) {
        const int dropped = static_cast<int>(-chain.front().start);
        chain.front().offset += dropped;
        chain.front().count -= dropped;
        chain.front().start = 0;
    }
    window.length -= count;
    if (window.position >= count) {
        window.position -= count;
    } else {
        moveTo(0);
    }
    updateWindow();
}

void VersatileBufferStream::TrimBegin() {
    AutoLock guard(lock);
    trim(window.position);
}

void VersatileBufferStream::TrimBegin(std::int64_t count) {
    AutoLock guard(lock);
    if (count < 0 || count > window.length) {
        FailStreamRange("TrimBegin");
    }
    trim(count);
}

VersatileBuffer* VersatileBufferStream::GetFirstBuffer() {
    AutoLock guard(lock);
    return chain.empty() ? nullptr : chain.front().buffer;
}

// Growth.

/// Makes room for count bytes from the position on.
void VersatileBufferStream::reserve(const char* operation, std::int64_t count) {
    const std::int64_t shortfall = count - (window.length - window.position);
    if (shortfall <= 0) {
        return;
    }
    if (!autoGrowth) {
        FailStreamRange(operation);
    }
    grow(operation, shortfall, shortfall);
}

/// Adds buffers of the global pools for a shortfall; the first `written` new bytes are the caller's to fill,
/// the rest is zeroed. Without buffers for all nothing is added.
void VersatileBufferStream::grow(const char* operation, std::int64_t shortfall, std::int64_t written) {
    const std::int64_t before = window.length;
    try {
        while (window.length - before < shortfall) {
            appendNew(operation, Media::MediaGlobal::lockForGrowth(shortfall - (window.length - before)));
        }
    } catch (...) {
        cut(before);
        throw;
    }
    const std::int64_t unwritten = before + written;
    visitRange(unwritten, window.length - unwritten,
               [](unsigned char* data, std::size_t bytes) { std::memset(data, 0, bytes); });
}

/// Appends all capacity of a buffer just taken, and gives the caller's reference back.
void VersatileBufferStream::appendNew(const char* operation, PacketBuffer* taken) {
    const auto held = Reference<PacketBuffer>::Adopt(taken);
    if (!held || held->Size() <= 0) {
        throw GeneralException("VersatileBufferStream::%s: no buffer to grow by", operation);
    }
    append(taken, 0, taken->Size());
}

}  // namespace Mivra::Common
