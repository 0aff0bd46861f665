#include "mivra/media/DecoderFactory.h"

#include "mivra/ffmpeg/FfmpegDecoder.h"
#include "mivra/media/EngineTable.h"
#include "mivra/mediafoundation/MFDecoder.h"

namespace Mivra::Media {
namespace {

using Common::MediaFramework;
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
    switch (own.PreferredMediaFramework) {
        case MediaFramework::Automatic:
            if (auto engine = g_decoders.mediaFoundation(input, output, &own); engine->IsUsable()) {
                return engine;
            }
            return g_decoders.ffmpeg(input, output, &own);
        case MediaFramework::MediaFoundation:
        case MediaFramework::MediaFoundationOnly:
            return g_decoders.mediaFoundation(input, output, &own);
        case MediaFramework::FFmpeg:
            return g_decoders.ffmpeg(input, output, &own);
        default:
            return nullptr;
    }
}

}  // namespace Mivra::Media
