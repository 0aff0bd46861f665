#include "mivra/media/DecoderFactory.h"

#include "mivra/ffmpeg/FfmpegDecoder.h"
#include "mivra/media/EngineTable.h"
#include "mivra/mediafoundation/MFDecoder.h"

namespace Mivra::Media {
namespace {

using Common::MediaType;

template <typename Engine>
std::shared_ptr<IDecoder> make(MediaType* input, MediaType* output, DecoderParameters* parameters) {
    return std::make_shared<Engine>(input, output, parameters);
}

}  // namespace

constinit EngineTable<IDecoder, DecoderParameters> g_decoders = {make<MediaFoundation::MFDecoder>,
                                                                 make<FFmpeg::FfmpegDecoder>};

std::shared_ptr<IDecoder> DecoderFactory::Create(MediaType* input, MediaType* output,
                                                 DecoderParameters* parameters) {
    DecoderParameters own;
    if (parameters != nullptr) {
        own = *parameters;
    }
    return g_decoders.Choose(own.PreferredMediaFramework, input, output, &own);
}

}  // namespace Mivra::Media
