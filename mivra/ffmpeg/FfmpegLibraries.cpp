#include "mivra/ffmpeg/FfmpegLibraries.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstring>

#include "mivra/platform/System.h"

extern "C" {
#include <libavcodec/version.h>
#include <libavfilter/version.h>
#include <libavformat/version.h>
#include <libavutil/avutil.h>
#include <libswresample/version.h>
#include <libswscale/version.h>
}

namespace Mivra::FFmpeg {
namespace {

using Platform::System;

#if defined(MIVRA_SANITIZED)
// Leak and race reports name functions of the libraries after they were unloaded.
constexpr int kOpenFlags = RTLD_LAZY | RTLD_LOCAL | RTLD_NODELETE;
#else
constexpr int kOpenFlags = RTLD_LAZY | RTLD_LOCAL;
#endif

constexpr std::size_t kPathSize = 4096;

/// Folder of the running executable with its closing slash, followed by the file name; false when the folder
/// is unknown or the path too long.
bool pathBesideExecutable(const char* file, char (&path)[kPathSize]) {
    const ssize_t length = System().executablePath(path, kPathSize);
    if (length <= 0 || static_cast<std::size_t>(length) >= kPathSize) {
        return false;
    }
    path[length] = '\0';
    char* const slash = std::strrchr(path, '/');
    if (slash == nullptr) {
        return false;
    }
    const std::size_t folder = static_cast<std::size_t>(slash - path) + 1;
    const std::size_t fileSize = std::strlen(file) + 1;
    if (fileSize > kPathSize - folder) {
        return false;
    }
    std::memcpy(path + folder, file, fileSize);
    return true;
}

bool isThere(const char* path) {
    struct stat status {};
    return System().pathStatus(path, &status) == 0;
}

}  // namespace

#if defined(_WIN32)
#define MIVRA_FFMPEG_FILE(name, major) name "-" AV_TOSTRING(major) ".dll"
#else
#define MIVRA_FFMPEG_FILE(name, major) "lib" name ".so." AV_TOSTRING(major)
#endif

constexpr std::array<FfmpegLibrary, kFfmpegLibraryCount> kFfmpegLibraries = {{
    {"avutil", MIVRA_FFMPEG_FILE("avutil", LIBAVUTIL_VERSION_MAJOR), LIBAVUTIL_VERSION_MAJOR,
     "avutil_version"},
    {"avformat", MIVRA_FFMPEG_FILE("avformat", LIBAVFORMAT_VERSION_MAJOR), LIBAVFORMAT_VERSION_MAJOR,
     "avformat_version"},
    {"avcodec", MIVRA_FFMPEG_FILE("avcodec", LIBAVCODEC_VERSION_MAJOR), LIBAVCODEC_VERSION_MAJOR,
     "avcodec_version"},
    {"swscale", MIVRA_FFMPEG_FILE("swscale", LIBSWSCALE_VERSION_MAJOR), LIBSWSCALE_VERSION_MAJOR,
     "swscale_version"},
    {"swresample", MIVRA_FFMPEG_FILE("swresample", LIBSWRESAMPLE_VERSION_MAJOR), LIBSWRESAMPLE_VERSION_MAJOR,
     "swresample_version"},
    {"avfilter", MIVRA_FFMPEG_FILE("avfilter", LIBAVFILTER_VERSION_MAJOR), LIBAVFILTER_VERSION_MAJOR,
     "avfilter_version"},
}};

void* OpenFfmpegLibrary(const FfmpegLibrary& library) {
    errno = 0;
    char path[kPathSize];
    if (pathBesideExecutable(library.file, path) && isThere(path)) {
        errno = 0;
        return System().openLibrary(path, kOpenFlags);
    }
    errno = 0;
    return System().openLibrary(library.file, kOpenFlags);
}

}  // namespace Mivra::FFmpeg
