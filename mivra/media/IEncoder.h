#pragma once

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Export.h"
#include "mivra/media/EncoderParameters.h"

namespace Mivra::Media {

/// Raw frames in, compressed packets out. Made by EncoderFactory and owned through its pointer; one thread at
/// a time calls an object, different objects share nothing.
///
/// The caller writes frames and reads until null; at the end it drains and reads until null again. Times of
/// frames are in the Timescale of the input type, those of packets in the Timescale of the output type.
class MIVRA_API IEncoder {
public:
    /// Copies what it is given; each may be null, which stands for default values.
    IEncoder(Common::MediaType* input, Common::MediaType* output, EncoderParameters* parameters);
    IEncoder(const IEncoder&) = delete;
    IEncoder& operator=(const IEncoder&) = delete;
    virtual ~IEncoder();

    /// False when the frame was not accepted: the queue is full (read first, then write the frame again), the
    /// frame is refused (a log line says why), the encoder is drained or not usable. The caller keeps its
    /// reference; an accepted frame is not changed by anyone until the encoder has given back its own.
    virtual bool Write(Common::PacketBuffer* frame) = 0;
    /// The next packet, its one reference the caller's; null when there is none. Packets may outlive the
    /// encoder.
    virtual Common::PacketBuffer* Read() = 0;
    /// No more frames: what the encoder holds becomes readable.
    virtual void Drain() = 0;

    /// The type of the packets: deliberately the encoder's own, which lives as long as the encoder and is
    /// read by the thread that calls it. Asking for it makes it no longer dirty.
    Common::MediaType* GetOutputMediaType();
    /// Whether the type has changed (private data has become known, say) since it was last asked for.
    bool IsOutputMediaTypeDirty();
    /// Whether the engine can serve the media types; false from the constructor on when it cannot.
    bool IsUsable();

protected:
    Common::MediaType inputMediaType;
    Common::MediaType outputMediaType;
    EncoderParameters parameters;
    bool usable = false;
    bool outputMediaTypeDirty = false;
};

}  // namespace Mivra::Media
