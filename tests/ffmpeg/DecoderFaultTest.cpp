// The decoder when something fails (a device, memory, FFmpeg itself), when there are many, and what it costs
// in memory.
#include <gtest/gtest.h>
#include <malloc.h>

#include <dirent.h>

#include <cstring>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/FfmpegDecoder.h"
#include "mivra/ffmpeg/FfmpegObjects.h"
#include "mivra/ffmpeg/HardwareDevices.h"
#include "mivra/platform/System.h"
#include "tests/ffmpeg/CodedStream.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Soak.h"
#include "tests/support/TempFolder.h"

extern "C" {
#include <libavutil/hwcontext.h>
}

namespace Mivra::Test {
namespace {

using Common::ContentType_t;
using Common::MediaType;
using Common::PacketBuffer;
using Common::Reference;
using FFmpeg::FfmpegDecoder;
using FFmpeg::FfmpegProxy;
using FFmpeg::g_hardware;
using Media::DecoderParameters;

constexpr ContentType_t kVideo = ContentType_t::Video;

/// A device that decodes in software, and what it does not do.
struct FakeDevice {
    std::vector<int> asked;  // device types, in order
    bool exists = true;
    int fetched = 0;
    int failsAt = -1;  // picture, from 0
};
FakeDevice s_device;

AVBufferRef* makeFakeDevice(int type) {
    s_device.asked.push_back(type);
    return s_device.exists && s_device.asked.size() > 1
               ? FFmpeg::FfmpegOptional::av_buffer_create(
                     static_cast<std::uint8_t*>(FfmpegProxy::av_mallocz(1)), 1,
                     [](void*, std::uint8_t* data) { FfmpegProxy::av_free(data); }, nullptr, 0)
               : nullptr;
}

class DecoderFaultTest : public testing::Test {
protected:
    DecoderFaultTest() {
        s_device = {};
        RunFfmpeg("-f lavfi -i testsrc2=size=96x64:rate=25:duration=1.2 -c:v libx264 -bf 2 -g 8 " + path);
        stream = ReadStream(path, kVideo);
    }
    ~DecoderFaultTest() override {
        g_hardware = realHardware;
        Platform::g_system = realSystem;
    }

    void useFakeDevice() {
        g_hardware.makeDevice = makeFakeDevice;
        g_hardware.attach = [](AVCodecContext&, AVBufferRef&, int) { return true; };
        g_hardware.fetch = [](AVFrame&) { return s_device.fetched++ == s_device.failsAt ? AVERROR(EIO) : 0; };
    }

    const FFmpeg::FfmpegUse use;
    LogCapture log;
    const TempFolder folder;
    const std::string path = folder / "a.mp4";
    CodedStream stream;
    const FFmpeg::HardwareTable realHardware = g_hardware;
    const Platform::SystemTable realSystem = Platform::g_system;
};

TEST_F(DecoderFaultTest, SoftwareTakesOverWhereADeviceFails) {
    const std::vector<FrameDigest> expected = FfmpegDigests(path, kVideo);
    ASSERT_EQ(expected.size(), 30u);
    useFakeDevice();
    for (int failsAt = -1; failsAt < 30; ++failsAt) {
        s_device = {};
        s_device.failsAt = failsAt;
        log.Clear();
        Common::LogLine(Common::FileLog::Trace, "%d", failsAt);  // else equal lines are folded
        FfmpegDecoder decoder(&stream.type, nullptr, nullptr);
        EXPECT_EQ(DecodeAll(decoder, stream), expected) << failsAt;
        EXPECT_EQ(log.Count("software goes on"), failsAt < 0 ? 0 : 1);
        EXPECT_EQ(log.Count("is decoded by CUDA"), 1);
        EXPECT_EQ(s_device.asked, (std::vector<int>{AV_HWDEVICE_TYPE_VAAPI, AV_HWDEVICE_TYPE_CUDA}));
    }
}

TEST_F(DecoderFaultTest, WithoutADeviceOrLeaveSoftwareDecodes) {
    const std::vector<FrameDigest> expected = FfmpegDigests(path, kVideo);
    useFakeDevice();
    s_device.exists = false;
    FfmpegDecoder refused(&stream.type, nullptr, nullptr);
    EXPECT_EQ(DecodeAll(refused, stream), expected);
    EXPECT_EQ(s_device.asked.size(), 2u);
    s_device = {};
    DecoderParameters parameters;
    parameters.AllowHardwareAcceleration = false;
    FfmpegDecoder software(&stream.type, nullptr, &parameters);
    EXPECT_EQ(DecodeAll(software, stream), expected);
    EXPECT_TRUE(s_device.asked.empty());
    EXPECT_EQ(s_device.fetched, 0);
    EXPECT_FALSE(log.Contains("is decoded by"));
}

TEST_F(DecoderFaultTest, WithoutFfmpegItIsUnusable) {
    FfmpegProxy::Unload();  // the fixture's
    Platform::g_system.openLibrary = [](const char*, int) -> void* { return nullptr; };
    {
        FfmpegDecoder decoder(&stream.type, nullptr, nullptr);
        EXPECT_FALSE(decoder.IsUsable());
        decoder.Write(stream.packets[0].get());
        EXPECT_EQ(decoder.Read(), nullptr);
        EXPECT_EQ(log.Count("the FFmpeg libraries cannot be loaded"), 1);
    }
    Platform::g_system = realSystem;
    EXPECT_TRUE(FfmpegProxy::Load());
}

TEST_F(DecoderFaultTest, WithoutTheOptionalFunctionsPicturesAreCopied) {
    const std::vector<FrameDigest> expected = FfmpegDigests(path, kVideo);
    const auto align = std::exchange(FFmpeg::FfmpegOptional::avcodec_align_dimensions2, nullptr);
    FfmpegDecoder decoder(&stream.type, nullptr, nullptr);
    EXPECT_EQ(DecodeAll(decoder, stream), expected);
    EXPECT_GE(log.Count("FFmpeg lacks avcodec_align_dimensions2, every picture is copied"), 1);
    FFmpeg::FfmpegOptional::avcodec_align_dimensions2 = align;
}

/// Writes all packets and drains; how many frames came.
std::size_t roundOf(FfmpegDecoder& decoder, const CodedStream& stream) {
    std::size_t frames = 0;
    const auto read = [&] {
        while (PacketBuffer* const frame = decoder.Read()) {
            frame->Release();
            ++frames;
        }
    };
    for (const auto& packet : stream.packets) {
        decoder.Write(packet.get());
        read();
    }
    decoder.Drain();
    read();
    read();  // a null for want of memory may have come between
    return frames;
}

TEST_F(DecoderFaultTest, EachFailedAllocationLosesAtMostFrames) {
    DecoderParameters parameters;
    parameters.ThreadCount = 1;
    MediaType scaled;
    scaled.Width() = 50;
    stream.packets.resize(6);
    for (MediaType* const output : {static_cast<MediaType*>(nullptr), &scaled}) {
        const std::uint64_t failures = ForEachNthFailure(FaultKind::Allocate, [&] {
            std::unique_ptr<FfmpegDecoder> made;
            try {
                made = std::make_unique<FfmpegDecoder>(&stream.type, output, &parameters);
            } catch (const std::bad_alloc&) {
                return;  // not even for the media types
            }
            EXPECT_LE(roundOf(*made, stream), 6u);
            const FaultPause pause;
            EXPECT_EQ(roundOf(*made, stream), made->IsUsable() ? 6u : 0u);  // the next stream is whole again
        });
        EXPECT_GT(failures, kCountsOperatorNew ? 20u : 0u);
    }
}

TEST_F(DecoderFaultTest, NothingIsLostWhenNobodyReads) {
    const std::vector<FrameDigest> expected = FfmpegDigests(path, kVideo);
    for (const int threads : {1, 4}) {
        DecoderParameters parameters;
        parameters.ThreadCount = threads;
        FfmpegDecoder decoder(&stream.type, nullptr, &parameters);
        for (const auto& packet : stream.packets) {
            decoder.Write(packet.get());
        }
        CodedStream none;
        EXPECT_EQ(DecodeAll(decoder, none), expected);
    }
}

TEST_F(DecoderFaultTest, TheSteadyStateAllocatesNothing) {
    MediaType scaled;
    scaled.Width() = 50;
    scaled.PixelFormat() = Common::PixelFormat_t::BGRA;
    for (MediaType* const output : {static_cast<MediaType*>(nullptr), &scaled}) {
        FfmpegDecoder decoder(&stream.type, output, nullptr);
        const auto round = [&] {
            for (const auto& packet : stream.packets) {
                packet->ExtraData().clear();
                decoder.Write(packet.get());
                while (PacketBuffer* const frame = decoder.Read()) {
                    frame->Release();
                }
            }
        };
        round();
        round();
        const FaultPlan plan(FaultKind::Allocate, UINT64_MAX);
        for (int i = 0; i < 5; ++i) {
            round();
        }
        EXPECT_EQ(plan.Calls(), 0u);
    }
}

TEST_F(DecoderFaultTest, AHundredAtOnceShareNothingAndTheirFramesOutliveThem) {
    const std::vector<FrameDigest> expected = FfmpegDigests(path, kVideo);
    std::vector<Reference<PacketBuffer>> frames;
    MediaType type;
    {
        DecoderParameters parameters;
        parameters.ThreadCount = 2;
        std::vector<std::unique_ptr<FfmpegDecoder>> decoders;
        for (int i = 0; i < 100; ++i) {
            decoders.push_back(std::make_unique<FfmpegDecoder>(&stream.type, nullptr, &parameters));
        }
        const auto readAll = [&] {
            for (const auto& decoder : decoders) {
                while (PacketBuffer* const frame = decoder->Read()) {
                    frames.push_back(Reference<PacketBuffer>::Adopt(frame));
                    type = decoder->GetOutputMediaType();
                }
            }
        };
        for (const auto& packet : stream.packets) {
            for (const auto& decoder : decoders) {
                decoder->Write(packet.get());
            }
            readAll();
        }
        for (const auto& decoder : decoders) {
            decoder->Drain();
        }
        readAll();
    }
    ASSERT_EQ(frames.size(), 3000u);
    for (const auto& frame : frames) {
        const auto place = static_cast<std::size_t>((frame->Pts() - expected[0].time) / 400000);
        ASSERT_LT(place, expected.size());
        EXPECT_EQ(Digest(*frame.get(), type), expected[place]);
    }
    frames.clear();
}

int threadCount() {
    int count = 0;
    DIR* const tasks = ::opendir("/proc/self/task");
    while (tasks != nullptr && ::readdir(tasks) != nullptr) {
        ++count;
    }
    ::closedir(tasks);
    return count;
}

TEST_F(DecoderFaultTest, ComesAndGoesWithoutGrowth) {
    const auto once = [this] {
        FfmpegDecoder decoder(&stream.type, nullptr, nullptr);
        for (std::size_t i = 0; i < 3; ++i) {
            decoder.Write(stream.packets[i].get());
        }
        if (PacketBuffer* const frame = decoder.Read()) {
            frame->Release();
        }
    };
    for (int i = 0; i < 10; ++i) {
        once();
    }
    const std::size_t before = ::mallinfo2().uordblks;
    const int threads = threadCount();
    const int rounds = SoakCount(50, 10000);
    for (int i = 0; i < rounds; ++i) {
        once();
    }
    EXPECT_LT(::mallinfo2().uordblks, before + 100000);
    EXPECT_EQ(threadCount(), threads);

    FfmpegProxy::Unload();  // the fixture's: each engine loads the libraries for itself
    for (int i = SoakCount(5, 200); i > 0; --i) {
        once();
    }
    EXPECT_EQ(FfmpegProxy::ReferenceCount(), 0);
    EXPECT_TRUE(FfmpegProxy::Load());
}

}  // namespace
}  // namespace Mivra::Test
