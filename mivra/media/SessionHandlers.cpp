// What sources and sinks tell a session, on their own threads.

#include <algorithm>

#include "mivra/common/model/MediaTime.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/media/SessionCore.h"
#include "mivra/media/SessionTime.h"

namespace Mivra::Media {

using Common::FileLog;
using Common::LogLine;

void SessionCore::hook(MediaSourceState& record) {
    const auto core = shared_from_this();
    IMediaSource& source = *record.source.get();
    record.newStreamListener = source.AddNewStreamListener(
        [core](void* sender, NewStreamEventArgs* args) { core->IMediaSource_NewStream(sender, args); });
    record.newSampleListener = source.AddNewSampleListener(
        [core](void* sender, NewSampleEventArgs* args) { core->IMediaSource_NewSample(sender, args); });
    record.stateChangedListener = source.AddStateChangedListener(
        [core](void* sender, MediaState newState) { core->IMediaSource_StateChanged(sender, newState); });
    record.errorListener =
        source.AddErrorListener([core, epoch = currentEpoch.load()](void* sender, ErrorEventArgs* args) {
            core->IMediaSource_Error(sender, args, epoch);
        });
}

void SessionCore::hook(MediaSinkState& record) {
    const auto core = shared_from_this();
    IMediaSink& sink = *record.sink.get();
    record.stateChangedListener = sink.AddStateChangedListener(
        [core](void* sender, MediaState newState) { core->IMediaSink_StateChanged(sender, newState); });
    record.errorListener =
        sink.AddErrorListener([core, epoch = currentEpoch.load()](void* sender, ErrorEventArgs* args) {
            core->IMediaSource_Error(sender, args, epoch);
        });
}

void SessionCore::IMediaSource_NewStream(void*, NewStreamEventArgs* args) {
    LogLine(FileLog::Debug, "MediaSession::IMediaSource_NewStream: Got new stream %s",
            args->mediaType.ToString().c_str());
}

void SessionCore::IMediaSource_NewSample(void* sender, NewSampleEventArgs* args) {
    if (ended() || args->sample == nullptr) {
        return;
    }
    try {
        if (queue.Append(static_cast<IMediaSource*>(sender), args->sample) == SampleQueue::Appended::First) {
            work.Notify();
        }
    } catch (...) {
        failByException("MediaSession::IMediaSource_NewSample", "Sample queue");
    }
}

void SessionCore::IMediaSource_StateChanged(void*, MediaState) {
    if (!acquire(OnBusy::GiveUpWhenEnded)) {
        return;
    }
    SessionLock held(*this);
    if (state == MediaState::Opening && allSourcesStarted()) {
        LogLine(FileLog::Debug, "MediaSession::IMediaSource_StateChanged: All sources ready");
        advance(MediaState::Opening, MediaState::Opened);
    }
}

void SessionCore::IMediaSource_Error(void*, ErrorEventArgs* args, std::uint32_t epoch) {
    if (!running || epoch != currentEpoch) {
        return;
    }
    if (args->fatal) {
        fail({args->message}, epoch);
    } else {
        onError(args->message, false);
    }
}

void SessionCore::IMediaSink_StateChanged(void* sender, MediaState newState) {
    if (!acquire(OnBusy::GiveUpWhenEnded)) {
        return;
    }
    SessionLock held(*this);
    LogLine(FileLog::Debug, "MediaSession::IMediaSink_StateChanged: Sink state changed to %d",
            static_cast<int>(newState));
    const auto known = std::find_if(sinks.begin(), sinks.end(), [sender](const auto& entry) {
        return entry.second.sink.get() == static_cast<IMediaSink*>(sender);
    });
    if (known == sinks.end() || newState != MediaState::Opened) {
        return;
    }
    MediaSinkState& record = known->second;
    record.openTime = Common::MediaTime::Get(kTimescale);
    record.reportedOpened = true;
    if (state == MediaState::Started || state == MediaState::Running) {
        onStartSink(record, held);
    }
}

}  // namespace Mivra::Media
