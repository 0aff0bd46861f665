#include "mivra/common/runtime/CallbackThread.h"

#include <exception>
#include <memory>
#include <new>
#include <system_error>
#include <utility>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/ThreadHelper.h"
#include "mivra/common/runtime/WakeEvent.h"
#include "mivra/platform/System.h"

namespace Mivra::Common {

class CallbackThread {
public:
    static void Start(std::function<void()> body);

private:
    static ThreadHelper::QueuedThreads::node_type launch(std::function<void()> body,
                                                         std::shared_ptr<WakeEvent> queued);
    static void run(std::function<void()>& body, WakeEvent& queued) noexcept;
    static void finish() noexcept;
};

void CallbackThread::Start(std::function<void()> body) {
    ThreadHelper::QueuedThreads::node_type entry;
    std::shared_ptr<WakeEvent> queued;
    try {
        queued = std::make_shared<WakeEvent>();
        entry = launch(std::move(body), queued);
    } catch (const std::bad_alloc&) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                                "StartCallbackThread");
    }
    auto ended = ThreadHelper::enqueue(std::move(entry));
    queued->Notify();
    try {
        ThreadHelper::join(std::move(ended));
    } catch (const std::exception& error) {
        LogLine(FileLog::Error, "StartCallbackThread: %s", error.what());
    }
}

ThreadHelper::QueuedThreads::node_type CallbackThread::launch(std::function<void()> body,
                                                              std::shared_ptr<WakeEvent> queued) {
    auto entry = ThreadHelper::makeEntry();
    entry.mapped() = Platform::System().startThread(
        [body = std::move(body), queued = std::move(queued)]() mutable { run(body, *queued); });
    entry.key() = entry.mapped()->get_id();
    return entry;
}

void CallbackThread::run(std::function<void()>& body, WakeEvent& queued) noexcept {
    try {
        body();
    } catch (const std::exception& error) {
        LogLine(FileLog::Error, "CallbackThread: exception out of a callback: %s", error.what());
    } catch (...) {
        LogLine(FileLog::Error, "CallbackThread: exception out of a callback");
    }
    body = nullptr;  // with what it holds
    while (queued.Sequence() == 0) {
        queued.Wait(0, -1);
    }
    finish();
}

void CallbackThread::finish() noexcept {
    try {
        ThreadHelper::FinishThread(std::this_thread::get_id());
    } catch (const std::exception&) {
        // Out of memory: the thread stays until Cleanup.
    }
}

void StartCallbackThread(std::function<void()> body) {
    CallbackThread::Start(std::move(body));
}

}  // namespace Mivra::Common
