#pragma once

// Coded streams for the tests of the engines: files that the ffmpeg program makes, their packets as a source
// would hand them on, and what ffmpeg itself decodes from them.

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/media/IDecoder.h"

namespace Mivra::Test {

/// Runs ffmpeg quietly with these arguments; a test failure when it fails.
void RunFfmpeg(const std::string& arguments);

/// One elementary stream in memory.
struct CodedStream {
    Common::MediaType type;
    std::deque<std::string> bytes;
    std::vector<Common::Reference<Common::PacketBuffer>> packets;

    /// A packet of its own memory behind the others.
    Common::PacketBuffer& Add(const std::string& payload);
};

/// The first video or audio stream of a file, with times in 1/10000000 s and side data. FFmpeg must be
/// loaded.
CodedStream ReadStream(const std::string& path, Common::ContentType_t content);

/// A decoded frame in short.
struct FrameDigest {
    std::int64_t time;  // 1/10000000 s
    std::int64_t size;  // bytes, packed
    std::string hash;

    bool operator==(const FrameDigest&) const = default;
};

/// What `ffmpeg -f framehash` says of the first such stream of a file; output: arguments in front of the
/// output.
std::vector<FrameDigest> FfmpegDigests(const std::string& path, Common::ContentType_t content,
                                       const std::string& output = "");

/// The digest of a frame of the type, whose picture is packed and whose planar samples are interleaved first.
FrameDigest Digest(Common::PacketBuffer& frame, const Common::MediaType& type);

/// Everything that a decoder makes of a stream: writes all packets, reading whenever there is something, then
/// drains.
std::vector<FrameDigest> DecodeAll(Media::IDecoder& decoder, CodedStream& stream);

}  // namespace Mivra::Test
