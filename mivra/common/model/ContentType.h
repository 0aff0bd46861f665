#pragma once

namespace Mivra::Common {

/// Kind of an elementary stream.
enum class ContentType_t : int { Unknown = -1, Video = 0, Audio = 1, Text = 2, Binary = 3 };

}  // namespace Mivra::Common
