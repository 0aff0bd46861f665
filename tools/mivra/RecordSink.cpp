#include "tools/mivra/RecordSink.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <system_error>

#include "mivra/common/runtime/GeneralException.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {

using Common::ContentType_t;
using Common::MediaType;
using Common::PacketBuffer;
using Media::MediaState;

namespace {

/// A stream without packets holds the end up no longer than this.
constexpr std::int64_t kEndSlack = kPacketSecond;

bool isJoined(const OutputFormat& format) {
    return std::strcmp(format.muxer, "mpegts") == 0;
}

/// The stream whose key frames begin the files after the first: the first that carries video, else the first
/// of all; -1: none is taken.
int leadingStream(const std::vector<MediaType>& types, const std::vector<bool>& taken) {
    int lead = -1;
    for (std::size_t i = 0; i < types.size(); ++i) {
        if (taken[i] && types[i].ContentType() == ContentType_t::Video) {
            return static_cast<int>(i);
        }
        if (taken[i] && lead < 0) {
            lead = static_cast<int>(i);
        }
    }
    return lead;
}

}  // namespace

RecordSink::RecordSink(const OutputFormat& of, std::string firstPlace, std::shared_ptr<RelayShared> with)
    : format(of), place(std::move(firstPlace)), shared(std::move(with)) {}

RecordSink::~RecordSink() {
    destroying = true;
    muxer.reset();
    opened.reset();
}

void RecordSink::Open() {
    try {
        opened = std::make_unique<Muxer>(place, format, shared->stop, &shared->board);
    } catch (const ProblemError& error) {
        if (!shared->stop.IsRaised()) {  // else it was told to give up
            shared->monitor.Fail(error.code, error.problem);
        }
        throw Common::GeneralException("%s", error.what());
    }
    setStateInThread(MediaState::Opened);
}

void RecordSink::AddStream(int streamIndex, MediaType* type) {
    const auto index = static_cast<std::size_t>(streamIndex);
    if (types.size() <= index) {
        types.resize(index + 1);
    }
    types[index] = *type;
}

void RecordSink::Start(bool) {
    taken.resize(types.size());
    ended.resize(types.size(), true);
    try {
        for (const std::size_t index : opened->Choose(types)) {
            taken[index] = true;
            ended[index] = false;
        }
    } catch (const ProblemError& error) {
        fail(error.code, error.problem);
        return;
    }
    lead = leadingStream(types, taken);
    if (!opened->LeftOut().empty()) {
        shared->monitor.Note(opened->LeftOut());
    }
    if (opened->IsRegular()) {
        opened.reset();  // and with it the file, when it was not there before
    }
    started = lead >= 0;
    setStateInThread(MediaState::Started);
}

void RecordSink::PushMedia(int stream, PacketBuffer* sample) {
    const auto index = static_cast<std::size_t>(stream);
    if (!started || sample == nullptr || stream < 0 || index >= taken.size() || !taken[index]) {
        return;
    }
    if (isPastEnd(stream, sample->Dts())) {
        return;
    }
    if (sample->NewMediaType() != nullptr) {
        types[index] = *sample->NewMediaType();
    }
    if (isEntry(stream, *sample) && !(finishFile() && beginFile(*sample))) {
        started = false;
        return;
    }
    if (muxer != nullptr) {
        write(stream, *sample);
    }
}

// The first file begins with whichever source comes first: none waits for another one's key frame.
bool RecordSink::isEntry(int stream, PacketBuffer& sample) {
    const auto kind = [this](int of) -> ContentType_t {
        return types[static_cast<std::size_t>(of)].ContentType();
    };
    if (muxer == nullptr) {
        return kind(stream) == kind(lead) && sample.KeyFrame();
    }
    const std::int64_t period = std::int64_t{GetRotationPeriod()} * (kPacketSecond / 1000);
    return stream == lead && sample.KeyFrame() && period > 0 && sample.Dts() - fileBegin >= period;
}

bool RecordSink::isPastEnd(int stream, std::int64_t dts) {
    const std::int64_t limit = end;
    if (!over && dts >= limit) {
        ended[static_cast<std::size_t>(stream)] = true;
        const bool all = std::find(ended.begin(), ended.end(), false) == ended.end();
        over = all || dts - limit >= kEndSlack;
        if (over) {
            shared->monitor.End();
        }
    }
    return over || dts >= limit;
}

bool RecordSink::beginFile(PacketBuffer& sample) {
    const std::int64_t time = sample.Pts() != kUnsetTime ? sample.Pts() : sample.Dts();
    Muxer::Section section;
    section.joined = isJoined(format);
    section.origin = section.joined ? 0 : time;
    section.continued = !summaries.empty();
    try {
        OutputSummary summary;
        summary.path = GetNextUri()();
        summary.format = format.muxer;
        muxer = opened != nullptr && summary.path == place
                    ? std::move(opened)
                    : std::make_unique<Muxer>(summary.path, format, shared->stop, &shared->board);
        opened.reset();
        muxer->Begin(types, section);
        for (std::size_t i = 0; i < types.size(); ++i) {
            if (muxer->Takes(static_cast<int>(i))) {
                summary.streams.push_back(describe(types[i]));
            }
        }
        summaries.push_back(std::move(summary));
    } catch (const ProblemError& error) {
        fail(error.code, error.problem);
        return false;
    } catch (const std::bad_alloc&) {
        fail(ExitCode::CannotOpen, {"no memory for the output", place, ""});
        return false;
    }
    fileBegin = sample.Dts();
    std::int64_t none = kUnsetTime;
    begun.compare_exchange_strong(none, time);
    return true;
}

bool RecordSink::finishFile() {
    if (muxer == nullptr) {
        return true;
    }
    const Muxer::Result result = muxer->Finish();
    summaries.back().written = muxer->Written();
    if (result == Muxer::Result::BadPacket) {
        refused();
    } else if (result == Muxer::Result::Failed) {
        fail(ExitCode::WriteFailed, muxer->Failure());
    }
    muxer.reset();
    return result != Muxer::Result::Failed;
}

const std::string& RecordSink::path() const {
    return summaries.empty() ? place : summaries.back().path;
}

void RecordSink::write(int stream, PacketBuffer& sample) {
    switch (muxer->Write(stream, sample)) {
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

void RecordSink::refused() {
    if (!badPackets) {
        badPackets = true;
        shared->monitor.Damaged({"damaged input: a packet that the output refuses: " + muxer->ErrorText(),
                                 path(), "it is left out"});
    }
}

void RecordSink::fail(ExitCode code, const Problem& problem) {
    shared->monitor.Fail(code, problem);
    if (stopped) {
        return;
    }
    try {
        raiseErrorInThread(toLine(problem), true);
    } catch (const std::system_error&) {
        onError(toLine(problem), true);  // no thread to be had
    }
}

void RecordSink::Stop() {
    stopped = true;
    if (!summaries.empty()) {
        finishFile();
    }
    setStateInThread(MediaState::Stopped);
}

}  // namespace Mivra::Tool
