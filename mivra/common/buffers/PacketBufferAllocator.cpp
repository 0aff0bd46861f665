#include "mivra/common/buffers/PacketBufferAllocator.h"

namespace Mivra::Common {

PacketBufferAllocator::~PacketBufferAllocator() = default;

}  // namespace Mivra::Common
