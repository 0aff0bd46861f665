#pragma once

// The constructors of the codec engines as the factories call them. Each factory's source fills its own
// table; tests replace entries while no other thread runs, nothing else writes.

#include <memory>

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
};

extern EngineTable<IDecoder, DecoderParameters> g_decoders;  // DecoderFactory.cpp
extern EngineTable<IEncoder, EncoderParameters> g_encoders;  // EncoderFactory.cpp

}  // namespace Mivra::Media
