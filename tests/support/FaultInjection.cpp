#include "tests/support/FaultInjection.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <netdb.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <system_error>
#include <utility>

#include "mivra/platform/System.h"

namespace Mivra::Test {
namespace {

using Platform::g_system;
using Platform::SystemTable;

struct Fault {
    const char* name;
    int error;
};
Fault s_faults[kFaultKinds];

// Per kind: the calls that fail are first..last; 0 means no plan.
struct Plan {
    std::atomic<std::uint64_t> first{0};
    std::atomic<std::uint64_t> last{0};
    std::atomic<std::uint64_t> calls{0};
    std::atomic<int> error{0};
};
constinit Plan s_plans[kFaultKinds];
constinit std::atomic<int> s_pauses{0};

Plan& planOf(FaultKind kind) {
    return s_plans[static_cast<int>(kind)];
}

// Counts a call; whether it has to fail, with errno set.
bool fails(FaultKind kind) noexcept {
    Plan& plan = planOf(kind);
    const std::uint64_t first = plan.first.load(std::memory_order_acquire);
    if (first == 0 || s_pauses.load() != 0) return false;
    const std::uint64_t call = plan.calls.fetch_add(1) + 1;
    if (call < first || call > plan.last.load()) return false;
    errno = plan.error.load();
    return true;
}

std::atomic<bool> s_metered{false};
std::atomic<std::int64_t> s_memoryOut{0};
std::atomic<std::int64_t> s_memoryPeak{0};

void* given(void* memory) noexcept {
    if (s_metered.load(std::memory_order_relaxed) && memory != nullptr) {
        const auto size = static_cast<std::int64_t>(malloc_usable_size(memory));
        const std::int64_t out = s_memoryOut.fetch_add(size) + size;
        std::int64_t peak = s_memoryPeak.load();
        while (out > peak && !s_memoryPeak.compare_exchange_weak(peak, out)) {
        }
    }
    return memory;
}

[[maybe_unused]] void giveBack(void* memory) noexcept {
    if (s_metered.load(std::memory_order_relaxed) && memory != nullptr) {
        s_memoryOut -= static_cast<std::int64_t>(malloc_usable_size(memory));
    }
    std::free(memory);
}

template <typename Result>
Result failure() {
    if constexpr (std::is_same_v<Result, std::thread*>) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    } else if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else {
        return -1;
    }
}

// Stands in for one entry of the table for the whole life of the program, so that a plan touches nothing that
// another thread reads without care.
template <FaultKind kind, auto entry>
struct Stand;

template <FaultKind kind, typename Result, typename... Arguments, Result (*SystemTable::*entry)(Arguments...)>
struct Stand<kind, entry> {
    static Result call(Arguments... arguments) {
        if (fails(kind)) return failure<Result>();
        if constexpr (kind == FaultKind::Allocate) {
            return given(s_real(std::forward<Arguments>(arguments)...));
        } else {
            return s_real(std::forward<Arguments>(arguments)...);
        }
    }
    static void install() { s_real = std::exchange(g_system.*entry, call); }

    static inline Result (*s_real)(Arguments...) = nullptr;
};

/// The entries of the table that count as calls of a kind, its name and the errno of a failure.
template <FaultKind kind, auto... entries>
void install(const char* name, int error) {
    s_faults[static_cast<int>(kind)] = {name, error};
    (Stand<kind, entries>::install(), ...);
}

const bool s_installed = [] {
    using T = SystemTable;
    using enum FaultKind;
    install<Open, &T::open, &T::listDirectory>("Open", EACCES);
    install<Read, &T::read, &T::readAt, &T::readPairAt>("Read", EIO);
    install<Write, &T::write, &T::writeAt>("Write", ENOSPC);
    install<Seek, &T::seek>("Seek", EINVAL);
    install<Truncate, &T::truncate>("Truncate", EIO);
    install<Sync, &T::sync>("Sync", EIO);
    install<Stat, &T::descriptorStatus, &T::pathStatus>("Stat", EIO);
    install<Rename, &T::rename>("Rename", EACCES);
    install<Unlink, &T::unlink>("Unlink", EACCES);
    install<MakeDirectory, &T::makeDirectory>("MakeDirectory", EACCES);
    install<Lock, &T::lockRange>("Lock", ENOLCK);
    install<Allocate, &T::allocate, &T::allocateZeroed>("Allocate", ENOMEM);
    install<StartThread, &T::startThread>("StartThread", EAGAIN);
    install<OpenLibrary, &T::openLibrary>("OpenLibrary", ENOENT);
    install<FindSymbol, &T::findSymbol>("FindSymbol", ENOENT);
    install<Socket, &T::createSocket>("Socket", EMFILE);
    install<Bind, &T::bindSocket>("Bind", EADDRINUSE);
    install<Connect, &T::connectSocket>("Connect", ECONNREFUSED);
    install<Listen, &T::listenSocket>("Listen", EADDRINUSE);
    install<Accept, &T::acceptSocket>("Accept", EMFILE);
    install<Receive, &T::receive, &T::receiveFrom>("Receive", ECONNRESET);
    install<Send, &T::send, &T::sendMessage, &T::sendMessages>("Send", EPIPE);
    install<SocketOption, &T::setSocketOption, &T::getSocketOption>("SocketOption", EPERM);
    install<SocketName, &T::socketName, &T::peerName>("SocketName", ENOTCONN);
    install<Poll, &T::pollSockets>("Poll", ENOMEM);
    install<Select, &T::selectSockets>("Select", EBADF);
    install<CreateWatch, &T::createWatchSet>("CreateWatch", EMFILE);
    install<ChangeWatch, &T::changeWatchSet>("ChangeWatch", ENOSPC);
    install<AwaitWatch, &T::awaitWatchSet>("AwaitWatch", ENOMEM);
    install<WakeDescriptor, &T::createWakeDescriptor>("WakeDescriptor", EMFILE);
    install<Resolve, &T::resolveName>("Resolve", EAI_AGAIN);
    return true;
}();

}  // namespace

const char* FaultName(FaultKind kind) {
    return s_faults[static_cast<int>(kind)].name;
}

FaultPlan::FaultPlan(FaultKind kind, std::uint64_t nth, Span span, int error) : planned(kind), first(nth) {
    Plan& plan = planOf(kind);
    EXPECT_EQ(plan.first.load(), 0u) << "one plan of a kind at a time";
    plan.error = error != 0 ? error : s_faults[static_cast<int>(kind)].error;
    plan.last = span == Span::Once ? nth : UINT64_MAX;
    plan.calls = 0;
    plan.first.store(nth, std::memory_order_release);
}

FaultPlan::~FaultPlan() {
    planOf(planned).first.store(0, std::memory_order_release);
}

std::uint64_t FaultPlan::Calls() const {
    return planOf(planned).calls.load();
}

FaultPause::FaultPause() {
    ++s_pauses;
}

FaultPause::~FaultPause() {
    --s_pauses;
}

std::uint64_t ForEachNthFailure(FaultKind kind, const std::function<void()>& body, std::uint64_t limit) {
    for (std::uint64_t nth = 1; nth <= limit; ++nth) {
        bool reached;
        {
            const FaultPlan plan(kind, nth);
            body();
            reached = plan.Reached();
        }
        if (::testing::Test::HasFatalFailure() || ::testing::Test::HasNonfatalFailure()) {
            ADD_FAILURE() << "with call " << nth << " of kind " << FaultName(kind) << " failing";
            return nth;
        }
        if (!reached) return nth - 1;
    }
    ADD_FAILURE() << "more than " << limit << " calls of kind " << FaultName(kind);
    return limit;
}

AllocationMeter::AllocationMeter() {
    s_memoryOut = 0;
    s_memoryPeak = 0;
    s_metered = true;
}

AllocationMeter::~AllocationMeter() {
    s_metered = false;
}

std::int64_t AllocationMeter::Peak() const {
    return s_memoryPeak;
}

}  // namespace Mivra::Test

#if MIVRA_TEST_OWN_NEW
namespace {

using Mivra::Test::FaultKind;
using Mivra::Test::giveBack;
using Mivra::Test::given;

void* allocateOrNull(std::size_t size, std::size_t alignment) noexcept {
    if (Mivra::Test::fails(FaultKind::Allocate)) return nullptr;
    if (size == 0) size = 1;
    if (alignment <= alignof(std::max_align_t)) return given(std::malloc(size));
    return given(std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment));
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
    void* memory = allocateOrNull(size, alignment);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

}  // namespace

void* operator new(std::size_t size) {
    return allocateOrThrow(size, 1);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size, 1);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size, 1);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size, 1);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocateOrNull(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocateOrNull(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept {
    giveBack(memory);
}
void operator delete[](void* memory) noexcept {
    giveBack(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    giveBack(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    giveBack(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    giveBack(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
    giveBack(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    giveBack(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    giveBack(memory);
}
#endif
