#include "tools/mivra/MediaIo.h"

#include <new>

#include "tools/mivra/MediaFile.h"
#include "tools/mivra/NetworkAddress.h"
#include "tools/mivra/NetworkInput.h"
#include "tools/mivra/NetworkOutput.h"

namespace Mivra::Tool {

using FFmpeg::FfmpegOptional;
using FFmpeg::FfmpegProxy;

void AvioDeleter::operator()(AVIOContext* context) const {
    FfmpegProxy::av_freep(&context->buffer);
    FfmpegOptional::avio_context_free(&context);
}

AvioPointer makeAvio(int bufferSize, bool writing, void* self, int (*read)(void*, std::uint8_t*, int),
                     int (*write)(void*, std::uint8_t*, int),
                     std::int64_t (*seek)(void*, std::int64_t, int)) {
    auto* const buffer =
        static_cast<unsigned char*>(FfmpegProxy::av_mallocz(static_cast<std::size_t>(bufferSize)));
    if (buffer == nullptr) {
        throw std::bad_alloc();
    }
    AvioPointer context(
        FfmpegProxy::avio_alloc_context(buffer, bufferSize, writing ? 1 : 0, self, read, write, seek));
    if (context == nullptr) {
        FfmpegProxy::av_free(buffer);
        throw std::bad_alloc();
    }
    context->seekable = seek != nullptr ? AVIO_SEEKABLE_NORMAL : 0;
    return context;
}

std::unique_ptr<IMediaInput> openInput(const std::string& name, NetworkBoard* board) {
    if (NetworkAddress::IsOne(name)) {
        return std::make_unique<NetworkInput>(NetworkAddress::Parse(name, NetworkAddress::Use::Read), board);
    }
    return std::make_unique<InputFile>(name);
}

std::unique_ptr<IMediaOutput> openOutput(const std::string& name, const StopSignal& stop,
                                         NetworkBoard* board) {
    if (NetworkAddress::IsOne(name)) {
        return std::make_unique<NetworkOutput>(NetworkAddress::Parse(name, NetworkAddress::Use::Write), stop,
                                               board);
    }
    return std::make_unique<OutputFile>(name, stop);
}

}  // namespace Mivra::Tool
