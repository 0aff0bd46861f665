#pragma once

#include <string>
#include <vector>

#include "mivra/common/runtime/Export.h"

namespace Mivra::FFmpeg {

/// What FfmpegProxy::Load would find of one library.
struct FfmpegLibraryState {
    std::string name;     ///< "avutil"
    std::string file;     ///< The file name that is looked for.
    std::string path;     ///< Where it was found; empty when it cannot be loaded.
    std::string error;    ///< Why it cannot be loaded, in the system's words; empty when it can.
    std::string version;  ///< As the library reports it, "57.28.100"; empty when it does not.
    unsigned requiredMajor = 0;
    bool majorMatches = false;
    int functions = 0;                 ///< How many are taken from it.
    std::vector<std::string> missing;  ///< Those of them that it does not have; all when it cannot be loaded.
    std::vector<std::string> missingOptional;  ///< The same of the optional functions.

    bool IsUsable() const { return error.empty() && majorMatches && missing.empty(); }
};

struct MIVRA_API FfmpegInventory {
    std::string release;                        ///< What FFmpeg calls its release; empty when unknown.
    std::vector<FfmpegLibraryState> libraries;  ///< All of them, in the order in which they are loaded.

    bool IsUsable() const;
};

/// Looks for every library and function in the same way as FfmpegProxy::Load, but on past the first failure,
/// to tell people what is wrong. Logs nothing and changes nothing of FfmpegProxy. Any thread.
MIVRA_API FfmpegInventory TakeFfmpegInventory();

}  // namespace Mivra::FFmpeg
