// A session from source to sinks beside a GStreamer pipeline appsrc ! tee ! (queue ! appsink)...: packets as
// fast as they go, the delay of single packets, and a whole life. Packets come from a pool and carry no
// payload on either side; as many may be in flight on one side as on the other.

#include <benchmark/benchmark.h>
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "mivra/mivra.h"

namespace {

using Mivra::Common::MediaType;
using Mivra::Common::PacketBuffer;
using Mivra::Media::MediaGlobal;
using Mivra::Media::MediaState;

constexpr int kInFlight = 200;  // the default of GStreamer's queue
constexpr int kDelayPackets = 1000;

std::int64_t nanoseconds() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

/// A number that grows, and somebody who waits for it.
class Count {
public:
    void Add() {
        value.fetch_add(1, std::memory_order_release);
        value.notify_one();
    }
    void WaitFor(std::int64_t wanted) const {
        for (std::int64_t now = value.load(); now < wanted; now = value.load())
            value.wait(now);
    }

private:
    std::atomic<std::int64_t> value{0};
};

class Source : public Mivra::Media::IMediaSource {
public:
    void Open() override { state = MediaState::Opened; }
    void Start() override {
        setStateInThread(MediaState::Started);
        if (onStart) onStart();
    }
    void Stop() override {}
    int GetStreamCount() override { return 1; }
    MediaType GetMediaType(int) override { return {}; }
    void Discard(std::map<int, bool>) override {}
    void SetDesiredOutputType(int, MediaType) override {}

    void Push(int size, std::int64_t pts = 0) {
        PacketBuffer* packet = MediaGlobal::LockBuffer(size);
        while (packet == nullptr) {
            std::this_thread::yield();
            packet = MediaGlobal::LockBuffer(size);
        }
        packet->Pts() = pts;
        packet->ActualSize() = size;
        onNewSample(0, packet);
        packet->Release();
    }
    std::function<void()> onStart;
};

class Sink : public Mivra::Media::IMediaSink {
public:
    explicit Sink(std::function<void(std::int64_t)> callback) : taken(std::move(callback)) {}
    void Open() override { setStateInThread(MediaState::Opened); }
    void Start(bool) override {}
    void Stop() override {}
    void AddStream(int, MediaType*) override {}
    void PushMedia(int, PacketBuffer* sample) override { taken(sample->Pts()); }

private:
    std::function<void(std::int64_t)> taken;
};

/// Ours: a running session.
class Session {
public:
    Session(int sinkCount, const std::function<void(std::int64_t)>& taken,
            std::function<void(Source&)> onStart = nullptr) {
        source = new Source;
        source->AddRef();
        if (onStart) source->onStart = [this, onStart] { onStart(*source); };
        session.AddSource(source);
        for (int i = 0; i < sinkCount; ++i) {
            auto* sink = new Sink(taken);
            sink->AddRef();
            session.AddSink(sink);
            sink->Release();
        }
        session.SetNoCaptureTimeout(INT64_MAX);
        session.Start();
    }
    ~Session() {
        session.Stop();
        source->Release();
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void WaitUntilRunning() const {
        while (session.State() != MediaState::Running)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the sinks open
    }
    void Push(int size, std::int64_t pts) { source->Push(size, pts); }

private:
    Mivra::Media::MediaSession session;
    Source* source;
};

/// The peer: a playing pipeline.
class Pipeline {
public:
    Pipeline(int sinkCount, int size, const std::function<void(std::int64_t)>& callback) : taken(callback) {
        pipeline = gst_pipeline_new(nullptr);
        source = gst_element_factory_make("appsrc", nullptr);
        GstElement* tee = gst_element_factory_make("tee", nullptr);
        g_object_set(source, "block", TRUE, "format", GST_FORMAT_TIME, "max-bytes",
                     static_cast<guint64>(kInFlight) * static_cast<guint64>(size), nullptr);
        gst_bin_add_many(GST_BIN(pipeline), source, tee, nullptr);
        gst_element_link(source, tee);
        for (int i = 0; i < sinkCount; ++i)
            addSink(tee);
        pool = gst_buffer_pool_new();
        GstStructure* config = gst_buffer_pool_get_config(pool);
        gst_buffer_pool_config_set_params(config, nullptr, static_cast<guint>(size), 0, 0);
        gst_buffer_pool_set_config(pool, config);
        gst_buffer_pool_set_active(pool, TRUE);
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
    }
    ~Pipeline() {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
        gst_buffer_pool_set_active(pool, FALSE);
        gst_object_unref(pool);
    }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    void Push(int, std::int64_t pts) {
        GstBuffer* buffer = nullptr;
        gst_buffer_pool_acquire_buffer(pool, &buffer, nullptr);
        GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(pts);
        gst_app_src_push_buffer(GST_APP_SRC(source), buffer);
    }

private:
    void addSink(GstElement* tee) {
        GstElement* queue = gst_element_factory_make("queue", nullptr);
        GstElement* sink = gst_element_factory_make("appsink", nullptr);
        g_object_set(queue, "max-size-buffers", kInFlight, "max-size-bytes", 0, "max-size-time",
                     G_GUINT64_CONSTANT(0), nullptr);
        g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = newSample;
        gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, this, nullptr);
        gst_bin_add_many(GST_BIN(pipeline), queue, sink, nullptr);
        gst_element_link_many(tee, queue, sink, nullptr);
    }
    static GstFlowReturn newSample(GstAppSink* sink, gpointer self) {
        GstSample* sample = gst_app_sink_pull_sample(sink);
        static_cast<Pipeline*>(self)->taken(
            static_cast<std::int64_t>(GST_BUFFER_PTS(gst_sample_get_buffer(sample))));
        gst_sample_unref(sample);
        return GST_FLOW_OK;
    }

    std::function<void(std::int64_t)> taken;
    GstElement* pipeline;
    GstElement* source;
    GstBufferPool* pool;
};

/// Packets per iteration; the last few of a run are still on their way when its time ends.
constexpr int kBatch = 1000;

template <typename Road>
void pushPackets(benchmark::State& state, Road& road, int size) {
    while (state.KeepRunningBatch(kBatch)) {
        for (int i = 0; i < kBatch; ++i)
            road.Push(size, 0);
    }
    state.SetItemsProcessed(state.iterations());
}

void sizePools() {
    MediaGlobal::Uninitialize();
    MediaGlobal::Initialize({1500, kInFlight, false, 1}, {65536, kInFlight, false, 1}, {131072, 4, false, 1});
}

void SessionPacketsMivra(benchmark::State& state) {
    sizePools();
    Session session(static_cast<int>(state.range(0)), [](std::int64_t) {});
    session.WaitUntilRunning();
    pushPackets(state, session, static_cast<int>(state.range(1)));
}

void SessionPacketsGStreamer(benchmark::State& state) {
    const int size = static_cast<int>(state.range(1));
    Pipeline pipeline(static_cast<int>(state.range(0)), size, [](std::int64_t) {});
    pushPackets(state, pipeline, size);
}

/// 1000 packets a second; "value" is the median delay in ns.
template <typename Road>
void measureDelay(benchmark::State& state, Road& road, std::vector<std::int64_t>& delays, Count& count) {
    for (auto _ : state) {
        auto next = std::chrono::steady_clock::now();
        for (int i = 0; i < kDelayPackets; ++i) {
            next += std::chrono::milliseconds(1);
            std::this_thread::sleep_until(next);
            road.Push(1500, nanoseconds());
        }
    }
    count.WaitFor(state.iterations() * kDelayPackets);
    std::nth_element(delays.begin(), delays.begin() + kDelayPackets / 2, delays.end());
    state.counters["value"] = static_cast<double>(delays[kDelayPackets / 2]);
}

void SessionDelayMivra(benchmark::State& state) {
    sizePools();
    std::vector<std::int64_t> delays;
    delays.reserve(kDelayPackets);
    Count count;
    const auto taken = [&](std::int64_t sent) {
        delays.push_back(nanoseconds() - sent);
        count.Add();
    };
    Session session(1, taken);
    session.WaitUntilRunning();
    measureDelay(state, session, delays, count);
}

void SessionDelayGStreamer(benchmark::State& state) {
    std::vector<std::int64_t> delays;
    delays.reserve(kDelayPackets);
    Count count;
    const auto taken = [&](std::int64_t sent) {
        delays.push_back(nanoseconds() - sent);
        count.Add();
    };
    Pipeline pipeline(1, 1500, taken);
    measureDelay(state, pipeline, delays, count);
}

/// Make, start, one sample, stop, destroy.
void SessionLifeMivra(benchmark::State& state) {
    sizePools();
    for (auto _ : state) {
        Count count;
        Session session(
            1, [&](std::int64_t) { count.Add(); }, [](Source& source) { source.Push(1500); });
        count.WaitFor(1);
    }
}

void SessionLifeGStreamer(benchmark::State& state) {
    for (auto _ : state) {
        Count count;
        Pipeline pipeline(1, 1500, [&](std::int64_t) { count.Add(); });
        pipeline.Push(1500, 0);
        count.WaitFor(1);
    }
}

void packets(benchmark::internal::Benchmark* benchmark) {
    for (const int sinks : {1, 3}) {
        for (const int size : {1500, 65536})
            benchmark->Args({sinks, size});
    }
    benchmark->UseRealTime();
}

const bool s_ready = [] {
    gst_init(nullptr, nullptr);
    MivraCommonInitialize();
    return true;
}();

BENCHMARK(SessionPacketsMivra)->Name("SessionPackets/Mivra")->Apply(packets);
BENCHMARK(SessionPacketsGStreamer)->Name("SessionPackets/GStreamer")->Apply(packets);
BENCHMARK(SessionDelayMivra)->Name("SessionDelay/Mivra")->Iterations(1)->UseRealTime();
BENCHMARK(SessionDelayGStreamer)->Name("SessionDelay/GStreamer")->Iterations(1)->UseRealTime();
BENCHMARK(SessionLifeMivra)->Name("SessionLife/Mivra")->UseRealTime();
BENCHMARK(SessionLifeGStreamer)->Name("SessionLife/GStreamer")->UseRealTime();

}  // namespace
