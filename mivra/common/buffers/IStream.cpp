#include "mivra/common/buffers/IStream.h"

namespace Mivra::Common {

IStream::~IStream() = default;

}  // namespace Mivra::Common
