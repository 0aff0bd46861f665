#pragma once

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/ffmpeg/FfmpegObjects.h"

namespace Mivra::FFmpeg {

/// From FFmpeg's frames, their times in kEngineTimeBase, to packet buffers of the type that the caller wants.
/// Used by one thread at a time.
class FrameOutput {
public:
    enum class Result {
        Made,
        Nothing,   ///< The frame has been taken in (or cannot be converted, which is logged); no buffer yet.
        NoMemory,  ///< The same frame may be offered again.
    };

    FrameOutput() = default;
    FrameOutput(const FrameOutput&) = delete;
    FrameOutput& operator=(const FrameOutput&) = delete;
    virtual ~FrameOutput() = default;

    /// used: false when what was made comes from earlier frames, and this one is to be offered again.
    virtual Result Make(AVFrame& frame, Common::Reference<Common::PacketBuffer>& made, bool& used) = 0;
    /// What is left at the end of the input; Nothing when there is none.
    virtual Result Finish(Common::Reference<Common::PacketBuffer>& made) = 0;

    /// The frames from now on come from another stream than told before.
    virtual void SetInput(const Common::MediaType& input) = 0;

    /// What the buffer that was made last is; before the first, what is known of it.
    const Common::MediaType& Type() const { return type; }
    /// Another number when Type() has changed.
    int Revision() const { return revision; }

protected:
    int revision = 0;
    Common::MediaType type;
};

}  // namespace Mivra::FFmpeg
