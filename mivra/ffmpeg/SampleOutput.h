#pragma once

#include <cstdint>

#include "mivra/ffmpeg/FrameOutput.h"
#include "mivra/ffmpeg/FramePool.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/rational.h>
}

namespace Mivra::FFmpeg {

/// Audio samples: copied into one buffer, interleaved or a plane a channel without gaps as their format says;
/// through libswresample when format, rate or channels shall be others than decoded.
class SampleOutput : public FrameOutput {
public:
    SampleOutput(const Common::MediaType& input, const Common::MediaType& wanted);

    /// Null when samples of the wanted type can be made, otherwise why not, in words.
    static const char* WhyNot(const Common::MediaType& wanted);

    Result Make(AVFrame& frame, Common::Reference<Common::PacketBuffer>& made, bool& used) override;
    Result Finish(Common::Reference<Common::PacketBuffer>& made) override;
    void SetInput(const Common::MediaType&) override {}  // the frames say everything

private:
    struct Format {
        int format = -1;
        int rate = 0;
        AVChannelLayout channels{};  // owns no memory
        bool operator==(const Format& other) const;
    };

    bool startFormat(const Format& decoded);
    bool startResampler();
    Result copy(const AVFrame& frame, Common::Reference<Common::PacketBuffer>& made);
    Result resample(const AVFrame* frame, Common::Reference<Common::PacketBuffer>& made);
    FrameBuffer* lend(int samples);
    void noteTime(const AVFrame& frame);
    void finish(FrameBuffer& made, int samples);
    void tellType();

    const Common::MediaType wanted;
    const FramePool::Pointer pool;
    Format from;
    Format to;
    Format told;
    ResamplerPointer resampler;
    bool refused = false;
    // Since the time below: how many samples have gone in, and come out.
    std::int64_t startTime;  // in kEngineTimeBase; kUnsetTime: nobody knows
    std::int64_t samplesIn = 0;
    std::int64_t samplesOut = 0;
};

}  // namespace Mivra::FFmpeg
