#include "mivra/common/runtime/IReferenceable.h"

namespace Mivra::Common {

IReferenceable::~IReferenceable() = default;

bool IReferenceable::onFinalRelease() {
    return false;
}

int IReferenceable::AddRef() {
    AutoLock guard(referenceLock);
    return ++referenceCount;
}

int IReferenceable::Release() {
    int count;
    {
        AutoLock guard(referenceLock);
        count = --referenceCount;
    }
    if (count == 0 && !onFinalRelease()) {
        delete this;
    }
    return count;
}

int IReferenceable::GetRefCount() {
    AutoLock guard(referenceLock);
    return referenceCount;
}

}  // namespace Mivra::Common
