#include "mivra/ffmpeg/FfmpegDecoder.h"

#include <new>
#include <utility>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/DecoderEngine.h"

namespace Mivra::FFmpeg {
namespace {

using Common::FileLog;
using Common::LogLine;
using Common::MediaType;
using Common::PacketBuffer;
using Common::Reference;

void noteNoMemory(const void* name, const char* what) {
    LogLine(FileLog::Error, "FfmpegDecoder::%s[%p]: out of memory", what, name);
}

bool sameOutput(const MediaType& a, const MediaType& b) {
    return a.IsEqualShallow(b) && a.FrameSize() == b.FrameSize() && a.CodecMetadata() == b.CodecMetadata();
}

}  // namespace

FfmpegDecoder::FfmpegDecoder(MediaType* input, MediaType* output, Media::DecoderParameters* parameters_)
    : IDecoder(input, output, parameters_) {
    try {
        engine = std::make_unique<DecoderEngine>(this, inputMediaType, wantedMediaType, parameters);
        usable = engine->IsUsable();
        if (engine->Output() != nullptr) {
            outputMediaType = engine->Output()->Type();
            toldRevision = engine->Output()->Revision();
        }
    } catch (const std::bad_alloc&) {
        usable = false;
        engine.reset();
        noteNoMemory(this, "FfmpegDecoder");
    }
}

FfmpegDecoder::~FfmpegDecoder() = default;

void FfmpegDecoder::Write(PacketBuffer* packet) {
    if (engine == nullptr || packet == nullptr) {
        return;
    }
    try {
        engine->Write(*packet);
    } catch (const std::bad_alloc&) {
        noteNoMemory(this, "Write");
    }
    usable = engine->IsUsable();
}

/// A frame of another type than told before says so itself, and its reader's flag.
void FfmpegDecoder::tellType(PacketBuffer& frame) {
    const FrameOutput& output = *engine->Output();
    if (output.Revision() == toldRevision) {
        return;
    }
    if (!sameOutput(output.Type(), outputMediaType)) {
        auto changed = std::make_unique<MediaType>(output.Type());
        outputMediaType = output.Type();
        outputMediaTypeDirty = true;
        delete std::exchange(frame.NewMediaType(), changed.release());
    }
    toldRevision = output.Revision();
}

PacketBuffer* FfmpegDecoder::Read() {
    if (engine == nullptr) {
        return nullptr;
    }
    Reference<PacketBuffer> frame;
    try {
        frame = engine->Read();
        if (frame) {
            tellType(*frame.get());
        }
    } catch (const std::bad_alloc&) {
        noteNoMemory(this, "Read");
    }
    return frame.Detach();
}

void FfmpegDecoder::Drain() {
    if (engine == nullptr) {
        return;
    }
    try {
        engine->Drain();
    } catch (const std::bad_alloc&) {
        noteNoMemory(this, "Drain");
    }
}

}  // namespace Mivra::FFmpeg
