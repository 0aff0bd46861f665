#include "mivra/common/runtime/ThreadHelper.h"

#include <cstddef>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/WakeEvent.h"

namespace Mivra::Common {
namespace {

// Told when a reaper has joined what it took.
constinit WakeEvent s_joined;

// Gives a lock back for the lifetime of a scope; the thread-safety analysis does not know such a thing.
class Unlocked {
public:
    explicit Unlocked(CritSec& section) MIVRA_NO_THREAD_SAFETY_ANALYSIS : lock(section) { lock.Unlock(); }
    ~Unlocked() MIVRA_NO_THREAD_SAFETY_ANALYSIS { lock.Lock(); }
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;

private:
    CritSec& lock;
};

}  // namespace

constinit CritSec ThreadHelper::s_CS;
constinit int ThreadHelper::s_Joining = 0;

// Never destroyed: a thread may report its end while the process exits. Their first use, with a thread
// already running, needs no memory that could be missing.
ThreadHelper::QueuedThreads& ThreadHelper::queuedThreads() {
    alignas(QueuedThreads) static std::byte storage[sizeof(QueuedThreads)];
    static auto& threads = *new (static_cast<void*>(storage)) QueuedThreads;
    return threads;
}

ThreadHelper::FinishedThreads& ThreadHelper::finishedThreads() {
    alignas(FinishedThreads) static std::byte storage[sizeof(FinishedThreads)];
    static auto& ids = *new (static_cast<void*>(storage)) FinishedThreads;
    return ids;
}

void ThreadHelper::QueueThread(std::thread* thread) {
    auto entry = makeEntry();
    entry.key() = thread->get_id();
    entry.mapped() = thread;
    join(enqueue(std::move(entry)));
}

// An entry of the map ahead of its thread, so that taking a started thread over cannot fail.
ThreadHelper::QueuedThreads::node_type ThreadHelper::makeEntry() {
    QueuedThreads one;
    one.emplace(std::thread::id(), nullptr);
    return one.extract(one.begin());
}

// Takes the threads that have ended, then inserts the new one. Returns those that the caller has to join.
ThreadHelper::QueuedThreads ThreadHelper::enqueue(QueuedThreads::node_type entry) {
    AutoLock guard(s_CS);
    QueuedThreads ended = takeFinished();
    if (!queuedThreads().contains(entry.key())) {
        // A report under this id that nobody has taken is not the new thread's: the system reuses ids.
        finishedThreads().erase(entry.key());
        queuedThreads().insert(std::move(entry));
    }
    ++s_Joining;
    return ended;
}

void ThreadHelper::FinishThread(std::thread::id id) {
    AutoLock guard(s_CS);
    finishedThreads().insert(id);
}

ThreadHelper::QueuedThreads ThreadHelper::takeFinished() {
    QueuedThreads ended;
    QueuedThreads& queued = queuedThreads();
    if (queued.empty()) return ended;
    for (const std::thread::id id : finishedThreads()) {
        ended.insert(queued.extract(id));  // nothing for an id without an entry
    }
    finishedThreads().clear();
    return ended;
}

// Joins every thread, then throws the first failure.
void ThreadHelper::join(QueuedThreads ended) {
    std::exception_ptr failure;
    for (const auto& [id, thread] : ended) {
        const std::unique_ptr<std::thread> owned(thread);
        try {
            owned->join();
        } catch (...) {
            if (failure == nullptr) failure = std::current_exception();
        }
    }
    {
        AutoLock guard(s_CS);
        --s_Joining;
    }
    s_joined.Notify();
    if (failure != nullptr) {
        std::rethrow_exception(failure);
    }
}

void ThreadHelper::cleanCallbackThreads(bool all) {
    if (all) {
        joinAll();
        return;
    }
    QueuedThreads ended = takeFinished();
    ++s_Joining;
    const Unlocked gap(s_CS);
    join(std::move(ended));
}

// A thread that still runs may report its end or queue another meanwhile.
void ThreadHelper::joinAll() {
    QueuedThreads& queued = queuedThreads();
    while (!queued.empty() || s_Joining != 0) {
        const std::uint32_t seen = s_joined.Sequence();
        QueuedThreads first;
        if (!queued.empty()) {
            first.insert(queued.extract(queued.begin()));
            ++s_Joining;
        }
        const bool joins = !first.empty();
        const Unlocked gap(s_CS);
        if (joins) {
            join(std::move(first));
        } else {
            s_joined.Wait(seen, -1);
        }
    }
    finishedThreads().clear();
}

void ThreadHelper::Cleanup() {
    AutoLock guard(s_CS);
    cleanCallbackThreads(true);
    LogLineAt("ThreadHelper", 52, FileLog::Debug, "Temporary threads cleaned up");
}

}  // namespace Mivra::Common
