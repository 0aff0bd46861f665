#pragma once

#include <cstdint>

#include "mivra/ffmpeg/FrameOutput.h"
#include "mivra/ffmpeg/FramePool.h"
#include "mivra/ffmpeg/PictureLayout.h"
#include "mivra/ffmpeg/PictureScaler.h"

namespace Mivra::FFmpeg {

/// Pictures: handed out in the very buffer that they were decoded into where size, format and layout are as
/// wanted; else copied, or scaled and converted, into a buffer of another pool.
class PictureOutput : public FrameOutput {
public:
    /// lent: the pool that the decoder decodes into.
    PictureOutput(const Common::MediaType& input, const Common::MediaType& wanted, FramePool::Pointer lent);

    /// Null when pictures of the wanted type can be made, otherwise why not, in words.
    static const char* WhyNot(const Common::MediaType& wanted);

    Result Make(AVFrame& frame, Common::Reference<Common::PacketBuffer>& made, bool& used) override;
    Result Finish(Common::Reference<Common::PacketBuffer>& made) override;
    void SetInput(const Common::MediaType& input) override;

private:
    /// What the output type says of a picture.
    struct Traits {
        PictureLayout layout;
        Common::Rational aspect;
        int range = 0;
        int primaries = 0;
        int transfer = 0;
        int space = 0;
        int location = 0;
        bool operator==(const Traits&) const = default;
    };

    FrameBuffer* decodedInto(const AVFrame& frame);
    bool isWanted(const PictureLayout& layout) const;
    bool chooseTarget(const AVFrame& frame, const FrameBuffer* source);
    Result convert(AVFrame& frame, const FrameBuffer* source, FrameBuffer*& made);
    Common::Rational aspectOf(const AVFrame& frame, const PictureLayout& layout) const;
    void tellType(const AVFrame& frame, const PictureLayout& layout);
    void tellTimes(const AVFrame& frame, Common::PacketBuffer& made);
    Result refuse(const AVFrame& frame);

    const Common::MediaType wanted;
    Common::Rational inputAspect;
    std::int64_t usualDuration = 0;  // of a frame, 0: unknown; this and nextTime in kEngineTimeBase
    std::int64_t nextTime = 0;       // a stream without any times begins at 0
    const FramePool::Pointer lent;
    const FramePool::Pointer own;
    PictureScaler scaler;
    PictureLayout source;  // the picture that `target` was chosen for
    PictureLayout target;
    Traits told;
    bool refused = false;
};

}  // namespace Mivra::FFmpeg
