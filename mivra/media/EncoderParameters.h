#pragma once

#include <cstdint>
#include <string>

#include "mivra/common/model/MediaFramework.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Media {

/// How an encoder is to be made. A plain value. The statics are what records made afterwards begin with, and
/// what EncoderFactory takes without a record; an application sets them before its other threads make any.
struct MIVRA_API EncoderParameters {
    static Common::MediaFramework DefaultPreferredMediaFramework;
    static bool DefaultAllowHardwareAcceleration;

    Common::MediaFramework PreferredMediaFramework = DefaultPreferredMediaFramework;
    bool AllowHardwareAcceleration = DefaultAllowHardwareAcceleration;
    /// For the encoder, as key=value:key=value; see FfmpegEncoder.
    std::string Options;
    /// Threads that the encoder may use; -1: the engine decides.
    std::int32_t ThreadCount = -1;
    /// Bits that belong to the engine. None of today's defines any, so they change nothing; what FFmpeg calls
    /// flags is an option ("flags=+global_header").
    std::int32_t Flags = 0;
};

}  // namespace Mivra::Media
