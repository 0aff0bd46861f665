#pragma once

namespace Mivra::Common {

/// Byte order of binary data.
enum class Endianness { Little = 0, Big = 1 };

}  // namespace Mivra::Common
