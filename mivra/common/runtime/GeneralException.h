#pragma once

#include <exception>

#include "mivra/common/runtime/Annotations.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// The library's one exception: a printf-formatted text of at most 1024 characters; what is longer is cut.
/// Copying one never throws.
class MIVRA_API GeneralException : public std::exception {
public:
    explicit GeneralException(const char* format, ...) MIVRA_PRINTF(2, 3);

    const char* what() const noexcept override { return text; }

private:
    char text[1025];
};

}  // namespace Mivra::Common
