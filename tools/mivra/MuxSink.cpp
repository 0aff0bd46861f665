#include "tools/mivra/MuxSink.h"

#include <new>
#include <system_error>

#include "mivra/common/runtime/GeneralException.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {

using Common::MediaType;
using Common::PacketBuffer;
using Media::MediaState;

MuxSink::MuxSink(MuxSinkOptions what, std::shared_ptr<RelayShared> with)
    : options(std::move(what)), shared(std::move(with)) {}

MuxSink::~MuxSink() {
    destroying = true;
    muxer.reset();
}

void MuxSink::Open() {
    try {
        muxer = std::make_unique<Muxer>(options.path, *options.format, shared->stop, &shared->board);
    } catch (const ProblemError& error) {
        if (!shared->stop.IsRaised()) {  // else it was told to give up
            shared->monitor.Fail(error.code, error.problem);
        }
        throw Common::GeneralException("%s", error.what());
    }
    setStateInThread(MediaState::Opened);
}

void MuxSink::AddStream(int streamIndex, MediaType* type) {
    const auto index = static_cast<std::size_t>(streamIndex);
    if (types.size() <= index) {
        types.resize(index + 1);
    }
    types[index] = *type;
}

void MuxSink::Start(bool) {
    try {
        muxer->Begin(types);
    } catch (const ProblemError& error) {
        fail(error.code, error.problem);
        return;
    } catch (const std::bad_alloc&) {
        fail(ExitCode::CannotOpen, {"no memory for the output", options.path, ""});
        return;
    }
    if (!muxer->LeftOut().empty()) {
        shared->monitor.Note(muxer->LeftOut());
    }
    started = true;
    setStateInThread(MediaState::Started);
}

void MuxSink::PushMedia(int streamIndex, PacketBuffer* sample) {
    if (started && sample != nullptr && muxer->Takes(streamIndex)) {
        write(streamIndex, *sample);
    }
    if (options.last) {
        shared->monitor.Consumed();
    }
}

void MuxSink::write(int streamIndex, PacketBuffer& sample) {
    switch (muxer->Write(streamIndex, sample)) {
        case Muxer::Result::Done:
            return;
        case Muxer::Result::BadPacket:
            refused();
            return;
        case Muxer::Result::Failed:
            started = false;
            fail(ExitCode::WriteFailed, muxer->Failure());
            return;
    }
}

void MuxSink::refused() {
    if (!badPackets) {
        badPackets = true;
        shared->monitor.Damaged({"damaged input: a packet that the output refuses: " + muxer->ErrorText(),
                                 options.path, "it is left out"});
    }
}

void MuxSink::fail(ExitCode code, const Problem& problem) {
    shared->monitor.Fail(code, problem);
    try {
        raiseErrorInThread(toLine(problem), true);
    } catch (const std::system_error&) {
        onError(toLine(problem), true);  // no thread to be had
    }
}

void MuxSink::Stop() {
    const auto result = muxer != nullptr ? muxer->Finish() : Muxer::Result::Done;
    if (result == Muxer::Result::BadPacket) {
        refused();
    } else if (result == Muxer::Result::Failed) {
        shared->monitor.Fail(ExitCode::WriteFailed, muxer->Failure());
    }
    setStateInThread(MediaState::Stopped);
}

OutputSummary MuxSink::GetSummary() const {
    OutputSummary summary;
    summary.path = options.path;
    summary.format = options.format->muxer;
    for (std::size_t i = 0; muxer != nullptr && i < types.size(); ++i) {
        if (muxer->Takes(static_cast<int>(i))) {
            summary.streams.push_back(describe(types[i]));
        }
    }
    if (muxer != nullptr) {
        summary.written = muxer->Written();
    }
    return summary;
}

}  // namespace Mivra::Tool
