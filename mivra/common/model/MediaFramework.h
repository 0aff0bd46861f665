#pragma once

namespace Mivra::Common {

/// Which codec engines a factory builds. Only the values with a name and 0 to 8 are looked at: 1 and 2 mean
/// the same to the factories, any other value means no engine.
enum class MediaFramework : int {
    Automatic = 0,  ///< The operating system's engine when it is usable, else FFmpeg's.
    MediaFoundation = 1,
    MediaFoundationOnly = 2,
    FFmpeg = 8
};

}  // namespace Mivra::Common
