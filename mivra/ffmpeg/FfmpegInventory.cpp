#include "mivra/ffmpeg/FfmpegInventory.h"

#include <algorithm>
#include <array>

#include "mivra/ffmpeg/FfmpegFunctions.h"
#include "mivra/ffmpeg/FfmpegLibraries.h"
#include "mivra/platform/System.h"

namespace Mivra::FFmpeg {
namespace {

using Platform::System;

/// The libraries open at the same time, as after a load; closed in the same order.
class OpenLibraries {
public:
    OpenLibraries() = default;
    OpenLibraries(const OpenLibraries&) = delete;
    OpenLibraries& operator=(const OpenLibraries&) = delete;
    ~OpenLibraries() {
        for (void* const handle : handles) {
            if (handle != nullptr) {
                System().closeLibrary(handle);
            }
        }
    }

    void*& operator[](std::size_t library) { return handles[library]; }

private:
    std::array<void*, kFfmpegLibraryCount> handles = {};
};

std::string text(const char* words, const char* otherwise) {
    return words == nullptr ? otherwise : words;
}

void readVersion(void* handle, const FfmpegLibrary& library, FfmpegLibraryState& state) {
    void* const symbol = System().findSymbol(handle, library.versionFunction);
    if (symbol == nullptr) {
        state.majorMatches = true;  // the loader believes the file name then
        return;
    }
    const unsigned version = reinterpret_cast<unsigned (*)()>(symbol)();
    state.version = std::to_string(FfmpegMajor(version)) + "." + std::to_string(version >> 8 & 0xFF) + "." +
                    std::to_string(version & 0xFF);
    state.majorMatches = FfmpegMajor(version) == library.major;
}

/// Names of a library's functions that it does not have: all of them when it is not open.
std::vector<std::string> missingOf(std::span<const FfmpegFunction> functions, std::size_t library,
                                   void* handle) {
    std::vector<std::string> missing;
    for (const FfmpegFunction& function : functions) {
        if (static_cast<std::size_t>(function.home) == library &&
            (handle == nullptr || System().findSymbol(handle, function.name) == nullptr)) {
            missing.emplace_back(function.name);
        }
    }
    return missing;
}

FfmpegLibraryState inspect(std::size_t index, void*& handle) {
    const FfmpegLibrary& library = kFfmpegLibraries[index];
    const auto functions = FfmpegFunctions();
    FfmpegLibraryState state;
    state.name = library.name;
    state.file = library.file;
    state.requiredMajor = library.major;
    state.functions = static_cast<int>(
        std::count_if(functions.begin(), functions.end(), [index](const FfmpegFunction& function) {
            return static_cast<std::size_t>(function.home) == index;
        }));
    handle = OpenFfmpegLibrary(library);
    if (handle != nullptr) {
        state.path = text(System().loadedPath(handle), library.file);
        readVersion(handle, library, state);
    } else {
        state.error = text(System().loadError(), "cannot be loaded");
    }
    state.missing = missingOf(functions, index, handle);
    state.missingOptional = missingOf(FfmpegOptionalFunctions(), index, handle);
    return state;
}

}  // namespace

bool FfmpegInventory::IsUsable() const {
    return std::all_of(libraries.begin(), libraries.end(),
                       [](const FfmpegLibraryState& library) { return library.IsUsable(); });
}

FfmpegInventory TakeFfmpegInventory() {
    OpenLibraries handles;
    FfmpegInventory inventory;
    for (std::size_t i = 0; i < kFfmpegLibraryCount; ++i) {
        inventory.libraries.push_back(inspect(i, handles[i]));
    }
    if (void* const avutil = handles[static_cast<std::size_t>(FfmpegLibraryIndex::avutil)];
        avutil != nullptr) {
        if (void* const symbol = System().findSymbol(avutil, "av_version_info"); symbol != nullptr) {
            inventory.release = text(reinterpret_cast<const char* (*)()>(symbol)(), "");
        }
    }
    return inventory;
}

}  // namespace Mivra::FFmpeg
