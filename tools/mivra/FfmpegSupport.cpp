#include "tools/mivra/FfmpegSupport.h"

#include <new>

namespace Mivra::Tool {
namespace {

using FFmpeg::FfmpegOptional;
using FFmpeg::FfmpegProxy;

struct Needed {
    const char* name;
    bool present;
};

template <typename List>
const char* firstMissing(const List& list) {
    for (const Needed& needed : list) {
        if (!needed.present) {
            return needed.name;
        }
    }
    return nullptr;
}

}  // namespace

FfmpegUse::~FfmpegUse() {
    if (loaded) {
        FfmpegProxy::Unload();
    }
}

PacketPointer makePacket() {
    PacketPointer packet(FfmpegProxy::av_packet_alloc());
    if (packet == nullptr) {
        throw std::bad_alloc();
    }
    return packet;
}

std::string errorText(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = "";
    if (FfmpegOptional::av_strerror != nullptr &&
        FfmpegOptional::av_strerror(error, text, sizeof(text)) == 0) {
        return text;
    }
    return "error " + std::to_string(error);
}

std::string codecName(int codec) {
    if (FfmpegOptional::avcodec_get_name != nullptr) {
        return FfmpegOptional::avcodec_get_name(codec);
    }
    return "codec " + std::to_string(codec);
}

const char* missingForReading() {
    const Needed list[] = {{"avio_context_free", FfmpegOptional::avio_context_free != nullptr}};
    return firstMissing(list);
}

const char* missingForWriting() {
    const Needed list[] = {
        {"av_buffer_create", FfmpegOptional::av_buffer_create != nullptr},
        {"av_codec_get_id", FfmpegOptional::av_codec_get_id != nullptr},
        {"av_codec_get_tag2", FfmpegOptional::av_codec_get_tag2 != nullptr},
        {"av_packet_new_side_data", FfmpegOptional::av_packet_new_side_data != nullptr},
        {"av_stream_new_side_data", FfmpegOptional::av_stream_new_side_data != nullptr},
        {"avformat_alloc_output_context2", FfmpegOptional::avformat_alloc_output_context2 != nullptr},
        {"avformat_free_context", FfmpegOptional::avformat_free_context != nullptr},
        {"avformat_query_codec", FfmpegOptional::avformat_query_codec != nullptr},
        {"avio_context_free", FfmpegOptional::avio_context_free != nullptr},
        {"avio_flush", FfmpegOptional::avio_flush != nullptr},
    };
    return firstMissing(list);
}

Problem ffmpegMissing() {
    return {"the FFmpeg libraries cannot be loaded", "", "'mivra doctor' tells which one is missing"};
}

Problem functionMissing(const char* name) {
    return {"the FFmpeg libraries lack a function that a relay needs", name,
            "'mivra doctor' tells which libraries were found"};
}

}  // namespace Mivra::Tool
