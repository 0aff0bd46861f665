#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "mivra/media/IDecoder.h"
#include "tools/mivra/Demuxer.h"
#include "tools/mivra/InputPacket.h"

namespace Mivra::Tool {

/// Looks up the pictures of a file by their times, in RGB. One thread.
class PictureReader {
public:
    /// Opens the input. ProblemError when it has no pictures.
    explicit PictureReader(const std::string& path);

    /// Pictures come in this size; 0: in their own. Before the first ShownAt.
    void SetSize(int width, int height);
    /// Of the pictures in the file.
    const Common::MediaType& Type() const { return input.Type(stream); }
    /// In kPacketTimeBase; 0: unknown.
    std::int64_t Duration() const { return input.Duration(); }

    /// The picture with the largest time at or before `time`; before the first one, that. Nothing when the
    /// input ends before `time`, and End() is known then. It may be called again with a later time.
    Packet ShownAt(std::int64_t time);
    /// What the picture is that ShownAt has given.
    Common::MediaType PictureType() { return decoder->GetOutputMediaType(); }
    /// Where the last picture ends, or kUnsetTime when there was none at all.
    std::int64_t End() const { return end; }
    /// What was wrong with the input so far; empty: nothing.
    const std::string& Damage() const { return input.Damage(); }

private:
    bool pass(Packet& shown, std::int64_t time);

    const std::string path;
    Demuxer input;
    int stream = -1;
    int width = 0;
    int height = 0;
    std::shared_ptr<Media::IDecoder> decoder;
    std::int64_t end = kUnsetTime;
};

}  // namespace Mivra::Tool
