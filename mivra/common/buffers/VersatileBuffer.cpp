#include "mivra/common/buffers/VersatileBuffer.h"

namespace Mivra::Common {

CritSec VersatileBuffer::staticCS;
int VersatileBuffer::idCounter = 1;

VersatileBuffer::VersatileBuffer() = default;

VersatileBuffer::~VersatileBuffer() = default;

int VersatileBuffer::nextId() {
    AutoLock guard(staticCS);
    const int next = idCounter;
    idCounter = next == INT32_MAX ? 1 : next + 1;
    return next;
}

int& VersatileBuffer::ActualSize() {
    return actualSize;
}

int& VersatileBuffer::Position() {
    return position;
}

void VersatileBuffer::CleanUp() {
    resetAttributes();
}

}  // namespace Mivra::Common
