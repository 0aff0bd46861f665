#pragma once

#include <string>

#include "tools/mivra/ExitCode.h"

namespace Mivra::Tool {

struct SnapshotOptions {
    std::string input;
    std::string output;  ///< .png, .jpg or .jpeg
    double at = 0;       ///< seconds
    int columns = 0;     ///< 0: one picture, else a sheet
    int rows = 0;
    int width = 0;  ///< of the picture, or of one of the sheet; 0: its own
    int height = 0;
};

/// Whether the name of a picture tells a format that can be written.
bool isPictureName(const std::string& path);

/// Writes the picture that is shown at a time, the one with the largest time at or before it, or a sheet of
/// pictures that are spread evenly, each with its time. Tells what goes wrong itself.
ExitCode snapshot(const SnapshotOptions& options);

}  // namespace Mivra::Tool
