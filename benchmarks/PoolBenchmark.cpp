// Taking a buffer from a pool and giving it back, and taking and giving back one more reference.
//
// PoolRound: one pool of 64 buffers for all threads; a round takes one, writes its first byte and returns it.
// GstBufferPool runs with one thread only: the lock-free queue under it makes no progress when more threads
// than processors push to it. Reference: one buffer that stays held; the limit is an int counted up and down
// under one CritSec.

#include <benchmark/benchmark.h>
#include <gst/gst.h>

#include <cstdlib>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/runtime/CritSec.h"

extern "C" {
#include <libavutil/buffer.h>
}

namespace {

using Mivra::Common::AutoLock;
using Mivra::Common::CritSec;
using Mivra::Common::DefaultPacketBufferAllocator;
using Mivra::Common::PacketBuffer;

constexpr int kBuffers = 64;

void PoolRoundMivra(benchmark::State& state) {
    static DefaultPacketBufferAllocator* pool = nullptr;
    if (state.thread_index() == 0) {
        pool = new DefaultPacketBufferAllocator(static_cast<int>(state.range(0)), kBuffers, true, 10.0F);
    }
    for (auto _ : state) {
        PacketBuffer* const buffer = pool->LockBuffer(true);
        *buffer->Buffer() = 1;
        buffer->Release();
    }
    if (state.thread_index() == 0) {
        delete pool;
    }
}

void PoolRoundAvBufferPool(benchmark::State& state) {
    static AVBufferPool* pool = nullptr;
    if (state.thread_index() == 0) {
        pool = av_buffer_pool_init(static_cast<std::size_t>(state.range(0)), nullptr);
    }
    for (auto _ : state) {
        AVBufferRef* buffer = av_buffer_pool_get(pool);
        *buffer->data = 1;
        av_buffer_unref(&buffer);
    }
    if (state.thread_index() == 0) {
        av_buffer_pool_uninit(&pool);
    }
}

void PoolRoundGstBufferPool(benchmark::State& state) {
    static GstBufferPool* pool = nullptr;
    if (state.thread_index() == 0) {
        gst_init(nullptr, nullptr);
        pool = gst_buffer_pool_new();
        GstStructure* const config = gst_buffer_pool_get_config(pool);
        gst_buffer_pool_config_set_params(config, nullptr, static_cast<guint>(state.range(0)), kBuffers, 0);
        gst_buffer_pool_set_config(pool, config);
        gst_buffer_pool_set_active(pool, TRUE);
    }
    for (auto _ : state) {
        GstBuffer* buffer = nullptr;
        gst_buffer_pool_acquire_buffer(pool, &buffer, nullptr);
        gst_buffer_memset(buffer, 0, 1, 1);
        gst_buffer_unref(buffer);
    }
    if (state.thread_index() == 0) {
        gst_buffer_pool_set_active(pool, FALSE);
        gst_object_unref(pool);
    }
}

void PoolRoundMalloc(benchmark::State& state) {
    for (auto _ : state) {
        auto* volatile memory = static_cast<char*>(std::malloc(static_cast<std::size_t>(state.range(0))));
        *memory = 1;
        std::free(memory);
    }
}

void ReferenceMivra(benchmark::State& state) {
    DefaultPacketBufferAllocator pool(1500, 1, false, 1.0F);
    PacketBuffer* buffer = pool.LockBuffer(true);
    for (auto _ : state) {
        benchmark::DoNotOptimize(buffer);
        buffer->AddRef();
        buffer->Release();
    }
    buffer->Release();
}

void ReferenceAvBuffer(benchmark::State& state) {
    AVBufferRef* held = av_buffer_alloc(1500);
    for (auto _ : state) {
        AVBufferRef* one = av_buffer_ref(held);
        av_buffer_unref(&one);
    }
    av_buffer_unref(&held);
}

void ReferenceLimit(benchmark::State& state) {
    CritSec lock;
    int count = 1;
    for (auto _ : state) {
        {
            AutoLock guard(lock);
            ++count;
        }
        benchmark::DoNotOptimize(count);
        {
            AutoLock guard(lock);
            --count;
        }
        benchmark::DoNotOptimize(count);
    }
}

void sizesAndThreads(benchmark::internal::Benchmark* round) {
    round->Arg(1500)->Arg(65536)->Threads(1)->Threads(4)->UseRealTime();
}

BENCHMARK(PoolRoundMivra)->Name("PoolRound/Mivra")->Apply(sizesAndThreads);
BENCHMARK(PoolRoundAvBufferPool)->Name("PoolRound/AVBufferPool")->Apply(sizesAndThreads);
BENCHMARK(PoolRoundGstBufferPool)
    ->Name("PoolRound/GstBufferPool")
    ->Arg(1500)
    ->Arg(65536)
    ->Threads(1)
    ->UseRealTime();
BENCHMARK(PoolRoundMalloc)->Name("PoolRound/malloc")->Apply(sizesAndThreads);
BENCHMARK(ReferenceMivra)->Name("Reference/Mivra");
BENCHMARK(ReferenceAvBuffer)->Name("Reference/av_buffer_ref");
BENCHMARK(ReferenceLimit)->Name("Reference/limit");

}  // namespace
