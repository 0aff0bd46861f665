#include "mivra/common/runtime/GeneralException.h"

#include <cstdarg>
#include <cstdio>

namespace Mivra::Common {

GeneralException::GeneralException(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    if (std::vsnprintf(text, sizeof text, format, arguments) < 0) {
        text[0] = '\0';
    }
    va_end(arguments);
}

}  // namespace Mivra::Common
