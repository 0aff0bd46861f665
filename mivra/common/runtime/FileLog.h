#pragma once

#include <cstdarg>
#include <cstdint>
#include <memory>

#include "mivra/common/runtime/Annotations.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

class Guid;

/// The process's log: timestamped, levelled lines in one rolling file, with runs of equal lines folded into
/// one. The library makes and owns the one instance (MivraCommonGetLog). Any thread may log; several
/// processes may share one file. Failures to write are ignored and logging goes on.
class MIVRA_API FileLog {
public:
    enum FileLogLevel { Off = 0, Error = 1, Warning = 2, Information = 3, Debug = 4, Trace = 5 };
};

}  // namespace Mivra::Common
