#include "mivra/ffmpeg/FfmpegObjects.h"

extern "C" {
#include <libavutil/error.h>
}

namespace Mivra::FFmpeg {

std::string errorText(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = "";
    if (FfmpegOptional::av_strerror != nullptr &&
        FfmpegOptional::av_strerror(error, text, sizeof(text)) == 0) {
        return text;
    }
    return "error " + std::to_string(error);
}

}  // namespace Mivra::FFmpeg
