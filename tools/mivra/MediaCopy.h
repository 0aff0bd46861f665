#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tools/mivra/Console.h"
#include "tools/mivra/ExitCode.h"
#include "tools/mivra/InputPacket.h"

namespace Mivra::Tool {

/// What is done to one stream on its way from a file into another. Owned by the copy; one thread.
class PacketTransform {
public:
    PacketTransform() = default;
    PacketTransform(const PacketTransform&) = delete;
    PacketTransform& operator=(const PacketTransform&) = delete;
    virtual ~PacketTransform() = default;

    /// The stream as it goes out; first is its first packet, null when it has none. Called again where the
    /// stream changes. ProblemError when that cannot be.
    virtual Common::MediaType Begin(const Common::MediaType& type, Common::PacketBuffer* first) = 0;
    /// The packet as it goes out, which may be the same; null when it is damaged.
    virtual Packet Apply(const Packet& packet) = 0;
};

struct MediaCopyOptions {
    std::string input;
    std::string output;
    /// A transform for the stream; null lets it pass as it is.
    std::function<std::unique_ptr<PacketTransform>(const Common::MediaType&)> transform;
    /// What the input lacks when no stream has a transform, as in "no H.264 stream".
    std::string wanted;
};

/// Copies what the output's format holds of the input, each stream through its transform, until the end or
/// Ctrl-C. Tells what goes wrong itself, in one line each.
ExitCode copyMedia(const MediaCopyOptions& options, Console& console);

}  // namespace Mivra::Tool
