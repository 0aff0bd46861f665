#include "mivra/common/runtime/INotifyPropertyChanged.h"

#include <utility>

namespace Mivra::Common {

constinit CritSec INotifyPropertyChanged::s_CS;
constinit std::int64_t INotifyPropertyChanged::s_IdCounter = 1;

INotifyPropertyChanged::INotifyPropertyChanged() {
    AutoLock guard(s_CS);
    objectId = s_IdCounter++;
}

INotifyPropertyChanged::~INotifyPropertyChanged() = default;

std::int64_t INotifyPropertyChanged::AddPropertyChangedListener(PropertyChangedCallback callback) {
    AutoLock guard(lock);
    const std::int64_t id = nextListenerId;
    listeners.emplace(id, std::move(callback));
    ++nextListenerId;
    return id;
}

void INotifyPropertyChanged::RemovePropertyChangedListener(std::int64_t id) {
    PropertyChangedCallback removed;  // destroyed outside the lock
    AutoLock guard(lock);
    if (const auto found = listeners.find(id); found != listeners.end()) {
        removed = std::move(found->second);
        listeners.erase(found);
    }
}

void INotifyPropertyChanged::onPropertyChanged(std::string name) {
    for (std::int64_t next = 0;;) {
        PropertyChangedCallback callback;
        {
            AutoLock guard(lock);
            const auto found = listeners.lower_bound(next);
            if (found == listeners.end()) return;
            callback = found->second;
            next = found->first + 1;
        }
        callback(this, name);
    }
}

}  // namespace Mivra::Common
