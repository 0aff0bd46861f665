#include "mivra/media/IEncoder.h"

namespace Mivra::Media {

IEncoder::IEncoder(Common::MediaType* input, Common::MediaType* output, EncoderParameters* wanted) {
    if (input != nullptr) {
        inputMediaType = *input;
    }
    if (output != nullptr) {
        outputMediaType = *output;
    }
    if (wanted != nullptr) {
        parameters = *wanted;
    }
}

IEncoder::~IEncoder() = default;

Common::MediaType* IEncoder::GetOutputMediaType() {
    outputMediaTypeDirty = false;
    return &outputMediaType;
}

bool IEncoder::IsOutputMediaTypeDirty() {
    return outputMediaTypeDirty;
}

bool IEncoder::IsUsable() {
    return usable;
}

}  // namespace Mivra::Media
