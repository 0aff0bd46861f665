// How a file source is steered: pauses, seeks, rounds and the clock.

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "mivra/common/runtime/GeneralException.h"
#include "tools/mivra/FileSource.h"
#include "tools/mivra/ProblemError.h"

namespace Mivra::Tool {

using Common::AutoLock;
using Common::GeneralException;
using Common::MediaType;
using Media::MediaState;

FileIdentity FileIdentity::Of(const std::string& path) {
    struct stat status {};
    FileIdentity identity;
    if (path != kStandardStream && ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
        constexpr std::int64_t kNanosecondsPerSecond = 1000000000;
        identity = {status.st_dev, status.st_ino, status.st_size,
                    status.st_mtim.tv_sec * kNanosecondsPerSecond + status.st_mtim.tv_nsec};
    }
    return identity;
}

void FileSource::seekBeforeStart(std::int64_t target) {
    if (const std::string why = whyNotSeek(target); !why.empty()) {
        throw ProblemError(canSeek ? ExitCode::Usage : ExitCode::CannotOpen,
                           {"cannot begin at this position: " + why, options.path, "choose another one"});
    }
    const std::optional<std::int64_t> begin = demuxer->SeekToKeyFrame(target);
    if (stopping) {
        throw GeneralException("stopped");
    }
    if (!begin.has_value()) {
        throw ProblemError(ExitCode::CannotOpen, {"cannot begin at this position: no key frame was found",
                                                  options.path, "is the file damaged?"});
    }
    roundTarget = target;
    roundBegin = *begin;
    time->Jump();
    AutoLock hold(lock);
    position = *begin;
}

// Empty when it may be tried.
std::string FileSource::whyNotSeek(std::int64_t target) const {
    const std::int64_t length = GetDuration();
    if (!canSeek) {
        return "it is no file of a known length, and cannot seek";
    }
    if (target >= 0 && target < length) {
        return "";
    }
    char text[64];
    std::snprintf(text, sizeof(text), "it lasts from 0 to %.3f s",
                  static_cast<double>(length) / kPacketSecond);
    return text;
}

std::int64_t FileSource::PlayingTime() const {
    const std::int64_t round = GetDuration() - roundBegin;
    if (round <= 0 || (loop && options.loops < 0)) {
        return 0;
    }
    std::int64_t all = round;
    const bool fits = !loop || !__builtin_mul_overflow(round, std::int64_t{options.loops} + 1, &all);
    return fits ? all : 0;
}

void FileSource::Pause() {
    {
        const std::lock_guard hold(gate);
        paused = true;
        attention = true;
    }
    gateChanged.notify_all();
}

void FileSource::Resume() {
    {
        const std::lock_guard hold(gate);
        paused = false;
    }
    gateChanged.notify_all();
}

void FileSource::OnActionRequired(std::shared_ptr<Media::ActionRequiredEventArgs> args) {
    if (args == nullptr || args->action != Media::ActionRequiredEventArgs::Seek) {
        onError("a file has no such action: " + options.path, false);
        return;
    }
    // Whether it is there shows when the file is opened.
    const bool unknown = State() == MediaState::None;
    std::string why = eos ? "it has ended" : unknown && args->position < 0 ? "it begins at 0" : "";
    if (why.empty() && !unknown) {
        why = whyNotSeek(args->position);
    }
    if (!why.empty()) {
        onError("cannot go to this position: " + why + ": " + options.path, false);
        return;
    }
    {
        const std::lock_guard hold(gate);
        wantedPosition = args->position;
        attention = true;
    }
    gateChanged.notify_all();
}

// Pauses, and seeks. False when the relay is over.
bool FileSource::attend() {
    send();
    std::optional<std::int64_t> target;
    {
        std::unique_lock hold(gate);
        gateChanged.wait(hold, [this] { return stopping || !paused || wantedPosition.has_value(); });
        target = std::exchange(wantedPosition, std::nullopt);
        attention = paused.load();
    }
    clock->Restart();
    if (target.has_value() && !stopping) {
        seek(*target);
    }
    return !stopping;
}

void FileSource::seek(std::int64_t target) {
    const std::optional<std::int64_t> begin = demuxer->SeekToKeyFrame(target);
    if (!begin.has_value() && !stopping) {
        onError("cannot go to this position: no key frame was found: " + options.path, false);
    }
    time->Jump();
    markJump(begin.value_or(target));
}

void FileSource::markJump(std::int64_t to) {
    jumped.assign(jumped.size(), true);
    AutoLock hold(lock);
    position = to;
}

// False when the relay is over.
bool FileSource::goOnAtEnd() {
    send();
    if (loop && deliveredInRound && (options.loops < 0 || rounds < options.loops)) {
        beginAnew();
        return true;
    }
    if (allowEos) {
        return false;
    }
    shared->pace.Finish(options.index);
    std::unique_lock hold(gate);
    gateChanged.wait(hold, [this] { return stopping || wantedPosition.has_value(); });
    return !stopping;
}

// The file is opened once more: a seek to its beginning would not lead to its very first packets everywhere.
void FileSource::beginAnew() {
    noteDamage();
    const FileIdentity found = FileIdentity::Of(options.path);
    auto next = std::make_unique<Demuxer>(options.path);
    next->Open();
    const bool isOther = found != identity;
    if (isOther) {
        takeTypes(*next);
    }
    {
        AutoLock hold(lock);
        std::swap(demuxer, next);
        duration = demuxer->Duration();
    }
    identity = found;
    applyDiscards();
    isOther ? time->Jump() : time->Repeat();
    std::int64_t begin = 0;
    if (roundTarget > 0) {
        begin = demuxer->SeekToKeyFrame(roundTarget).value_or(0);
    }
    markJump(begin);
    ++rounds;
    deliveredInRound = false;
    if (isOther) {
        onSourceChanged();
    }
}

void FileSource::takeTypes(const Demuxer& next) {
    bool same = next.StreamCount() == GetStreamCount();
    for (int i = 0; same && i < next.StreamCount(); ++i) {
        const MediaType& before = types[static_cast<std::size_t>(i)];
        const MediaType& after = next.Type(i);
        same = before.ContentType() == after.ContentType() && before.CodecId() == after.CodecId();
        const auto size = static_cast<std::size_t>(after.CodecPrivateDataSize());
        if (before.CodecPrivateDataSize() != after.CodecPrivateDataSize() ||
            (size > 0 && std::memcmp(before.CodecPrivateData(), after.CodecPrivateData(), size) != 0)) {
            changedTypes[i] = after;
        }
    }
    if (!same) {
        throw ProblemError(ExitCode::Failed, {"the input was replaced by one with other streams",
                                              options.path, "what was read before is written"});
    }
}

// False when the relay is over. Who is to seek does not wait.
bool FileSource::waitUntilDue(std::int64_t dts) {
    std::unique_lock hold(gate);
    const auto due = clock->DueAt(dts, PlaybackClock::Clock::now());
    const auto isCalled = [this] { return stopping || wantedPosition.has_value(); };
    if (gateChanged.wait_until(hold, due, [&] { return isCalled() || paused; })) {
        gateChanged.wait(hold, [&] { return isCalled() || !paused; });
        clock->Restart();
        clock->DueAt(dts, PlaybackClock::Clock::now());
    }
    return !stopping;
}

}  // namespace Mivra::Tool
