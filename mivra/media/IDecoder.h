#pragma once

#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Export.h"
#include "mivra/media/DecoderParameters.h"

namespace Mivra::Common {
class PacketBuffer;
}

namespace Mivra::Media {

/// A codec engine from compressed packets to raw frames. One thread at a time may call it; its frames may be
/// held and released on any thread, also when the engine has gone. Write packets, Read until null; at the end
/// of the input Drain and Read until null again.
class MIVRA_API IDecoder {
public:
    /// Copies what the pointers show; each may be null. output: what the frames shall be; what it leaves open
    /// (0, -1, None) stays as decoded. Nothing is thrown for types that cannot be served: IsUsable() is
    /// false. std::bad_alloc when there is no memory for the copies.
    IDecoder(Common::MediaType* input, Common::MediaType* output, DecoderParameters* parameters);
    IDecoder(const IDecoder&) = delete;
    IDecoder& operator=(const IDecoder&) = delete;
    virtual ~IDecoder();

    /// Takes one packet; the caller keeps its own reference. A packet that cannot be decoded is logged and
    /// dropped; the engine may mark the next frame (FFmpeg's does, see docs/engines.md). After Drain, the
    /// packet begins the stream anew.
    virtual void Write(Common::PacketBuffer* packet) = 0;
    /// The next frame, in the order of presentation, with one reference that is the caller's; null when none
    /// is ready.
    virtual Common::PacketBuffer* Read() = 0;
    /// The input ends: what the engine holds back becomes readable.
    virtual void Drain() = 0;

    /// What the frame that was read last is; before the first, what is known so far.
    Common::MediaType GetOutputMediaType() { return outputMediaType; }
    bool IsUsable() { return usable; }
    /// Set by the Read whose frame is of another type than told before; the caller clears it.
    bool& OutputMediaTypeDirty() { return outputMediaTypeDirty; }

protected:
    Common::MediaType inputMediaType;
    Common::MediaType wantedMediaType;  // as asked for
    Common::MediaType outputMediaType;
    DecoderParameters parameters;
    bool usable = false;
    bool outputMediaTypeDirty = false;
};

}  // namespace Mivra::Media
