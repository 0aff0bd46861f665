#include "tools/mivra/RelayMonitor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>

#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Tool {
namespace {

using Common::AutoLock;

/// How far one input may run ahead of the others, in units of 100 ns.
constexpr std::int64_t kLargestLead = 10000000;

}  // namespace

RelayMonitor::RelayMonitor(int sourceCount, Console& forNotes)
    : sources(sourceCount), console(forNotes), descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (descriptor < 0) {
        throw Common::GeneralException("cannot watch the relay: %s", std::strerror(errno));
    }
}

RelayMonitor::~RelayMonitor() {
    ::close(descriptor);
}

void RelayMonitor::Delivered(std::size_t packets, std::int64_t bytes) {
    delivered.fetch_add(packets);
    deliveredBytes.fetch_add(static_cast<std::uint64_t>(bytes), std::memory_order_relaxed);
}

void RelayMonitor::SourceEnded() {
    ended.fetch_add(1);
    checkDone();
}

void RelayMonitor::Consumed() {
    consumed.fetch_add(1);
    if (ended.load() == sources) {  // in one order with SourceEnded: one of the two sees the end
        checkDone();
    }
}

void RelayMonitor::checkDone() {
    if (ended.load() == sources && consumed.load() == delivered.load()) {
        finish();
    }
}

void RelayMonitor::finish() {
    if (!finished.exchange(true)) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(descriptor, &one, sizeof(one));
    }
}

void RelayMonitor::Fail(ExitCode code, const Problem& problem) {
    {
        AutoLock hold(lock);
        if (!failure.has_value()) {
            failure = Failure{code, problem};
        }
    }
    finish();
}

void RelayMonitor::Damaged(const Problem& problem) {
    AutoLock hold(lock);
    damages.push_back(problem);
}

bool RelayMonitor::Wait(int milliseconds, int interruptDescriptor, int otherDescriptor) {
    pollfd wanted[] = {
        {descriptor, POLLIN, 0}, {interruptDescriptor, POLLIN, 0}, {otherDescriptor, POLLIN, 0}};
    ::poll(wanted, std::size(wanted), milliseconds);
    return finished.load();
}

std::optional<RelayMonitor::Failure> RelayMonitor::FirstFailure() {
    AutoLock hold(lock);
    return failure;
}

std::vector<Problem> RelayMonitor::Damages() {
    AutoLock hold(lock);
    return damages;
}

RelayShared::RelayShared(int sources, Console& console, std::int64_t budgetBytes)
    : board([this](const std::string& text) { monitor.Note(text); }, stop),
      budget(sources, budgetBytes),
      pace(sources, kLargestLead),
      monitor(sources, console) {}

}  // namespace Mivra::Tool
