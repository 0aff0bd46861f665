#pragma once

namespace Mivra::Tool {

/// Ctrl-C (SIGINT), SIGTERM and SIGHUP as a request to finish: the first only sets a flag and makes a
/// descriptor readable, a second one ends the program at once. SIGPIPE and SIGXFSZ are ignored: the write
/// that would raise them fails instead. One of these per process, made before other threads start and kept
/// while signals are to be caught.
class Interrupt {
public:
    /// GeneralException when the signals cannot be caught.
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    static bool IsRequested();
    /// Waits until a request comes or the time is over; true when there is a request. Any thread.
    static bool Wait(int milliseconds);
    /// Has a function called by the first signal, in its handler: only what is safe there. Null: none.
    static void CallOnRequest(void (*function)());
    /// Readable from the first request on, for poll().
    static int Descriptor();
};

}  // namespace Mivra::Tool
