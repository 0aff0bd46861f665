#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "mivra/media/IDecoder.h"
#include "tools/mivra/Demuxer.h"
#include "tools/mivra/InputPacket.h"
#include "tools/mivra/PictureTurn.h"

namespace Mivra::Tool {

/// Looks up the pictures of a file by their times, in RGB, and turns them as the file asks for. One thread.
class PictureReader {
public:
    /// Opens the input. ProblemError when it has no pictures.
    explicit PictureReader(const std::string& path);

    /// Pictures come in this size; 0: in their own. Before the first ShownAt.
    void SetSize(int width, int height);
    /// Of the pictures as they are shown.
    Common::MediaType ShownType() const { return turned(input.Type(stream)); }
    /// In kPacketTimeBase; 0: unknown.
    std::int64_t Duration() const { return input.Duration(); }

    /// The picture with the largest time at or before `time`; before the first one, that. Nothing when the
    /// input ends before `time`, and End() is known then. It may be called again with a later time.
    Packet ShownAt(std::int64_t time);
    /// What the picture is that ShownAt has given.
    const Common::MediaType& PictureType() const { return pictureType; }
    /// Where the last picture ends, or kUnsetTime when there was none at all.
    std::int64_t End() const { return end; }
    /// What was wrong with the input so far; empty: nothing.
    const std::string& Damage() const { return input.Damage(); }

private:
    Packet find(std::int64_t time);
    bool pass(Packet& shown, std::int64_t time);
    Common::MediaType turned(Common::MediaType type) const;
    Packet turn(Packet picture);

    const std::string path;
    Demuxer input;
    int stream = -1;
    std::optional<PictureTurn> asked;  // none: as decoded
    Common::MediaType pictureType;
    int width = 0;
    int height = 0;
    std::shared_ptr<Media::IDecoder> decoder;
    std::int64_t end = kUnsetTime;
};

}  // namespace Mivra::Tool
