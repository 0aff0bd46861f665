#include "tools/mivra/Transcode.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>

#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/media/MediaSession.h"
#include "tools/mivra/FileSource.h"
#include "tools/mivra/Interrupt.h"
#include "tools/mivra/LibraryUse.h"
#include "tools/mivra/MediaRuntime.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/Progress.h"
#include "tools/mivra/RelayFiles.h"
#include "tools/mivra/TranscodeSink.h"

namespace Mivra::Tool {
namespace {

using Common::Reference;
using Media::MediaSession;

constexpr int kLookMilliseconds = 100;
/// Packets wait for the encoder, not for the disk: more of them would only take memory.
constexpr std::int64_t kBudgetBytes = std::int64_t{3} << 20;
/// Of the shared pools: only what is encoded and not yet muxed lies in them.
constexpr float kPoolScale = 0.25F;
/// What a decoder of audio hears before the first sample that is wanted, in seconds: its windows overlap.
constexpr double kRunUp = 0.1;

/// One transcode from start to end.
class Transcode {
public:
    Transcode(const TranscodeOptions& what, Console& where)
        : options(what),
          console(where),
          shared(std::make_shared<RelayShared>(1, where, kBudgetBytes)),
          begin(Clock::now()),
          source(new FileSource(sourceOptions(what), shared)),
          sink(new TranscodeSink(what, *source.get(), shared)) {}

    ExitCode Run() {
        source->SetLoop(false);
        if (options.start > 0) {
            const double from = std::max(0.0, options.start - kRunUp);
            source->SetPosition(std::llround(from * static_cast<double>(kPacketSecond)));
        }
        session.AddSource(source.get());
        session.AddSink(sink.get());
        session.AddErrorListener([this](void*, Media::ErrorEventArgs* args) { onError(*args); });
        session.SetNoCaptureTimeout(std::numeric_limits<std::int64_t>::max());
        reporter = makeProgressReporter(console, options.json, options.statsSeconds);
        session.Start();
        while (!shared->monitor.Wait(kLookMilliseconds, Interrupt::Descriptor()) &&
               !Interrupt::IsRequested()) {
            reporter->Update(progress());
        }
        stop();
        return report();
    }

private:
    using Clock = std::chrono::steady_clock;

    static FileSourceOptions sourceOptions(const TranscodeOptions& options) {
        FileSourceOptions source;
        source.path = options.input;
        if (options.seconds > 0) {
            source.until =
                std::llround((options.start + options.seconds) * static_cast<double>(kPacketSecond));
        }
        return source;
    }

    void onError(const Media::ErrorEventArgs& error) {
        if (!error.fatal || stopping) {
            return;
        }
        failSession(shared->monitor, error.message);
    }

    // Whatever fails on the way, the output is finished.
    void stop() {
        stopping = true;
        interrupted = Interrupt::IsRequested() && !shared->monitor.FirstFailure().has_value();
        shared->stop.Raise();
        attempt([&] { source->Stop(); });
        attempt([&] { session.Stop(); });
        attempt([&] { sink->Stop(); });
    }

    Progress progress() const {
        Progress now = countedSince(shared->monitor, begin);
        now.position = toSeconds(sink->Position());
        const double length = toSeconds(source->GetDuration());
        if (length > 0) {
            const double rest = std::max(0.0, length - options.start);
            now.duration = options.seconds > 0 ? std::min(rest, options.seconds) : rest;
        }
        return now;
    }

    ExitCode report() {
        Summary summary;
        summary.progress = progress();
        summary.outputs.push_back(sink->GetSummary());
        const MediaCount count = summary.outputs.back().written;
        return reportOutcome(shared->monitor, console, *reporter, std::move(summary), count, interrupted);
    }

    const TranscodeOptions& options;
    Console& console;
    const std::shared_ptr<RelayShared> shared;
    const Clock::time_point begin;
    const Reference<FileSource> source;
    const Reference<TranscodeSink> sink;
    std::unique_ptr<IProgressReporter> reporter;
    bool interrupted = false;
    std::atomic<bool> stopping{false};
    MediaSession session;
};

/// A codec that nothing here encodes, told before any file is touched.
std::optional<Problem> checkCodec(const CodecChoice& choice, const char* option) {
    if (!choice.codec.has_value() ||
        FFmpeg::FfmpegProxy::avcodec_find_encoder(static_cast<int>(*choice.codec)) != nullptr) {
        return std::nullopt;
    }
    return Problem{"FFmpeg here has no encoder for " + codecName(static_cast<int>(*choice.codec)), option,
                   "choose another codec"};
}

ExitCode run(const TranscodeOptions& options, Console& console) {
    for (const auto& [choice, option] :
         {std::pair{&options.video, "--video"}, std::pair{&options.audio, "--audio"}}) {
        if (const auto wrong = checkCodec(*choice, option)) {
            console.Error(*wrong);
            return ExitCode::CannotOpen;
        }
    }
    return Transcode(options, console).Run();
}

}  // namespace

ExitCode transcode(const TranscodeOptions& options) {
    Console console(options.output == kStandardStream ? STDERR_FILENO : STDOUT_FILENO);
    if (const auto wrong = checkRelayFiles({options.input}, {options.output}, options.log)) {
        console.Error(*wrong);
        return ExitCode::Usage;
    }
    if (const auto wrong = checkLogPlace(options.log, options.logLevel)) {
        console.Error(*wrong);
        return ExitCode::Usage;
    }
    const Interrupt interrupt;
    try {
        const MediaRuntime runtime(options.log, options.logLevel);
        Media::MediaGlobal::Initialize(kPoolScale);
        return run(options, console);
    } catch (const ProblemError& error) {
        console.Error(error.problem);
        return error.code;
    }
}

}  // namespace Mivra::Tool
