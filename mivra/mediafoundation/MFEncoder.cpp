#include "mivra/mediafoundation/MFEncoder.h"

#include "mivra/common/runtime/GlobalLog.h"

namespace Mivra::MediaFoundation {

MFEncoder::MFEncoder(Common::MediaType* input, Common::MediaType* output, Media::EncoderParameters* wanted)
    : IEncoder(input, output, wanted) {
    Common::LogLine(Common::FileLog::Debug, "MFEncoder::MFEncoder[%p]: no Media Foundation on this system",
                    static_cast<void*>(this));
}

bool MFEncoder::Write(Common::PacketBuffer* /*frame*/) {
    return false;
}

Common::PacketBuffer* MFEncoder::Read() {
    return nullptr;
}

void MFEncoder::Drain() {}

}  // namespace Mivra::MediaFoundation
