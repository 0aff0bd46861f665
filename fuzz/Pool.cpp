// A sequence of pool operations, with reallocation and an end while buffers are out, beside a model of the
// pool.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <vector>

#include "fuzz/OperationSource.h"
#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/PacketBuffer.h"

namespace {

using namespace Mivra::Common;

/// What a pool promises: which slots are free, which generation is current, and when it may grow.
struct PoolModel {
    int size;
    int count;
    const int initial;
    const bool growth;
    const float limit;
    std::set<int> free;
    int generation = 0;
    bool grown = false;

    PoolModel(int bufferSize, int bufferCount, bool allowGrowth, float growthLimit)
        : size(bufferSize), count(0), initial(bufferCount), growth(allowGrowth), limit(growthLimit) {
        add(bufferCount);
    }
    void add(int more) {
        for (; more > 0; --more)
            free.insert(count++);
    }
    /// The slot that is lent, -1: none.
    int lock() {
        if (free.empty() && growth) {
            grown = true;
            if (count < static_cast<int>(static_cast<float>(initial) * limit)) add(std::max(count / 10, 1));
        }
        if (free.empty()) return -1;
        const int slot = *free.begin();
        free.erase(free.begin());
        return slot;
    }
    void reallocate(int newSize, int newCount) {
        size = newSize;
        count = 0;
        free.clear();
        ++generation;
        add(newCount);
    }
};

/// A buffer that is out.
struct Held {
    PacketBuffer* buffer;
    int slot;
    int generation;
    int size;
    int references;
};

class PoolRun {
public:
    explicit PoolRun(OperationSource& from)
        : source(from),
          model(source.Small(), source.Small() % 24, source.Flag(),
                static_cast<float>(source.Small()) / 16.0F),
          pool(std::make_unique<DefaultPacketBufferAllocator>(model.size, model.initial, model.growth,
                                                              model.limit)) {}
    ~PoolRun() {
        const bool poolFirst = source.Flag();
        if (poolFirst) pool.reset();
        while (!held.empty()) {
            release(held.size() - 1);
        }
        if (!poolFirst) {
            Require(pool->FreeBufferCount() == pool->BufferCount());
        }
    }

    void Step() {
        switch (source.Small() % 6) {
            case 0:
            case 1:
                lock();
                break;
            case 2:
            case 3:
                if (!held.empty()) release(pick());
                break;
            case 4:
                if (!held.empty()) addReference(pick());
                break;
            default:
                reallocate();
        }
        Require(pool->BufferSize() == model.size && pool->BufferCount() == model.count);
        Require(pool->FreeBufferCount() == static_cast<int>(model.free.size()));
        Require(pool->IsAutoGrown() == model.grown);
    }

private:
    std::size_t pick() { return static_cast<std::size_t>(source.Small()) % held.size(); }

    void lock() {
        const int slot = model.lock();
        PacketBuffer* const buffer = pool->LockBuffer(source.Flag());
        Require((buffer != nullptr) == (slot >= 0));
        if (buffer == nullptr) return;
        Require(buffer->PoolIndex() == slot && buffer->Generation() == model.generation);
        Require(buffer->Size() == model.size && buffer->ActualSize() == 0 && buffer->Pts() == 0);
        Require(buffer->ReferenceCount() == 1 && buffer->ExtraData().empty() && buffer->POIs().empty());
        const std::vector<unsigned char> data = source.Bytes(model.size);
        Require(buffer->Append(data.data(), model.size));
        buffer->Pts() = 7;
        if (source.Flag()) buffer->ExtraData()["key"] = 1;
        held.push_back({buffer, slot, model.generation, model.size, 1});
    }

    void addReference(std::size_t index) {
        Require(held[index].buffer->AddRef() == ++held[index].references);
    }

    void release(std::size_t index) {
        Held& out = held[index];
        Require(out.buffer->ActualSize() == out.size);
        Require(out.buffer->Release() == --out.references);
        if (out.references > 0) return;
        if (out.generation == model.generation) model.free.insert(out.slot);
        held.erase(held.begin() + static_cast<std::ptrdiff_t>(index));
    }

    void reallocate() {
        const int size = source.Small();
        const int count = source.Small() % 24;
        model.reallocate(size, count);
        pool->Reallocate(size, count);
    }

    OperationSource& source;
    PoolModel model;
    std::unique_ptr<DefaultPacketBufferAllocator> pool;
    std::vector<Held> held;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    OperationSource source(data, size);
    PoolRun run(source);
    for (int steps = 0; !source.AtEnd() && steps < 500; ++steps) {
        run.Step();
    }
    return 0;
}
