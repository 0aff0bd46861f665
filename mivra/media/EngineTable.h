#pragma once

// The constructors of the codec engines as the factories call them. Each factory's source fills its own
// table; tests replace entries while no other thread runs, nothing else writes.

#include <memory>

#include "mivra/common/model/MediaFramework.h"

namespace Mivra::Common {
class MediaType;
}

namespace Mivra::Media {

class IDecoder;
class IEncoder;
struct DecoderParameters;
struct EncoderParameters;

/// Neither constructor throws for media types that it cannot serve: the engine is then unusable.
template <typename Engine, typename Parameters>
struct EngineTable {
    using Make = std::shared_ptr<Engine> (*)(Common::MediaType* input, Common::MediaType* output,
                                             Parameters* parameters);
    Make mediaFoundation;
    Make ffmpeg;

    /// Automatic: FFmpeg's engine where the other one is unusable, which is gone before. Null for a framework
    /// that nobody serves.
    std::shared_ptr<Engine> Choose(Common::MediaFramework framework, Common::MediaType* input,
                                   Common::MediaType* output, Parameters* parameters) const {
        using Common::MediaFramework;
        switch (framework) {
            case MediaFramework::Automatic:
                if (auto engine = mediaFoundation(input, output, parameters); engine->IsUsable()) {
                    return engine;
                }
                return ffmpeg(input, output, parameters);
            case MediaFramework::MediaFoundation:
            case MediaFramework::MediaFoundationOnly:  // deliberately the same
                return mediaFoundation(input, output, parameters);
            case MediaFramework::FFmpeg:
                return ffmpeg(input, output, parameters);
        }
        return nullptr;
    }
};

extern EngineTable<IDecoder, DecoderParameters> g_decoders;  // DecoderFactory.cpp
extern EngineTable<IEncoder, EncoderParameters> g_encoders;  // EncoderFactory.cpp

}  // namespace Mivra::Media
