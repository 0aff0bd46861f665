#include "tools/mivra/TranscodeOutput.h"

#include <algorithm>
#include <utility>

namespace Mivra::Tool {

TranscodeOutput::TranscodeOutput(const std::string& name, const OutputFormat& format,
                                 std::shared_ptr<RelayShared> with)
    : path(name), shared(std::move(with)), muxer(name, format, shared->stop) {}

std::vector<std::size_t> TranscodeOutput::Choose(const std::vector<Common::MediaType>& types) {
    const std::lock_guard hold(lock);
    return muxer.Choose(types);
}

void TranscodeOutput::Begin(const std::vector<Common::MediaType>& types) {
    const std::lock_guard hold(lock);
    muxer.Begin(types);
    if (!muxer.LeftOut().empty()) {
        shared->monitor.Note(muxer.LeftOut());
    }
}

bool TranscodeOutput::Write(int stream, Common::PacketBuffer& packet) {
    const std::lock_guard hold(lock);
    if (failed) {
        return false;
    }
    switch (muxer.Write(stream, packet)) {
        case Muxer::Result::Done:
            position = std::max(position.load(), packet.Dts());
            break;
        case Muxer::Result::BadPacket:
            refused();
            break;
        case Muxer::Result::Failed:
            failed = true;
            shared->monitor.Fail(ExitCode::WriteFailed, muxer.Failure());
            break;
    }
    return !failed;
}

void TranscodeOutput::refused() {
    if (!std::exchange(hasRefused, true)) {
        shared->monitor.Damaged(
            {"the output refuses a packet: " + muxer.ErrorText(), path, "it is left out"});
    }
}

void TranscodeOutput::Finish() {
    const std::lock_guard hold(lock);
    switch (muxer.Finish()) {
        case Muxer::Result::Done:
            break;
        case Muxer::Result::BadPacket:
            refused();
            break;
        case Muxer::Result::Failed:
            shared->monitor.Fail(ExitCode::WriteFailed, muxer.Failure());
            break;
    }
}

MediaCount TranscodeOutput::Written() {
    const std::lock_guard hold(lock);
    return muxer.Written();
}

}  // namespace Mivra::Tool
