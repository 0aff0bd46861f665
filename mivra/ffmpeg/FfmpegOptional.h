#pragma once

#include <cstddef>
#include <cstdint>

#include "mivra/common/runtime/Export.h"

struct AVBufferRef;
struct AVCodecContext;
struct AVCodecParameters;
struct AVCodecTag;
struct AVDictionary;
struct AVDictionaryEntry;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVOutputFormat;
struct AVPacket;
struct AVRational;
struct AVStream;
struct SwsContext;

namespace Mivra::FFmpeg {

/// FFmpeg functions that are bound beside those of FfmpegProxy and without which FFmpeg still counts as
/// loaded: null when the library has no such function, which whoever needs it reports. FfmpegProxy::Load sets
/// them, and the rules for its pointers hold for these too.
class MIVRA_API FfmpegOptional {
public:
    FfmpegOptional() = delete;

    // avutil
    static AVBufferRef* (*av_buffer_create)(std::uint8_t*, std::size_t, void (*)(void*, std::uint8_t*), void*,
                                            int);
    static int (*av_compare_ts)(std::int64_t, AVRational, std::int64_t, AVRational);
    static int (*av_dict_copy)(AVDictionary**, const AVDictionary*, int);
    static AVDictionaryEntry* (*av_dict_get)(const AVDictionary*, const char*, const AVDictionaryEntry*, int);
    static const char* (*av_get_media_type_string)(int);
    static std::int64_t (*av_rescale_q_rnd)(std::int64_t, AVRational, AVRational, int);
    static int (*av_strerror)(int, char*, std::size_t);

    // avformat
    static int (*av_codec_get_id)(const AVCodecTag* const*, unsigned int);
    static int (*av_codec_get_tag2)(const AVCodecTag* const*, int, unsigned int*);
    static int (*av_guess_codec)(const AVOutputFormat*, const char*, const char*, const char*, int);
    static AVRational (*av_guess_frame_rate)(AVFormatContext*, AVStream*, AVFrame*);
    static int (*av_stream_add_side_data)(AVStream*, int, std::uint8_t*, std::size_t);
    static std::uint8_t* (*av_stream_get_side_data)(const AVStream*, int, std::size_t*);
    static std::uint8_t* (*av_stream_new_side_data)(AVStream*, int, std::size_t);
    static int (*av_write_frame)(AVFormatContext*, AVPacket*);
    static int (*avformat_alloc_output_context2)(AVFormatContext**, const AVOutputFormat*, const char*,
                                                 const char*);
    static int (*avformat_flush)(AVFormatContext*);
    static void (*avformat_free_context)(AVFormatContext*);
    static int (*avformat_init_output)(AVFormatContext*, AVDictionary**);
    static int (*avformat_query_codec)(const AVOutputFormat*, int, int);
    static int (*avformat_transfer_internal_stream_timing_info)(const AVOutputFormat*, AVStream*,
                                                                const AVStream*, int);
    static void (*avio_context_free)(AVIOContext**);
    static void (*avio_flush)(AVIOContext*);
    static std::int64_t (*avio_size)(AVIOContext*);

    // avcodec
    static int (*av_get_audio_frame_duration2)(AVCodecParameters*, int);
    static int (*av_packet_add_side_data)(AVPacket*, int, std::uint8_t*, std::size_t);
    static int (*av_packet_copy_props)(AVPacket*, const AVPacket*);
    static void (*av_packet_free_side_data)(AVPacket*);
    static std::uint8_t* (*av_packet_get_side_data)(const AVPacket*, int, std::size_t*);
    static int (*av_packet_make_refcounted)(AVPacket*);
    static std::uint8_t* (*av_packet_new_side_data)(AVPacket*, int, std::size_t);
    static void (*av_packet_rescale_ts)(AVPacket*, AVRational, AVRational);
    static void (*avcodec_align_dimensions2)(AVCodecContext*, int*, int*, int*);
    static int (*avcodec_default_get_buffer2)(AVCodecContext*, AVFrame*, int);
    static int (*avcodec_default_get_format)(AVCodecContext*, const int*);
    static const char* (*avcodec_get_name)(int);
    static AVCodecParameters* (*avcodec_parameters_alloc)();
    static int (*avcodec_parameters_copy)(AVCodecParameters*, const AVCodecParameters*);
    static void (*avcodec_parameters_free)(AVCodecParameters**);

    // swscale
    static const int* (*sws_getCoefficients)(int);
    static int (*sws_setColorspaceDetails)(SwsContext*, const int*, int, const int*, int, int, int, int);
    static unsigned (*swscale_version)();

    // swresample
    static unsigned (*swresample_version)();

    // avfilter
    static unsigned (*avfilter_version)();
};

}  // namespace Mivra::FFmpeg
