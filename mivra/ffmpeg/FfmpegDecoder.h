#pragma once

#include <memory>

#include "mivra/common/runtime/Export.h"
#include "mivra/media/IDecoder.h"

namespace Mivra::FFmpeg {

class DecoderEngine;

/// The decoder on FFmpeg's libraries: every video and audio codec that they have, in software or, where it is
/// allowed and the machine has a device, in hardware. Holds one FfmpegProxy::Load; its frames need none.
///
/// A frame may be shared with the decoder, which still predicts from it: it is to be read, not written.
/// Pictures lie as "Stride" and "Rows" of GetOutputMediaType() say, samples without gaps. Times are in
/// 1/10000000 s.
class MIVRA_API FfmpegDecoder : public Media::IDecoder {
public:
    FfmpegDecoder(Common::MediaType* input, Common::MediaType* output, Media::DecoderParameters* parameters);
    ~FfmpegDecoder() override;

    void Write(Common::PacketBuffer* packet) override;
    Common::PacketBuffer* Read() override;
    void Drain() override;

private:
    void tellType(Common::PacketBuffer& frame);

    std::unique_ptr<DecoderEngine> engine;
    int toldRevision = 0;
};

}  // namespace Mivra::FFmpeg
