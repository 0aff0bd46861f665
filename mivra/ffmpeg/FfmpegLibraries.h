#pragma once

// The FFmpeg libraries: their file names, made from the major versions of the headers that this library is
// compiled with, and where they are looked for. No state; any thread.

#include <array>
#include <cstddef>

namespace Mivra::FFmpeg {

/// In the order in which they are loaded and unloaded.
enum class FfmpegLibraryIndex { avutil, avformat, avcodec, swscale, swresample, avfilter };

struct FfmpegLibrary {
    const char* name;  ///< As log lines call it.
    const char* file;  ///< File name with the major version, which is also its name for the system.
    unsigned major;    ///< Of the headers.
    const char* versionFunction;  ///< Reports the version as major << 16 | minor << 8 | micro.
};

inline constexpr std::size_t kFfmpegLibraryCount = 6;
extern const std::array<FfmpegLibrary, kFfmpegLibraryCount> kFfmpegLibraries;

/// Opens a library: the one in the folder of the host executable when there is such a file, else the
/// system's. Null when it cannot be loaded, with the system's error code in errno. A file beside the
/// executable that is no usable library is a failure: the system's is not taken in its place.
void* OpenFfmpegLibrary(const FfmpegLibrary& library);

constexpr unsigned FfmpegMajor(unsigned version) {
    return version >> 16;
}

}  // namespace Mivra::FFmpeg
