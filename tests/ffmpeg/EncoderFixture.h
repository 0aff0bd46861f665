#pragma once

// What the tests of encoders share: raw media that are the same in every run, an encoder driven to its end,
// and FFmpeg's programs as judges of what came out.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/ffmpeg/FfmpegEncoder.h"
#include "mivra/ffmpeg/FfmpegFormats.h"
#include "mivra/ffmpeg/FfmpegLog.h"
#include "mivra/ffmpeg/FfmpegObjects.h"
#include "mivra/ffmpeg/FfmpegProxy.h"
#include "mivra/ffmpeg/PictureLayout.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#define MIVRA_TEST_LEAKS 1
#endif
#endif

namespace Mivra::Test {

/// What is allocated while it lives, on its thread, is no leak: libx265 keeps some of it for good.
class LeaksAllowed {
public:
#if defined(MIVRA_TEST_LEAKS)
    explicit LeaksAllowed(bool allowed_) : allowed(allowed_) {
        if (allowed) __lsan_disable();
    }
    ~LeaksAllowed() {
        if (allowed) __lsan_enable();
    }
    static constexpr bool kLooked = true;

private:
    const bool allowed;
#else
    explicit LeaksAllowed(bool /*allowed*/) {}
    ~LeaksAllowed() = default;
    static constexpr bool kLooked = false;

private:
#endif
    LeaksAllowed(const LeaksAllowed&) = delete;
    LeaksAllowed& operator=(const LeaksAllowed&) = delete;
};

using Frame = Common::Reference<Common::PacketBuffer>;
using Frames = std::vector<Frame>;

constexpr std::int64_t kSecond = 10000000;

struct VideoForm {
    int width = 176;
    int height = 144;
    Common::PixelFormat_t format = Common::PixelFormat_t::YUV420P;
    Common::Rational rate{25, 1};
};

Common::MediaType videoInput(const VideoForm& form);
Common::MediaType audioInput(Common::SampleFormat_t format, int rate, int channels);
/// What is wanted: nothing but the codec, and a bitrate if it is not 0.
Common::MediaType wanted(Common::Codec_t codec, int bitrate = 0);
Media::EncoderParameters encoderParameters(const std::string& options = {});
std::unique_ptr<FFmpeg::FfmpegEncoder> make(Common::MediaType input, Common::MediaType output,
                                            const std::string& options = {});

/// The time of picture n, in 100 ns, rounded to nearest.
std::int64_t pictureTime(std::int64_t n, const Common::Rational& rate);
/// A moving pattern; the type's "Stride" and "Rows" are kept to.
Frame picture(const Common::MediaType& type, int n);
/// A tone that differs from channel to channel, samples from `from` on.
Frame tone(const Common::MediaType& type, std::int64_t from, int samples);
Frames pictures(const Common::MediaType& type, int count);
Frames tones(const Common::MediaType& type, std::int64_t samples, int bufferSamples);

/// Writes everything, reads as soon as there is something, drains. A frame that is not accepted at once, and
/// not after reading either, fails the test.
Frames encode(FFmpeg::FfmpegEncoder& encoder, const Frames& frames);

/// The packets in a file of a container whose time base is 1/10000000.
void mux(const std::string& path, const char* format, const Common::MediaType& type, const Frames& packets);

/// Standard output of a command; standard error and a failure fail the test.
std::string run(const std::string& command);

std::string bytesOf(Common::PacketBuffer& packet);
std::string bytesOf(const Frames& packets);
std::string privateData(const Common::MediaType& type);
void setPrivateData(Common::MediaType& type, const std::string& data);

/// Ends with no error in the log, but those that the test has taken out of it, and no buffer out.
class EncoderTest : public ::testing::Test {
protected:
    EncoderTest();
    void TearDown() override;
    /// The one error line there is, which then no longer counts.
    std::string onlyError();

    LogCapture log{Common::FileLog::Debug};
    TempFolder folder;
    FFmpeg::FfmpegUse ffmpeg;
};

}  // namespace Mivra::Test
