#include "mivra/common/runtime/Version.h"

namespace Mivra::Common {

const char* LibraryVersion() noexcept {
    return "2.3.0.0208";
}

}  // namespace Mivra::Common
