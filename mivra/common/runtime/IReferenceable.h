#pragma once

#include "mivra/common/runtime/CritSec.h"

namespace Mivra::Common {

/// Base of reference-counted objects. The count starts at 0: who makes an object takes the first reference
/// with AddRef before anyone else can see it. Any thread may add and release references.
class MIVRA_API IReferenceable {
public:
    IReferenceable() = default;
    IReferenceable(const IReferenceable&) = delete;
    IReferenceable& operator=(const IReferenceable&) = delete;
    virtual ~IReferenceable();

protected:
    /// Called when the last reference has gone, outside the lock; true keeps the object alive.
    virtual bool onFinalRelease();

public:
    /// Both return the new count. Release deletes the object at 0 unless onFinalRelease() keeps it.
    int AddRef();
    int Release();
    int GetRefCount();

private:
    CritSec referenceLock;
    int referenceCount MIVRA_GUARDED_BY(referenceLock) = 0;
};

}  // namespace Mivra::Common
