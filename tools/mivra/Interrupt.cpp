#include "tools/mivra/Interrupt.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>

#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Tool {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

std::atomic<bool> s_requested{false};
std::atomic<int> s_descriptor{-1};
std::atomic<void (*)()> s_onRequest{nullptr};
struct sigaction s_former[std::size(kSignals)];
/// What a failing write would end the program with, where its error is wanted.
constexpr int kWriteSignals[] = {SIGPIPE, SIGXFSZ};
struct sigaction s_formerWrite[std::size(kWriteSignals)];

void setAction(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    ::sigaction(signal, &action, nullptr);
}

// Runs in a signal handler: nothing but calls that are safe there.
void onSignal(int) {
    const int error = errno;
    for (const int signal : kSignals) {
        setAction(signal, SIG_DFL);
    }
    s_requested.store(true);
    if (const auto call = s_onRequest.load()) {
        call();
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(s_descriptor.load(), &one, sizeof(one));
    errno = error;
}

}  // namespace

Interrupt::Interrupt() {
    const int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor < 0) {
        throw Common::GeneralException("cannot catch Ctrl-C: %s", std::strerror(errno));
    }
    s_requested = false;
    s_descriptor = descriptor;
    for (std::size_t i = 0; i < std::size(kSignals); ++i) {
        ::sigaction(kSignals[i], nullptr, &s_former[i]);
        // nohup ignores SIGHUP for its program; SIGINT ignored only means a shell's background job.
        if (kSignals[i] != SIGHUP || s_former[i].sa_handler != SIG_IGN) {
            setAction(kSignals[i], onSignal);
        }
    }
    for (std::size_t i = 0; i < std::size(kWriteSignals); ++i) {
        ::sigaction(kWriteSignals[i], nullptr, &s_formerWrite[i]);
        setAction(kWriteSignals[i], SIG_IGN);
    }
}

Interrupt::~Interrupt() {
    for (std::size_t i = 0; i < std::size(kSignals); ++i) {
        ::sigaction(kSignals[i], &s_former[i], nullptr);
    }
    for (std::size_t i = 0; i < std::size(kWriteSignals); ++i) {
        ::sigaction(kWriteSignals[i], &s_formerWrite[i], nullptr);
    }
    ::close(s_descriptor.exchange(-1));
}

void Interrupt::CallOnRequest(void (*function)()) {
    s_onRequest.store(function);
}

bool Interrupt::IsRequested() {
    return s_requested.load();
}

bool Interrupt::Wait(int milliseconds) {
    pollfd wanted{s_descriptor.load(), POLLIN, 0};
    ::poll(&wanted, 1, milliseconds);
    return IsRequested();
}

int Interrupt::Descriptor() {
    return s_descriptor.load();
}

}  // namespace Mivra::Tool
