#pragma once

#include <span>
#include <string>
#include <vector>

#include "mivra/common/model/MediaType.h"
#include "tools/mivra/FfmpegSupport.h"

namespace Mivra::Tool {

/// A kind of file that the program writes.
struct OutputFormat {
    const char* extension;  ///< in lower case, with its dot
    const char* muxer;      ///< libavformat's name for it
    std::size_t mostVideo;
    std::size_t mostAudio;
    std::span<const int> codecs;  ///< what it holds; empty: the muxer knows
};

/// By the extension, in whatever case; that of transport streams for standard output and for the network.
/// Null for any other.
const OutputFormat* findOutputFormat(const std::string& path);

/// ".ts, .mp4, ..."
std::string outputExtensions();

/// Indices of the types that the format takes, ascending. Where it holds fewer of a kind than there are, the
/// largest picture and the most channels win, default streams first.
std::vector<std::size_t> chooseStreams(const OutputFormat& format, const AVOutputFormat& muxer,
                                       const std::vector<Common::MediaType>& types);

}  // namespace Mivra::Tool
