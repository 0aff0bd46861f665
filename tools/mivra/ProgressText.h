#pragma once

// The texts of progress, each made from the figures alone.

#include <string>
#include <vector>

#include "tools/mivra/Progress.h"

namespace Mivra::Tool {

struct LiveStyle {
    int width = 80;
    bool color = false;
    bool unicode = false;
};

/// Fits into width - 1 columns: what matters less goes first when the terminal is narrow.
std::string liveLine(const Progress& progress, const LiveStyle& style);
std::vector<std::string> summaryText(const Summary& summary, const LiveStyle& style);

std::string keyValueLine(const Progress& progress);
std::string keyValueLine(const Event& event);
std::vector<std::string> keyValueSummary(const Summary& summary);

std::string jsonLine(const Progress& progress);
std::string jsonLine(const Event& event);
std::string jsonSummary(const Summary& summary);

}  // namespace Mivra::Tool
