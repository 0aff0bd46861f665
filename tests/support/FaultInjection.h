#pragma once

// Makes the Nth call of a kind fail, in every thread, in programs that link the test support: the entries of
// the system table and the global operator new look at the plan. Works under the sanitizers, but
// ThreadSanitizer keeps its own operator new: there only the table's allocations count.

#include <cstdint>
#include <functional>

namespace Mivra::Test {

enum class FaultKind {
    Open,   // open and listDirectory
    Read,   // read, readAt and readPairAt
    Write,  // write and writeAt
    Seek,
    Truncate,
    Sync,
    Stat,  // of a descriptor and of a path
    Rename,
    Unlink,
    MakeDirectory,
    Lock,      // lockRange, both ways
    Allocate,  // operator new (std::bad_alloc), SystemTable::allocate and allocateZeroed (null)
    StartThread,
    OpenLibrary,
    FindSymbol,
    Socket,  // createSocket
    Bind,
    Connect,
    Listen,
    Accept,
    Receive,       // receive and receiveFrom
    Send,          // send, sendMessage and sendMessages
    SocketOption,  // both ways
    SocketName,    // own and peer's
    Poll,
    Select,
    CreateWatch,
    ChangeWatch,
    AwaitWatch,
    WakeDescriptor,
    Resolve,
};
constexpr int kFaultKinds = static_cast<int>(FaultKind::Resolve) + 1;

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define MIVRA_TEST_OWN_NEW 0
#endif
#endif
#ifndef MIVRA_TEST_OWN_NEW
#define MIVRA_TEST_OWN_NEW 1
#endif
constexpr bool kCountsOperatorNew = MIVRA_TEST_OWN_NEW != 0;

const char* FaultName(FaultKind kind);

/// While it lives, the nth call of the kind from now on fails; n = 1 is the next one. One plan of a kind at a
/// time.
class FaultPlan {
public:
    enum class Span { Once, FromThenOn };

    /// `error` is the errno of the failure; 0: one that suits the kind.
    FaultPlan(FaultKind kind, std::uint64_t nth, Span span = Span::Once, int error = 0);
    ~FaultPlan();
    FaultPlan(const FaultPlan&) = delete;
    FaultPlan& operator=(const FaultPlan&) = delete;

    /// Whether the nth call has come.
    bool Reached() const { return Calls() >= first; }
    /// Calls of the kind since the plan began.
    std::uint64_t Calls() const;

private:
    FaultKind planned;
    std::uint64_t first;
};

/// Keeps the plans from counting and failing while it lives, for a body that prepares or checks something.
class FaultPause {
public:
    FaultPause();
    ~FaultPause();
    FaultPause(const FaultPause&) = delete;
    FaultPause& operator=(const FaultPause&) = delete;
};

/// Runs the body with the 1st, 2nd, ... call of the kind failing, until a run no longer reaches its N.
/// Returns the number of calls that failed. A test failure when the limit is passed.
std::uint64_t ForEachNthFailure(FaultKind kind, const std::function<void()>& body,
                                std::uint64_t limit = 5000);

/// Measures the memory that operator new and SystemTable::allocate give out while it lives, in all threads;
/// one at a time.
class AllocationMeter {
public:
    AllocationMeter();
    ~AllocationMeter();
    AllocationMeter(const AllocationMeter&) = delete;
    AllocationMeter& operator=(const AllocationMeter&) = delete;

    /// The most bytes that were out at once beyond what was out at the beginning; what went back through
    /// free() alone still counts.
    std::int64_t Peak() const;
};

}  // namespace Mivra::Test
