#pragma once

namespace Mivra::Tool {

/// What the program tells its caller; scripts rely on the numbers.
enum class ExitCode : int {
    Done = 0,         ///< also after Ctrl-C, when the outputs were finished
    Failed = 1,       ///< doctor found something missing, or an error of the program itself
    Usage = 2,        ///< wrong arguments, or a log that cannot be written
    CannotOpen = 3,   ///< an input or output that cannot be opened
    TimeOut = 4,      ///< a time-out of the session
    Damaged = 5,      ///< damaged input; what could be read is written
    WriteFailed = 6,  ///< an output that failed while writing
};

}  // namespace Mivra::Tool
