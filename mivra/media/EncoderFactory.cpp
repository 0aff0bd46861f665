#include "mivra/media/EncoderFactory.h"

#include "mivra/ffmpeg/FfmpegEncoder.h"
#include "mivra/media/EngineTable.h"
#include "mivra/mediafoundation/MFEncoder.h"

namespace Mivra::Media {
namespace {

using Common::MediaType;

template <typename Engine>
std::shared_ptr<IEncoder> make(MediaType* input, MediaType* output, EncoderParameters* parameters) {
    return std::make_shared<Engine>(input, output, parameters);
}

}  // namespace

EngineTable<IEncoder, EncoderParameters> g_encoders{make<MediaFoundation::MFEncoder>,
                                                    make<FFmpeg::FfmpegEncoder>};

std::shared_ptr<IEncoder> EncoderFactory::Create(MediaType* input, MediaType* output,
                                                 EncoderParameters* parameters) {
    EncoderParameters own;
    if (parameters != nullptr) {
        own = *parameters;
    }
    return g_encoders.Choose(own.PreferredMediaFramework, input, output, &own);
}

}  // namespace Mivra::Media
