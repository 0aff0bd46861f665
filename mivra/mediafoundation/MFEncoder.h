#pragma once

#include "mivra/common/runtime/Export.h"
#include "mivra/media/IEncoder.h"

namespace Mivra::MediaFoundation {

/// The encoder of the operating system's media framework. There is none on this platform: it is never usable,
/// accepts nothing and gives nothing.
class MIVRA_API MFEncoder : public Media::IEncoder {
public:
    MFEncoder(Common::MediaType* input, Common::MediaType* output, Media::EncoderParameters* parameters);

    bool Write(Common::PacketBuffer* frame) override;
    Common::PacketBuffer* Read() override;
    void Drain() override;
};

}  // namespace Mivra::MediaFoundation
