// The pre-roll cache: a packet in with trimming while many are held, beside GStreamer's queue that leaks by
// time; through the disk, beside queue2 with a ring file and the same bytes written and read in blocks of
// 1 MiB; the drain of a minute of film, beside a copy and a read of the same bytes; the longest gap that a
// sink sees meanwhile, and the memory that is held for the bytes.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <gst/gst.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mivra/media/DiskCache.h"
#include "mivra/media/HeldPacket.h"
#include "mivra/media/MemoryCache.h"
#include "mivra/mivra.h"

namespace {

using Mivra::Common::MediaType;
using Mivra::Common::PacketBuffer;
using Mivra::Common::Reference;
using namespace Mivra::Media;

constexpr std::int64_t kTick = 10'000;  // a packet each millisecond, in 100 ns
constexpr int kFrameSize = 40'000;      // 8 Mbit/s at 25 frames a second
constexpr int kFrames = 60 * 25;
constexpr std::int64_t kFrameTime = 400'000;
constexpr std::size_t kBlock = 1 << 20;

std::string temporaryFolder() {
    static const std::string s_folder = [] {
        char name[] = "/tmp/mivra-bench-XXXXXX";
        return std::string(::mkdtemp(name) == nullptr ? "/tmp" : name) + '/';
    }();
    return s_folder;
}

std::vector<SampleCache::Source> oneSource(int videoStream) {
    return {{{Mivra::Common::Rational(1, 10'000'000)}, videoStream}};
}

Reference<PacketBuffer> makePacket(int size, std::int64_t time, bool key) {
    auto packet = OwnedPacket::Make(size);
    packet->ActualSize() = size;
    std::memset(packet->GetPointer(), 1, static_cast<std::size_t>(size));
    packet->Pts() = packet->Dts() = time;
    packet->KeyFrame() = key;
    return packet;
}

/// One packet in, and mostly one out at the head, while so many are held.
void appendAmong(std::int64_t held, benchmark::State& state) {
    MemoryCache cache(held * kTick, oneSource(0));
    // Held packets only matter by their references: a few are taken over and over.
    std::vector<Reference<PacketBuffer>> packets;
    for (int i = 0; i < 64; ++i)
        packets.push_back(makePacket(1500, 0, true));
    std::int64_t time = 0;
    const auto append = [&] {
        PacketBuffer* const packet = packets[static_cast<std::size_t>(time / kTick) % packets.size()].get();
        packet->Pts() = packet->Dts() = time;
        cache.Append(0, packet, 0);
        time += kTick;
    };
    for (std::int64_t i = 0; i < held; ++i)
        append();
    for (auto _ : state)
        append();
}

void CacheInMivra(benchmark::State& state) {
    appendAmong(state.range(0), state);
}

/// What the million is held against.
void CacheInAtThousand(benchmark::State& state) {
    appendAmong(1000, state);
}

/// A queue that drops from its head what is older than range(0) ms, and whose sink takes nothing.
void CacheInGStreamer(benchmark::State& state) {
    GstElement* const queue = gst_element_factory_make("queue", nullptr);
    g_object_set(queue, "leaky", 2, "max-size-buffers", 0, "max-size-bytes", 0, "max-size-time",
                 static_cast<guint64>(state.range(0)) * 1'000'000, nullptr);
    GstPad* const in = gst_element_get_static_pad(queue, "sink");
    GstPad* const from = gst_pad_new("from", GST_PAD_SRC);
    gst_pad_link(from, in);
    // The other end waits in its first packet for ever.
    GstPad* const to = gst_pad_new("to", GST_PAD_SINK);
    static std::atomic<bool> s_open{false};
    s_open = false;
    gst_pad_set_chain_function(to, [](GstPad*, GstObject*, GstBuffer* buffer) {
        gst_buffer_unref(buffer);
        s_open.wait(false);
        return GST_FLOW_FLUSHING;
    });
    gst_pad_set_active(to, TRUE);
    GstPad* const out = gst_element_get_static_pad(queue, "src");
    gst_pad_link(out, to);
    gst_pad_set_active(from, TRUE);
    gst_element_set_state(queue, GST_STATE_PLAYING);
    gst_pad_push_event(from, gst_event_new_stream_start("bench"));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_push_event(from, gst_event_new_segment(&segment));
    std::uint64_t time = 0;
    const auto push = [&] {
        GstBuffer* const buffer = gst_buffer_new();
        GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) = time;
        GST_BUFFER_DURATION(buffer) = 1'000'000;
        time += 1'000'000;
        gst_pad_push(from, buffer);
    };
    for (std::int64_t i = 0; i < state.range(0); ++i)
        push();
    for (auto _ : state)
        push();
    s_open = true;
    s_open.notify_all();
    gst_element_set_state(queue, GST_STATE_NULL);
    for (GstPad* pad : {in, out, from, to})
        gst_object_unref(pad);
    gst_object_unref(queue);
}

const std::vector<Reference<PacketBuffer>>& film() {
    static const auto* const s_film = [] {
        auto* made = new std::vector<Reference<PacketBuffer>>;
        for (int i = 0; i < kFrames; ++i)
            made->push_back(makePacket(kFrameSize, i * kFrameTime, i % 50 == 0));
        return made;
    }();
    return *s_film;
}

void fill(SampleCache& cache) {
    for (const auto& packet : film())
        cache.Append(0, packet.get(), 0);
}

int drain(SampleCache& cache) {
    int count = 0;
    for (SampleCache::Taken taken; cache.TakeFirst(taken) == SampleCache::Take::Sample; ++count) {
        taken.sample = {};
    }
    return count;
}

void CacheDiskMivra(benchmark::State& state) {
    film();
    for (auto _ : state) {
        DiskCache cache(INT64_MAX / 4, oneSource(0), temporaryFolder());
        fill(cache);
        if (drain(cache) != kFrames) state.SkipWithError("samples are missing");
    }
}

/// The bytes of all frames behind each other.
const std::vector<char>& filmBytes() {
    static const auto* const s_bytes = [] {
        auto* bytes = new std::vector<char>;
        for (const auto& packet : film())
            bytes->insert(bytes->end(), packet->GetPointer(), packet->GetPointer() + kFrameSize);
        return bytes;
    }();
    return *s_bytes;
}

/// The same bytes through one file, with the copies that nobody can do without.
void CacheDiskLimit(benchmark::State& state) {
    const std::vector<char>& all = filmBytes();
    std::vector<char> block(kBlock, 1);
    const std::string path = temporaryFolder() + "limit";
    const std::size_t bytes = all.size();
    for (auto _ : state) {
        const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        for (std::size_t done = 0; done < bytes; done += kBlock)
            benchmark::DoNotOptimize(::write(file, all.data() + done, std::min(kBlock, bytes - done)));
        ::lseek(file, 0, SEEK_SET);
        while (::read(file, block.data(), kBlock) > 0) {
        }
        ::close(file);
        ::unlink(path.c_str());
    }
}

void CacheDiskGStreamer(benchmark::State& state) {
    film();
    const std::string pattern = temporaryFolder() + "XXXXXX";
    for (auto _ : state) {
        GstElement* const queue = gst_element_factory_make("queue2", nullptr);
        g_object_set(queue, "use-buffering", FALSE, "max-size-buffers", 0, "max-size-time", guint64{0},
                     "max-size-bytes", static_cast<guint>(kFrameSize) * kFrames, "ring-buffer-max-size",
                     guint64{kFrameSize} * kFrames, "temp-template", pattern.c_str(), nullptr);
        GstPad* const in = gst_element_get_static_pad(queue, "sink");
        GstPad* const out = gst_element_get_static_pad(queue, "src");
        GstPad* const from = gst_pad_new("from", GST_PAD_SRC);
        GstPad* const to = gst_pad_new("to", GST_PAD_SINK);
        static std::atomic<std::size_t> s_bytes{0};
        s_bytes = 0;
        gst_pad_set_chain_function(to, [](GstPad*, GstObject*, GstBuffer* buffer) {
            s_bytes += gst_buffer_get_size(buffer);
            s_bytes.notify_all();
            gst_buffer_unref(buffer);
            return GST_FLOW_OK;
        });
        gst_pad_set_active(to, TRUE);
        gst_pad_link(from, in);
        gst_pad_link(out, to);
        gst_pad_set_active(from, TRUE);
        gst_element_set_state(queue, GST_STATE_PLAYING);
        gst_pad_push_event(from, gst_event_new_stream_start("bench"));
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_BYTES);
        gst_pad_push_event(from, gst_event_new_segment(&segment));
        std::size_t sent = 0;
        for (const auto& packet : film()) {
            GstBuffer* const buffer = gst_buffer_new_wrapped_full(
                GST_MEMORY_FLAG_READONLY, packet->GetPointer(), kFrameSize, 0, kFrameSize, nullptr, nullptr);
            GST_BUFFER_OFFSET(buffer) = sent;
            sent += kFrameSize;
            gst_pad_push(from, buffer);
        }
        gst_pad_push_event(from, gst_event_new_eos());
        for (std::size_t now = s_bytes; now < sent; now = s_bytes)
            s_bytes.wait(now);
        gst_element_set_state(queue, GST_STATE_NULL);
        for (GstPad* pad : {in, out, from, to})
            gst_object_unref(pad);
        gst_object_unref(queue);
    }
}

void CacheDrainMemory(benchmark::State& state) {
    film();
    for (auto _ : state) {
        state.PauseTiming();
        MemoryCache cache(INT64_MAX / 4, oneSource(0));
        fill(cache);
        state.ResumeTiming();
        drain(cache);
    }
}

void CacheDrainMemoryLimit(benchmark::State& state) {
    std::vector<char> to(std::size_t{kFrameSize} * 16);
    for (auto _ : state) {
        int place = 0;
        for (const auto& packet : film())
            std::memcpy(to.data() + std::size_t{kFrameSize} * static_cast<std::size_t>(place++ % 16),
                        packet->GetPointer(), kFrameSize);
        benchmark::ClobberMemory();
    }
}

void CacheDrainDisk(benchmark::State& state) {
    film();
    for (auto _ : state) {
        state.PauseTiming();
        auto cache = std::make_unique<DiskCache>(INT64_MAX / 4, oneSource(0), temporaryFolder());
        fill(*cache);
        state.ResumeTiming();
        drain(*cache);
        state.PauseTiming();
        cache.reset();
        state.ResumeTiming();
    }
}

void CacheDrainDiskLimit(benchmark::State& state) {
    std::vector<char> block(kBlock, 1);
    const std::string path = temporaryFolder() + "limit";
    const std::size_t bytes = std::size_t{kFrameSize} * kFrames;
    for (auto _ : state) {
        state.PauseTiming();
        int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        for (std::size_t done = 0; done < bytes; done += kBlock)
            benchmark::DoNotOptimize(::write(file, block.data(), std::min(kBlock, bytes - done)));
        ::lseek(file, 0, SEEK_SET);
        state.ResumeTiming();
        while (::read(file, block.data(), kBlock) > 0) {
        }
        ::unlink(path.c_str());
        ::close(file);
    }
}

/// A live source of video for a session.
class Source : public IMediaSource {
public:
    void Open() override { state = MediaState::Opened; }
    void Start() override { setStateInThread(MediaState::Started); }
    void Stop() override {}
    int GetStreamCount() override { return 1; }
    MediaType GetMediaType(int) override {
        MediaType type;
        type.ContentType() = Mivra::Common::ContentType_t::Video;
        return type;
    }
    void Discard(std::map<int, bool>) override {}
    void SetDesiredOutputType(int, MediaType) override {}
    using IMediaSource::onNewSample;
};

/// Notes the longest time between two samples.
class Sink : public IMediaSink {
public:
    void Open() override { setStateInThread(MediaState::Opened); }
    void Start(bool) override {}
    void Stop() override {}
    void AddStream(int, MediaType*) override {}
    void PushMedia(int, PacketBuffer*) override {
        const auto now = std::chrono::steady_clock::now();
        if (count != 0) gap = std::max<std::int64_t>(gap, (now - last).count());
        last = now;
        count.fetch_add(1);
        count.notify_all();
    }
    std::int64_t gap = 0;
    std::atomic<int> count{0};

private:
    std::chrono::steady_clock::time_point last;
};

/// "value": the longest gap in ns that a sink sees while a minute of film is drained and a sample goes on
/// arriving every millisecond; without a cache where range(0) is 0.
void gapOf(int type, benchmark::State& state) {
    ::setenv("XDG_DATA_HOME", temporaryFolder().c_str(), 1);
    constexpr int kLive = 300;
    const bool buffers = type != 0;
    std::int64_t gap = 0;
    for (auto _ : state) {
        MediaSession session;
        auto source = Reference<Source>(new Source);
        auto sink = Reference<Sink>(new Sink);
        session.AddSource(source.get());
        session.AddSink(sink.get());
        if (buffers) {
            session.StartBuffering(3600, static_cast<MediaSession::BufferingType>(type));
            while (session.State() != MediaState::Started)
                std::this_thread::yield();
            for (const auto& packet : film())
                source->onNewSample(0, packet.get());
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        session.Start();
        while (!buffers && session.State() != MediaState::Running)
            std::this_thread::yield();
        for (int i = 0; i < kLive; ++i) {
            source->onNewSample(0, film()[static_cast<std::size_t>(i)].get());
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        while (sink->count < (buffers ? kFrames : 0) + kLive)
            std::this_thread::yield();
        session.Stop();
        gap = std::max(gap, sink->gap);
    }
    state.counters["value"] = static_cast<double>(gap);
}

void CacheGap(benchmark::State& state) {
    gapOf(static_cast<int>(state.range(0)), state);
}

void CacheGapLive(benchmark::State& state) {
    gapOf(0, state);
}

/// "value": bytes that a second of 8 Mbit/s costs in the cache in packets of range(0) bytes out of buffers of
/// range(1), in hundredths of the packets' own bytes.
void CacheMemoryMivra(benchmark::State& state) {
    const auto size = static_cast<int>(state.range(0));
    MediaGlobal::Uninitialize();
    MediaGlobal::Initialize({static_cast<int>(state.range(1)), 2 * 1'000'000 / size + 10, false, 1},
                            {1 << 20, 1, false, 1}, {2 << 20, 1, false, 1});
    double ratio = 0;
    for (auto _ : state) {
        const std::size_t before = ::mallinfo2().uordblks + ::mallinfo2().hblkhd;
        MemoryCache cache(INT64_MAX / 4, oneSource(0));
        const int count = 1'000'000 / size;
        std::size_t lent = 0;
        for (int i = 0; i < count; ++i) {
            const auto packet = Reference<PacketBuffer>::Adopt(MediaGlobal::LockBuffer(size));
            packet->ActualSize() = size;
            packet->KeyFrame() = true;
            cache.Append(0, packet.get(), 0);
            lent += packet->ReferenceCount() > 1
                        ? static_cast<std::size_t>(packet->Size()) + sizeof(PacketBuffer)
                        : 0;
        }
        const std::size_t after = ::mallinfo2().uordblks + ::mallinfo2().hblkhd;
        ratio = 100.0 * static_cast<double>(after - before + lent) / (static_cast<double>(count) * size);
    }
    MediaGlobal::Uninitialize();
    state.counters["value"] = ratio;
}

const bool s_ready = [] {
    gst_init(nullptr, nullptr);
    MivraCommonInitialize();
    static const struct Remover {
        ~Remover() { std::filesystem::remove_all(temporaryFolder()); }
    } s_remover;
    return true;
}();

void held(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(1000)->Arg(100'000)->Arg(1'000'000);
}

BENCHMARK(CacheInMivra)->Name("CacheIn/Mivra")->Apply(held);
BENCHMARK(CacheInAtThousand)->Name("CacheIn/AtThousand")->Arg(1'000'000);
BENCHMARK(CacheInGStreamer)->Name("CacheIn/GStreamer")->Apply(held);
BENCHMARK(CacheDiskMivra)->Name("CacheDisk/Mivra")->UseRealTime();
BENCHMARK(CacheDiskLimit)->Name("CacheDisk/limit")->UseRealTime();
BENCHMARK(CacheDiskGStreamer)->Name("CacheDisk/GStreamer")->UseRealTime();
BENCHMARK(CacheDrainMemory)->Name("CacheDrainMemory/Mivra")->UseRealTime()->Iterations(20);
BENCHMARK(CacheDrainMemoryLimit)->Name("CacheDrainMemory/limit")->UseRealTime()->Iterations(20);
BENCHMARK(CacheDrainDisk)->Name("CacheDrainDisk/Mivra")->UseRealTime()->Iterations(10);
BENCHMARK(CacheDrainDiskLimit)->Name("CacheDrainDisk/limit")->UseRealTime()->Iterations(10);
BENCHMARK(CacheGap)->Name("CacheGap/Mivra")->Arg(1)->Arg(2)->Iterations(1);
BENCHMARK(CacheGapLive)->Name("CacheGap/live")->Arg(1)->Arg(2)->Iterations(1);
BENCHMARK(CacheMemoryMivra)
    ->Name("CacheHeldPercent/Mivra")
    ->Args({1500, 2000})
    ->Args({1400, 2000})
    ->Args({3500, 5120})
    ->Args({100, 5120})
    ->Iterations(1);

}  // namespace
