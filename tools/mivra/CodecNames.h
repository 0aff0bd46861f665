#pragma once

#include <optional>
#include <string>

#include "mivra/common/model/Codec.h"
#include "mivra/common/model/ContentType.h"

namespace Mivra::Tool {

/// The codec that a word of the command line names, of streams of a kind; nothing when it names none.
std::optional<Common::Codec_t> findCodec(Common::ContentType_t kind, const std::string& word);

/// "h264, h265, ..."
std::string codecWords(Common::ContentType_t kind);

/// Bits a second for an encoder whose own choice would ruin the picture; 0: it knows best.
std::int32_t usualBitrate(Common::Codec_t codec, int width, int height, double framerate);

/// It knows the presets from "ultrafast" to "placebo".
bool hasPresets(Common::Codec_t codec);

}  // namespace Mivra::Tool
