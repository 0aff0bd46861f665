#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "mivra/common/model/Codec.h"
#include "tools/mivra/ExitCode.h"
#include "tools/mivra/FfmpegSupport.h"

namespace Mivra::Tool {

/// What becomes of the streams of one kind.
struct CodecChoice {
    bool copy = false;
    std::optional<Common::Codec_t> codec;  ///< nothing: the usual one
};

struct TranscodeOptions {
    std::string input;
    std::string output;
    CodecChoice video;
    CodecChoice audio;
    int width = 0;  ///< 0: as it is, as the height
    int height = 0;
    std::int32_t bitrate = 0;  ///< bits a second; 0: the encoder's choice
    AVRational rate{0, 1};     ///< pictures a second; 0: as they are
    std::string preset;
    int threads = 0;  ///< 0: the engines decide
    bool hardware = true;
    double start = 0;    ///< seconds
    double seconds = 0;  ///< of media; 0: all
    double statsSeconds = 1;
    bool json = false;
    std::string log;
    int logLevel = 3;
};

/// Decodes the streams of the input and encodes them anew into the output: a source, a session and a sink,
/// until the input ends, a problem ends it or Ctrl-C asks for the end. Tells what goes wrong itself.
ExitCode transcode(const TranscodeOptions& options);

}  // namespace Mivra::Tool
