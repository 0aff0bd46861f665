#pragma once

#include <atomic>

namespace Mivra::Tool {

/// Tells those who wait for something outside the program, a reader of their output say, that they shall not
/// wait for long any more. Raised once and for all; any thread.
class StopSignal {
public:
    /// GeneralException when the system has no descriptor for it.
    StopSignal();
    ~StopSignal();
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    void Raise();
    bool IsRaised() const { return raised.load(); }
    /// Waits until it is raised or the time is over; true when it is raised.
    bool Wait(int milliseconds) const;
    /// Readable once it is raised, for poll().
    int Descriptor() const { return descriptor; }

private:
    const int descriptor;
    std::atomic<bool> raised{false};
};

}  // namespace Mivra::Tool
