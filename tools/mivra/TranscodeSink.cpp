#include "tools/mivra/TranscodeSink.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

#include "mivra/common/runtime/GeneralException.h"
#include "tools/mivra/CodecNames.h"
#include "tools/mivra/FileSource.h"
#include "tools/mivra/PictureTurn.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {
namespace {

using Common::Codec_t;
using Common::ContentType_t;
using Common::MediaType;
using Common::PacketBuffer;
using Common::Rational;
using Media::MediaState;

/// What travels from the input's description to the output's, beside the fields that are set one by one.
const std::string kKept[] = {Key::kTimeBaseNum, Key::kTimeBaseDen, Key::kDisposition, "Language",
                             displayMatrixKey()};

std::int64_t toPacketTime(double seconds) {
    return std::llround(seconds * static_cast<double>(kPacketSecond));
}

bool isCover(const MediaType& type) {
    return (numberOf(type, Key::kDisposition, 0) & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

void setTimeBase(AVRational base, MediaType& type) {
    type.CodecMetadata()[Key::kTimeBaseNum] = std::int64_t{base.num};
    type.CodecMetadata()[Key::kTimeBaseDen] = std::int64_t{base.den};
}

/// Parameter sets travel in the packets of formats that have no place for them elsewhere.
bool wantsSetsInPackets(const OutputFormat& format) {
    return std::strcmp(format.muxer, "mpegts") == 0 || std::strcmp(format.muxer, "h264") == 0;
}

}  // namespace

TranscodeSink::TranscodeSink(const TranscodeOptions& what, const FileSource& from,
                             std::shared_ptr<RelayShared> with)
    : options(what), format(*findOutputFormat(what.output)), source(from), shared(std::move(with)) {}

TranscodeSink::~TranscodeSink() {
    destroying = true;
    lanes.clear();  // before what they write into
}

void TranscodeSink::Open() {
    try {
        output = std::make_unique<TranscodeOutput>(options.output, format, shared);
        written = output.get();
    } catch (const ProblemError& error) {
        if (!shared->stop.IsRaised()) {  // else it was told to give up
            shared->monitor.Fail(error.code, error.problem);
        }
        throw Common::GeneralException("%s", error.what());
    }
    setStateInThread(MediaState::Opened);
}

void TranscodeSink::AddStream(int streamIndex, MediaType* type) {
    const auto index = static_cast<std::size_t>(streamIndex);
    if (inputs.size() <= index) {
        inputs.resize(index + 1);
    }
    inputs[index] = *type;
}

void TranscodeSink::Start(bool) {
    try {
        begin();
    } catch (const ProblemError& error) {
        fail(error.code, error.problem);
        return;
    } catch (const std::bad_alloc&) {
        fail(ExitCode::CannotOpen, {"no memory for the output", options.output, ""});
        return;
    }
    setStateInThread(MediaState::Started);
}

void TranscodeSink::begin() {
    const std::int64_t length = source.GetDuration();
    if (length > 0 && toPacketTime(options.start) >= length) {
        char text[64];
        std::snprintf(text, sizeof(text), "it lasts from 0 to %.3f s",
                      static_cast<double>(length) / kPacketSecond);
        throw ProblemError(ExitCode::Usage, {"nothing is left behind --start", options.input, text});
    }
    std::vector<Plan> plans;
    std::vector<MediaType> types;
    for (const MediaType& input : inputs) {
        plans.push_back(planOf(input));
        types.push_back(plans.back().type);
    }
    const std::vector<std::size_t> chosen = output->Choose(types);
    checkChoice(plans, chosen);
    lanes.resize(inputs.size());
    for (const std::size_t index : chosen) {
        lanes[index] = makeLane(index, plans[index]);
        types[index] = lanes[index]->Type();
    }
    output->Begin(types);
    noteTurned();
    started = true;
    for (const auto& lane : lanes) {
        if (lane != nullptr) {
            lane->Start();
        }
    }
}

/// Pictures stay as they were recorded; only some formats can tell how they are to be turned.
void TranscodeSink::noteTurned() const {
    const bool tells = std::strcmp(format.muxer, "mp4") == 0;
    const bool turned = std::any_of(lanes.begin(), lanes.end(), [](const auto& lane) {
        return lane != nullptr && !PictureTurn(lane->Type()).IsNone();
    });
    if (turned && !tells) {
        shared->monitor.Note(options.output + " cannot tell that its pictures are to be turned; .mp4 can");
    }
}

/// Enough of the output's type to see whether the format takes it.
TranscodeSink::Plan TranscodeSink::planOf(const MediaType& input) const {
    Plan plan{input, false};
    const bool video = input.ContentType() == ContentType_t::Video;
    if (!video && input.ContentType() != ContentType_t::Audio) {
        return plan;
    }
    const CodecChoice& choice = video ? options.video : options.audio;
    if (video && isCover(input)) {
        plan.type.ContentType() = ContentType_t::Binary;  // no film: it is left out, and named
        return plan;
    }
    plan.copied = choice.copy;
    if (!choice.copy) {
        plan.type.CodecId() = choice.codec.value_or(video ? Codec_t::H264 : Codec_t::AAC);
        plan.type.CodecMetadata().RemoveKey(Key::kCodecTag);
    }
    return plan;
}

/// Who asks for a codec is not to get a file without it.
void TranscodeSink::checkChoice(const std::vector<Plan>& plans,
                                const std::vector<std::size_t>& chosen) const {
    for (const auto& [kind, choice] :
         {std::pair{ContentType_t::Video, &options.video}, {ContentType_t::Audio, &options.audio}}) {
        const auto isOfKind = [&, wanted = kind](const Plan& plan) {
            return plan.type.ContentType() == wanted;
        };
        const auto found = std::find_if(plans.begin(), plans.end(), isOfKind);
        const bool taken = std::any_of(chosen.begin(), chosen.end(),
                                       [&](std::size_t index) { return isOfKind(plans[index]); });
        if (found != plans.end() && !taken && (choice->copy || choice->codec.has_value())) {
            throw ProblemError(ExitCode::CannotOpen,
                               {"the output's format does not hold " + describe(found->type), options.output,
                                "choose another codec or another format"});
        }
    }
}

std::unique_ptr<TranscodeLane> TranscodeSink::makeLane(std::size_t index, const Plan& plan) {
    const MediaType& input = inputs[index];
    LaneEnd end{static_cast<int>(index), *output, shared};
    if (plan.copied) {
        return makeCopyLane(input, window(), std::move(end));
    }
    LaneSettings settings;
    settings.threads = options.threads;
    settings.hardware = options.hardware;
    settings.window = window();
    settings.path = options.input;
    settings.wanted.ContentType() = input.ContentType();
    settings.wanted.CodecId() = plan.type.CodecId();
    for (const std::string& key : kKept) {
        if (input.CodecMetadata().ContainsKey(key)) {
            settings.wanted.CodecMetadata()[key] = const_cast<MediaType&>(input).CodecMetadata()[key];
        }
    }
    setEngineOptions(input, settings);
    if (input.ContentType() == ContentType_t::Video) {
        setPicture(input, settings);
        return makePictureLane(input, settings, std::move(end));
    }
    setTimeBase({1, std::max(1, input.SampleRate())}, settings.wanted);
    return makeSampleLane(input, settings, std::move(end));
}

void TranscodeSink::setPicture(const MediaType& input, LaneSettings& settings) const {
    MediaType& wanted = settings.wanted;
    wanted.PixelAspectRatio() = input.PixelAspectRatio();
    wanted.Framerate() = input.Framerate();
    if (options.width > 0 && input.Width() > 0 && input.Height() > 0) {
        wanted.Width() = options.width;
        wanted.Height() = options.height;
        // The picture keeps the shape that it has on a screen.
        wanted.PixelAspectRatio() = input.PixelAspectRatio() * Rational(input.Width(), options.width) *
                                    Rational(options.height, input.Height());
    }
    if (options.rate.num > 0) {
        settings.rate = options.rate;
        wanted.Framerate() = Rational(options.rate.num, options.rate.den);
        setTimeBase({options.rate.den, options.rate.num}, wanted);
    }
}

void TranscodeSink::setEngineOptions(const MediaType& input, LaneSettings& settings) const {
    MediaType& wanted = settings.wanted;
    const bool video = input.ContentType() == ContentType_t::Video;
    if (video || isAudioAlone()) {
        wanted.Bitrate() = options.bitrate;
    }
    if (!video) {
        return;
    }
    if (wanted.Bitrate() == 0) {
        const Rational& rate = input.Framerate();
        const double pictures = options.rate.num > 0 ? av_q2d(options.rate)
                                : rate.Num() > 0     ? double(rate.Num()) / std::max(1, rate.Den())
                                                     : 0;
        const bool scaled = options.width > 0;
        wanted.Bitrate() = usualBitrate(wanted.CodecId(), scaled ? options.width : input.Width(),
                                        scaled ? options.height : input.Height(), pictures);
    }
    if (hasPresets(wanted.CodecId())) {
        settings.options = options.preset.empty() ? "" : "preset=" + options.preset;
        if (wantsSetsInPackets(format)) {
            constexpr char kStartCode[] = {0, 0, 0, 1};
            setPrivateData(wanted, kStartCode, sizeof(kStartCode));
        }
    }
}

bool TranscodeSink::isAudioAlone() const {
    return std::none_of(inputs.begin(), inputs.end(), [this](const MediaType& input) {
        return input.ContentType() == ContentType_t::Video && !isCover(input) && format.mostVideo > 0;
    });
}

TimeWindow TranscodeSink::window() const {
    TimeWindow part;
    part.begin = toPacketTime(options.start) - (options.start > 0 ? source.Begin() : 0);
    if (options.seconds > 0) {
        part.end = part.begin + toPacketTime(options.seconds);
    }
    return part;
}

void TranscodeSink::PushMedia(int streamIndex, PacketBuffer* sample) {
    const auto index = static_cast<std::size_t>(streamIndex);
    if (started && sample != nullptr && index < lanes.size() && lanes[index] != nullptr) {
        lanes[index]->Push(*sample);
    } else {
        shared->monitor.Consumed();
    }
}

void TranscodeSink::fail(ExitCode code, const Problem& problem) {
    shared->monitor.Fail(code, problem);
    try {
        raiseErrorInThread(toLine(problem), true);
    } catch (const std::system_error&) {
        onError(toLine(problem), true);  // no thread to be had
    }
}

void TranscodeSink::Stop() {
    for (const auto& lane : lanes) {
        if (lane != nullptr) {
            lane->Finish();
        }
    }
    if (output != nullptr) {
        output->Finish();
    }
    setStateInThread(MediaState::Stopped);
}

OutputSummary TranscodeSink::GetSummary() const {
    OutputSummary summary;
    summary.path = options.output;
    summary.format = format.muxer;
    for (const auto& lane : lanes) {
        if (lane != nullptr && started) {
            summary.streams.push_back(describe(lane->Type()));
        }
    }
    if (output != nullptr) {
        summary.written = output->Written();
    }
    return summary;
}

std::int64_t TranscodeSink::Position() const {
    const TranscodeOutput* const to = written;
    return to != nullptr ? to->Position() : 0;
}

}  // namespace Mivra::Tool
