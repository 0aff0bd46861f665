#pragma once

// The two tables of functions that the loader takes from FFmpeg by name: those that must be there and those
// that may be missing. Constant data.

#include <cstddef>
#include <span>

#include "mivra/ffmpeg/FfmpegLibraries.h"

namespace Mivra::FFmpeg {

struct FfmpegFunction {
    const char* name;
    FfmpegLibraryIndex home;
    /// Stores the address that the library has for the name (null: none) in the member of that name.
    void (*bind)(void* symbol);
};

inline constexpr std::size_t kFfmpegFunctionCount = 86;

/// In the order in which they are resolved, library after library.
std::span<const FfmpegFunction> FfmpegFunctions();

std::span<const FfmpegFunction> FfmpegOptionalFunctions();

}  // namespace Mivra::FFmpeg
