#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tools/mivra/Muxer.h"
#include "tools/mivra/RelayMonitor.h"

namespace Mivra::Tool {

/// The file that all lanes of a transcode write into, each from a thread of its own.
class TranscodeOutput {
public:
    /// Opens it, as Muxer does. ProblemError.
    TranscodeOutput(const std::string& path, const OutputFormat& format, std::shared_ptr<RelayShared> shared);

    /// Before Begin: which of the streams the format holds. ProblemError when none.
    std::vector<std::size_t> Choose(const std::vector<Common::MediaType>& types);
    /// ProblemError. Before the first Write.
    void Begin(const std::vector<Common::MediaType>& types);
    /// Any thread. False when the file cannot be written any more, which the monitor has been told.
    bool Write(int stream, Common::PacketBuffer& packet);
    /// All lanes are done.
    void Finish();

    /// What the file has got; after Finish.
    MediaCount Written();
    /// The latest decoding time that was written, in kPacketTimeBase. Any thread.
    std::int64_t Position() const { return position.load(); }

private:
    void refused();

    const std::string path;
    const std::shared_ptr<RelayShared> shared;
    std::mutex lock;
    Muxer muxer;              // under lock
    bool failed = false;      // under lock
    bool hasRefused = false;  // under lock
    std::atomic<std::int64_t> position{0};
};

}  // namespace Mivra::Tool
