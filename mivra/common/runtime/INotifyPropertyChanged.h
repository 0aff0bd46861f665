#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// Base of objects that report a changed property by its name. Any thread may add and remove listeners, also
/// from within one.
class MIVRA_API INotifyPropertyChanged {
public:
    using PropertyChangedCallback = std::function<void(void* sender, std::string name)>;

    /// Takes the next object id: 1, 2, 3, … in order of construction, process-wide.
    INotifyPropertyChanged();
    INotifyPropertyChanged(const INotifyPropertyChanged&) = delete;
    INotifyPropertyChanged& operator=(const INotifyPropertyChanged&) = delete;
    virtual ~INotifyPropertyChanged();

    std::int64_t GetObjectId() const noexcept { return objectId; }

    /// Returns the listener's id, from 0 upwards.
    std::int64_t AddPropertyChangedListener(PropertyChangedCallback callback);
    /// An unknown id is ignored.
    void RemovePropertyChangedListener(std::int64_t id);

protected:
    /// Calls the listeners in order of their ids on this thread, outside the lock; those that are added or
    /// removed meanwhile count. An empty callback throws std::bad_function_call.
    void onPropertyChanged(std::string name);

private:
    std::int64_t objectId;
    CritSec lock;
    std::int64_t nextListenerId MIVRA_GUARDED_BY(lock) = 0;
    std::map<std::int64_t, PropertyChangedCallback> listeners MIVRA_GUARDED_BY(lock);

    static std::int64_t s_IdCounter;
    static CritSec s_CS;
};

}  // namespace Mivra::Common
