#include "tools/mivra/TranscodeEngines.h"

#include <any>
#include <new>
#include <string_view>
#include <utility>

#include "mivra/ffmpeg/FfmpegLog.h"
#include "mivra/media/DecoderFactory.h"
#include "mivra/media/EncoderFactory.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {
namespace {

using Common::MediaType;
using Common::PacketBuffer;
using Common::Reference;

constexpr const char* kWhyIsInTheLog = "'--log FILE' tells why";

/// Hears why an engine that is being made cannot be used.
class RefusalWatch : public FFmpeg::FfmpegMessageWatch {
public:
    int OnMessage(const void* /*object*/, int level, std::string_view /*message*/) noexcept override {
        return level;
    }
    void OnRefusal(std::string_view reason) noexcept override {
        try {
            text = ": ";
            text += reason;
        } catch (const std::bad_alloc&) {
            text.clear();  // the log has it
        }
    }

    std::string text;  // to be put behind what is impossible
};

}  // namespace

std::shared_ptr<Media::IDecoder> makeDecoder(const MediaType& input, const MediaType& wanted, int threads,
                                             bool hardware, const std::string& path) {
    MediaType from(input);
    MediaType to(wanted);
    Media::DecoderParameters parameters;
    parameters.AllowHardwareAcceleration = hardware;
    parameters.ThreadCount = threads;
    RefusalWatch refusal;
    auto decoder = Media::DecoderFactory::Create(&from, &to, &parameters);
    if (decoder == nullptr || !decoder->IsUsable()) {
        throw ProblemError(ExitCode::CannotOpen,
                           {"nothing here decodes " + describe(input) + refusal.text, path, ""});
    }
    return decoder;
}

bool isDamaged(PacketBuffer& frame) {
    if (frame.ExtraData().empty()) {
        return false;
    }
    const auto flags = frame.ExtraData().find(PacketBuffer::FlagsAttribute);
    const int* const number = flags == frame.ExtraData().end() ? nullptr : std::any_cast<int>(&flags->second);
    return number != nullptr && (*number & AV_FRAME_FLAG_CORRUPT) != 0;
}

EncoderEnd::EncoderEnd(const MediaType& input, const LaneSettings& settings, LaneEnd to)
    : end(std::move(to)), path(settings.path) {
    MediaType from(input);
    MediaType wanted(settings.wanted);
    const bool video = input.ContentType() == Common::ContentType_t::Video;
    if (video && (input.Width() <= 0 || input.PixelFormat() == Common::PixelFormat_t::None)) {
        throw ProblemError(ExitCode::CannotOpen, {"the input does not tell what its pictures are", path,
                                                  "is the file damaged, or cut short?"});
    }
    Media::EncoderParameters parameters;
    parameters.AllowHardwareAcceleration = settings.hardware;
    parameters.ThreadCount = settings.threads > 0 ? settings.threads : -1;
    parameters.Options = settings.options;
    RefusalWatch refusal;
    encoder = Media::EncoderFactory::Create(&from, &wanted, &parameters);
    if (encoder == nullptr || !encoder->IsUsable()) {
        if (video && wanted.Width() > 0) {
            from.Width() = wanted.Width();
            from.Height() = wanted.Height();
        }
        throw ProblemError(ExitCode::CannotOpen,
                           {"nothing here encodes " + describe(from) + " as " +
                                codecName(static_cast<int>(wanted.CodecId())) + refusal.text,
                            path, video ? "another --size or --video may do" : "another --audio may do"});
    }
    type = *encoder->GetOutputMediaType();
}

/// What the encoder has made goes into the file.
bool EncoderEnd::pass() {
    while (const auto packet = Reference<PacketBuffer>::Adopt(encoder->Read())) {
        failed = failed || !end.output.Write(end.stream, *packet.get());
    }
    return !failed;
}

bool EncoderEnd::Write(PacketBuffer& raw) {
    bool accepted = encoder->Write(&raw);
    if (!pass()) {
        return false;
    }
    if (!accepted) {
        accepted = encoder->Write(&raw);
        pass();
    }
    if (!accepted) {
        failed = true;
        end.shared->monitor.Fail(
            ExitCode::Failed, {"the encoder refuses what was decoded of stream " + std::to_string(end.stream),
                               path, kWhyIsInTheLog});
    }
    return !failed;
}

void EncoderEnd::Drain() {
    encoder->Drain();
    pass();
}

}  // namespace Mivra::Tool
