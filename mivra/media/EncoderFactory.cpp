#include "mivra/media/EncoderFactory.h"

#include "mivra/ffmpeg/FfmpegEncoder.h"
#include "mivra/media/EngineTable.h"
#include "mivra/mediafoundation/MFEncoder.h"

namespace Mivra::Media {
namespace {

using Common::MediaFramework;
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
    switch (own.PreferredMediaFramework) {
        case MediaFramework::Automatic: {
            std::shared_ptr<IEncoder> engine = g_encoders.mediaFoundation(input, output, &own);
            if (!engine->IsUsable()) {
                engine.reset();  // before the other one is made
                engine = g_encoders.ffmpeg(input, output, &own);
            }
            return engine;
        }
        case MediaFramework::MediaFoundation:
        case MediaFramework::MediaFoundationOnly:  // deliberately the same
            return g_encoders.mediaFoundation(input, output, &own);
        case MediaFramework::FFmpeg:
            return g_encoders.ffmpeg(input, output, &own);
    }
    return nullptr;
}

}  // namespace Mivra::Media
