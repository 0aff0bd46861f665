#pragma once

#include "mivra/common/buffers/StreamWindow.h"

namespace Mivra::Common {

class IStream;

/// The window of a stream; null for a stream of any other class, derived ones included, since those may have
/// operations of their own.
StreamWindow* FindStreamWindow(IStream* stream) noexcept;

}  // namespace Mivra::Common
