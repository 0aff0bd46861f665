#include "tools/mivra/RecordTrigger.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "mivra/common/runtime/GeneralException.h"
#include "tools/mivra/Interrupt.h"
#include "tools/mivra/ProblemError.h"

namespace Mivra::Tool {
namespace {

constexpr double kLongest = 1e9;  // seconds
constexpr const char* kAfter = "after:";

/// The terminal whose settings have to come back, and what they were. Read in signal handlers.
std::atomic<int> s_terminal{-1};
struct termios s_former;

void restoreTerminal() {
    const int terminal = s_terminal.exchange(-1);
    if (terminal >= 0) {
        ::tcsetattr(terminal, TCSANOW, &s_former);
    }
}

[[noreturn]] void failWithoutTerminal(const std::string& why) {
    throw ProblemError(ExitCode::Usage, {"no key can trigger the recording: " + why, "",
                                         "use --trigger signal or after:SECONDS"});
}

class KeyTrigger : public IRecordTrigger {
public:
    KeyTrigger() : descriptor(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)) {
        if (descriptor < 0) {
            failWithoutTerminal("there is no terminal");
        }
        // Whoever is not in front would be stopped when it reads.
        if (::tcgetpgrp(descriptor) != ::getpgrp() || ::tcgetattr(descriptor, &s_former) != 0) {
            ::close(descriptor);
            failWithoutTerminal("the program is not in the terminal's foreground");
        }
        struct termios silent = s_former;
        silent.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        silent.c_cc[VMIN] = 0;  // reading does not wait
        silent.c_cc[VTIME] = 0;
        silent.c_cc[VQUIT] = _POSIX_VDISABLE;  // it would leave the terminal as it is
        s_terminal = descriptor;
        Interrupt::CallOnRequest(restoreTerminal);
        ::tcsetattr(descriptor, TCSANOW, &silent);
    }
    ~KeyTrigger() override {
        Interrupt::CallOnRequest(nullptr);
        restoreTerminal();
        ::close(descriptor);
    }
    KeyTrigger(const KeyTrigger&) = delete;
    KeyTrigger& operator=(const KeyTrigger&) = delete;

    int Descriptor() const override { return gone ? -1 : descriptor; }

    bool HasFired(double) override {
        // Whoever else sets the terminal may have it wait for a line.
        pollfd readable{descriptor, POLLIN, 0};
        if (gone || ::poll(&readable, 1, 0) <= 0) {
            return fired;
        }
        char keys[64];
        const ssize_t count = ::read(descriptor, keys, sizeof(keys));
        gone = count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
        for (ssize_t i = 0; i < count; ++i) {
            fired = fired || keys[i] == '\n' || keys[i] == '\r' || keys[i] == ' ';
        }
        return fired;
    }

    Event Waiting() const override {
        return {"waiting", {{"trigger", "key"}}, "waiting: ENTER or SPACE begins the recording"};
    }

private:
    const int descriptor;
    bool gone = false;
    bool fired = false;
};

std::atomic<int> s_signalled{-1};  // the descriptor to write to

// Runs in a signal handler: nothing but calls that are safe there.
void onTrigger(int) {
    const int error = errno;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(s_signalled.load(), &one, sizeof(one));
    errno = error;
}

class SignalTrigger : public IRecordTrigger {
public:
    SignalTrigger() : descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (descriptor < 0) {
            throw Common::GeneralException("cannot wait for a signal: %s", std::strerror(errno));
        }
        s_signalled = descriptor;
        struct sigaction action {};
        action.sa_handler = onTrigger;
        action.sa_flags = SA_RESTART;
        ::sigaction(SIGUSR1, &action, &former);
    }
    ~SignalTrigger() override {
        ::sigaction(SIGUSR1, &former, nullptr);
        s_signalled = -1;
        ::close(descriptor);
    }
    SignalTrigger(const SignalTrigger&) = delete;
    SignalTrigger& operator=(const SignalTrigger&) = delete;

    int Descriptor() const override { return descriptor; }

    bool HasFired(double) override {
        std::uint64_t times = 0;
        fired = fired || ::read(descriptor, &times, sizeof(times)) > 0;
        return fired;
    }

    Event Waiting() const override {
        const std::string self = std::to_string(::getpid());
        return {"waiting",
                {{"trigger", "signal"}, {"pid", self}},
                "waiting: 'kill -USR1 " + self + "' begins the recording"};
    }

private:
    const int descriptor;
    struct sigaction former {};
    bool fired = false;
};

class AfterTrigger : public IRecordTrigger {
public:
    explicit AfterTrigger(double wait) : seconds(wait) {}

    bool HasFired(double passed) override { return passed >= seconds; }
    Event Waiting() const override {
        return {"waiting",
                {{"trigger", "after"}, {"seconds", seconds}},
                "waiting: the recording begins by itself"};
    }

private:
    const double seconds;
};

}  // namespace

std::unique_ptr<IRecordTrigger> makeRecordTrigger(const std::string& text) {
    if (text == "key") {
        return std::make_unique<KeyTrigger>();
    }
    if (text == "signal") {
        return std::make_unique<SignalTrigger>();
    }
    if (text.starts_with(kAfter) && text.size() > std::strlen(kAfter)) {
        char* end = nullptr;
        const double seconds = std::strtod(text.c_str() + std::strlen(kAfter), &end);
        if (*end == '\0' && seconds >= 0 && seconds <= kLongest) {
            return std::make_unique<AfterTrigger>(seconds);
        }
    }
    throw ProblemError(ExitCode::Usage,
                       {"there is no such trigger", text, "use key, signal or after:SECONDS"});
}

}  // namespace Mivra::Tool
