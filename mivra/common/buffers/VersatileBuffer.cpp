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
    actualSize = 0;
    position = 0;
    pts = 0;
    dts = 0;
    duration = 0;
    streamIndex = 0;
    keyFrame = false;
    cleanPoint = false;
    discontinuity = false;
    if (!extraData.empty()) {
        extraData.clear();
    }
}

}  // namespace Mivra::Common
