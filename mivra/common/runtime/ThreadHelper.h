#pragma once

#include <map>
#include <set>
#include <thread>

#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// Registry of short-lived threads, each of which delivers one notification or one final release off its
/// caller's thread. The creator hands a started thread over, the thread reports its own end, and the registry
/// joins and frees it at the next hand-over or when the library shuts down. Any thread may call it; all
/// state is the process's.
class MIVRA_API ThreadHelper {
public:
    ThreadHelper& operator=(const ThreadHelper&) { return *this; }
    ThreadHelper& operator=(ThreadHelper&&) noexcept { return *this; }

    /// Joins and frees the threads that have reported their end, then takes over a started thread. One whose
    /// id is queued already is ignored. std::bad_alloc leaves the thread with its caller.
    static void QueueThread(std::thread* thread);
    /// A queued thread's last action, with its own id. A thread that reports before it is queued stays until
    /// Cleanup.
    static void FinishThread(std::thread::id id);
    /// Joins and frees every queued thread; not to be called from one. std::system_error when a join fails.
    static void Cleanup();

protected:
    /// Joins and frees the threads that have reported their end, or all, with the lock given back meanwhile.
    static void cleanCallbackThreads(bool all) MIVRA_REQUIRES(s_CS) MIVRA_NO_THREAD_SAFETY_ANALYSIS;

    using QueuedThreads = std::map<std::thread::id, std::thread*>;
    using FinishedThreads = std::set<std::thread::id>;

    static QueuedThreads& queuedThreads() MIVRA_REQUIRES(s_CS);
    static FinishedThreads& finishedThreads() MIVRA_REQUIRES(s_CS);

    static CritSec s_CS;

private:
    friend class CallbackThread;
    static QueuedThreads takeFinished() MIVRA_REQUIRES(s_CS);
    static QueuedThreads::node_type makeEntry();
    static QueuedThreads enqueue(QueuedThreads::node_type entry);
    static void join(QueuedThreads ended) MIVRA_EXCLUDES(s_CS);
    static void joinAll() MIVRA_REQUIRES(s_CS) MIVRA_NO_THREAD_SAFETY_ANALYSIS;

    // Reapers that are joining outside the lock.
    static int s_Joining MIVRA_GUARDED_BY(s_CS);
};

}  // namespace Mivra::Common
