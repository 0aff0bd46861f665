#pragma once

#include "mivra/common/runtime/Export.h"
#include "mivra/media/IDecoder.h"

namespace Mivra::MediaFoundation {

/// The decoder of Windows' Media Foundation. On other systems it exists, is never usable, and takes and gives
/// nothing.
class MIVRA_API MFDecoder : public Media::IDecoder {
public:
    MFDecoder(Common::MediaType* input, Common::MediaType* output, Media::DecoderParameters* parameters);
    ~MFDecoder() override;

    void Write(Common::PacketBuffer* packet) override;
    Common::PacketBuffer* Read() override;
    void Drain() override;
};

}  // namespace Mivra::MediaFoundation
