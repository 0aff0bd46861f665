#include "mivra/media/Notification.h"

#include <exception>

#include "mivra/common/runtime/CallbackThread.h"
#include "mivra/common/runtime/GlobalLog.h"

namespace Mivra::Media {

void startNotification(Common::IReferenceable& object, std::function<void()> body) {
    object.AddRef();
    try {
        Common::StartCallbackThread(std::move(body));
    } catch (...) {
        object.Release();
        throw;
    }
}

void logListenerException(const char* where) noexcept {
    try {
        throw;
    } catch (const std::exception& exception) {
        Common::LogLine(Common::FileLog::Error, "%s: listener exception %s", where, exception.what());
    } catch (...) {
        Common::LogLine(Common::FileLog::Error, "%s: listener exception of unknown type", where);
    }
}

}  // namespace Mivra::Media
