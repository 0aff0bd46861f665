#include "mivra/mediafoundation/MFDecoder.h"

namespace Mivra::MediaFoundation {

MFDecoder::MFDecoder(Common::MediaType* input, Common::MediaType* output,
                     Media::DecoderParameters* parameters_)
    : IDecoder(input, output, parameters_) {}

MFDecoder::~MFDecoder() = default;

void MFDecoder::Write(Common::PacketBuffer*) {}

Common::PacketBuffer* MFDecoder::Read() {
    return nullptr;
}

void MFDecoder::Drain() {}

}  // namespace Mivra::MediaFoundation
