#pragma once

#include <memory>
#include <string>

#include "tools/mivra/Event.h"

namespace Mivra::Tool {

/// What lets a recording begin. Used by one thread.
class IRecordTrigger {
public:
    virtual ~IRecordTrigger() = default;

    /// Readable when it may have fired, for poll(); -1: it has none.
    virtual int Descriptor() const { return -1; }
    /// Whether it has fired; `seconds` have passed since it was waited for.
    virtual bool HasFired(double seconds) = 0;
    /// What is waited for, for people and for programs.
    virtual Event Waiting() const = 0;
};

/// key: ENTER or SPACE at the terminal, which shows no keys until the object goes, or the program is ended by
/// a signal that Interrupt catches. signal: SIGUSR1. after:SECONDS. Made before other threads start, one at a
/// time. ProblemError when the text is none of these, or there is no terminal to be had.
std::unique_ptr<IRecordTrigger> makeRecordTrigger(const std::string& text);

}  // namespace Mivra::Tool
