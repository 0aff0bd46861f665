#include "mivra/media/IDecoder.h"

namespace Mivra::Media {

Common::MediaFramework DecoderParameters::DefaultPreferredMediaFramework = Common::MediaFramework::Automatic;
bool DecoderParameters::DefaultAllowHardwareAcceleration = true;

IDecoder::IDecoder(Common::MediaType* input, Common::MediaType* output, DecoderParameters* parameters_) {
    if (input != nullptr) {
        inputMediaType = *input;
    }
    if (output != nullptr) {
        wantedMediaType = *output;
        outputMediaType = *output;
    }
    if (parameters_ != nullptr) {
        parameters = *parameters_;
    }
}

IDecoder::~IDecoder() = default;

}  // namespace Mivra::Media
