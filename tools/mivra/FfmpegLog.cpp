#include "tools/mivra/FfmpegLog.h"

#include <new>

extern "C" {
#include <libavutil/log.h>
}

namespace Mivra::Tool {

int FfmpegErrorWatch::OnMessage(const void* object, int level, std::string_view message) noexcept {
    if (object != watched || level > AV_LOG_ERROR || !first.empty()) {
        return level;
    }
    // "[format @ address] message"
    const std::size_t end = message.find("] ");
    if (message.substr(0, 1) == "[" && end != message.npos) {
        message.remove_prefix(end + 2);
    }
    try {
        first = message;
    } catch (const std::bad_alloc&) {
        first.clear();  // the log has it
    }
    return level;
}

}  // namespace Mivra::Tool
