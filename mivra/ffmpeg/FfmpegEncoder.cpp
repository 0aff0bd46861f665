#include "mivra/ffmpeg/FfmpegEncoder.h"

#include <new>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/EncoderCore.h"

namespace Mivra::FFmpeg {
namespace {

using Common::FileLog;
using Common::LogLine;

/// What the body returns; when it finds no memory, the log is told, and `otherwise` returned.
template <typename Result, typename Body>
Result withMemory(const char* operation, const void* address, Result otherwise, Body body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        LogLine(FileLog::Error, "FfmpegEncoder::%s[%p]: no memory", operation, address);
    }
    return otherwise;
}

}  // namespace

FfmpegEncoder::FfmpegEncoder(Common::MediaType* input, Common::MediaType* output,
                             Media::EncoderParameters* wanted)
    : IEncoder(input, output, wanted) {
    usable = withMemory("FfmpegEncoder", this, false, [&] {
        core = std::make_unique<EncoderCore>(this, inputMediaType, outputMediaType, outputMediaTypeDirty,
                                             parameters);
        const std::string problem = core->Open();
        if (!problem.empty()) {
            LogLine(FileLog::Error, "FfmpegEncoder::FfmpegEncoder[%p]: %s", static_cast<void*>(this),
                    problem.c_str());
            FfmpegMessageWatch::TellRefusal(problem);
        }
        return problem.empty();
    });
    if (!usable) {
        core.reset();
    }
}

FfmpegEncoder::~FfmpegEncoder() = default;

bool FfmpegEncoder::Write(Common::PacketBuffer* frame) {
    return core != nullptr && frame != nullptr &&
           withMemory("Write", this, false, [&] { return core->Write(*frame); });
}

Common::PacketBuffer* FfmpegEncoder::Read() {
    using Result = Common::PacketBuffer*;
    return core == nullptr ? nullptr
                           : withMemory("Read", this, Result{}, [&] { return core->Read().Detach(); });
}

void FfmpegEncoder::Drain() {
    if (core != nullptr) {
        withMemory("Drain", this, false, [&] {
            core->Drain();
            return true;
        });
    }
}

}  // namespace Mivra::FFmpeg
