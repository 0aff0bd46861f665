#pragma once

// Internal: the short threads on which sources and sinks tell their listeners. Each holds a reference to its
// object until the listeners have been called.

#include <functional>
#include <utility>

#include "mivra/common/runtime/IReferenceable.h"

namespace Mivra::Media {

/// Takes a reference to the object and starts a callback thread; the body gives the reference back through
/// notifyAndRelease. When no thread can be had, the reference is given back before the exception leaves.
void startNotification(Common::IReferenceable& object, std::function<void()> body);

/// Writes the line of an exception that a listener let out; called inside a catch block.
void logListenerException(const char* where) noexcept;

/// Calls notify, logs what it throws, and gives back the reference of startNotification.
template <typename Notify>
void notifyAndRelease(Common::IReferenceable& object, const char* where, Notify&& notify) {
    try {
        notify();
    } catch (...) {
        logListenerException(where);
    }
    object.Release();
}

}  // namespace Mivra::Media
