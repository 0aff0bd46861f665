#pragma once

#include <cstdint>

#include "mivra/common/model/MediaFramework.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Media {

/// What a decoder is made with, beside its media types. The defaults are read when a record is constructed;
/// an application changes them before its threads make records.
struct MIVRA_API DecoderParameters {
    Common::MediaFramework PreferredMediaFramework = DefaultPreferredMediaFramework;
    bool AllowHardwareAcceleration = DefaultAllowHardwareAcceleration;
    /// Threads that the engine decodes with; 0: the engine decides.
    std::int32_t ThreadCount = 0;

    static Common::MediaFramework DefaultPreferredMediaFramework;  ///< at first Automatic
    static bool DefaultAllowHardwareAcceleration;                  ///< at first true
};

}  // namespace Mivra::Media
