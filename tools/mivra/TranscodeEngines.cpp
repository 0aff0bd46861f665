#include "tools/mivra/TranscodeEngines.h"

#include <utility>

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

}  // namespace

std::shared_ptr<Media::IDecoder> makeDecoder(const MediaType& input, const MediaType& wanted, int threads,
                                             bool hardware, const std::string& path) {
    MediaType from(input);
    MediaType to(wanted);
    Media::DecoderParameters parameters;
    parameters.AllowHardwareAcceleration = hardware;
    parameters.ThreadCount = threads;
    auto decoder = Media::DecoderFactory::Create(&from, &to, &parameters);
    if (decoder == nullptr || !decoder->IsUsable()) {
        throw ProblemError(ExitCode::CannotOpen,
                           {"nothing here decodes " + describe(input), path, kWhyIsInTheLog});
    }
    return decoder;
}

EncoderEnd::EncoderEnd(const MediaType& input, const LaneSettings& settings, LaneEnd to)
    : end(std::move(to)), path(settings.path) {
    MediaType from(input);
    MediaType wanted(settings.wanted);
    Media::EncoderParameters parameters;
    parameters.AllowHardwareAcceleration = settings.hardware;
    parameters.ThreadCount = settings.threads > 0 ? settings.threads : -1;
    parameters.Options = settings.options;
    encoder = Media::EncoderFactory::Create(&from, &wanted, &parameters);
    if (encoder == nullptr || !encoder->IsUsable()) {
        throw ProblemError(ExitCode::CannotOpen, {"nothing here encodes " + describe(input) + " as " +
                                                      codecName(static_cast<int>(wanted.CodecId())),
                                                  path, kWhyIsInTheLog});
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
