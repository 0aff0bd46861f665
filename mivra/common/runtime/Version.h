#pragma once

#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// The version that the library reports of itself, in log lines and to tools: the one place that holds it.
MIVRA_API const char* LibraryVersion() noexcept;

}  // namespace Mivra::Common
