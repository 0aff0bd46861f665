#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "mivra/common/runtime/Export.h"

struct AVBufferRef;
struct AVChannelLayout;
struct AVCodec;
struct AVCodecContext;
struct AVCodecHWConfig;
struct AVCodecParameters;
struct AVDictionary;
struct AVFilter;
struct AVFilterContext;
struct AVFilterGraph;
struct AVFilterInOut;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVInputFormat;
struct AVOutputFormat;
struct AVPacket;
struct AVRational;
struct AVStream;
struct SwrContext;
struct SwsContext;
struct SwsFilter;

namespace Mivra::FFmpeg {

/// The FFmpeg libraries, loaded at run time: everything that needs FFmpeg holds one Load and calls the
/// functions through the pointers below. The libraries stay mapped until the last Unload.
///
/// Each library is taken from the folder of the host executable when that folder has it, else from the
/// system's library path, and only with the major version of the headers that this library was built with. A
/// set of libraries beside the executable has to find its own parts there (a run path of $ORIGIN).
///
/// Load, Unload and ReferenceCount may be called by any thread. A pointer may be called only by who holds a
/// successful Load; it keeps its value after the last Unload and must not be called then.
class MIVRA_API FfmpegProxy {
public:
    FfmpegProxy() = delete;

    /// True when all libraries and functions are there; Unload balances it. False, with the reference given
    /// back and nothing left loaded, otherwise; one log line says what is missing (level 4 for a library,
    /// level 1 for a function or another major version). Throws nothing.
    static bool Load();

    /// Gives back one reference; the last one unloads. One too many is logged and changes nothing.
    static void Unload();

    static std::int32_t ReferenceCount();

    // The functions, with FFmpeg's own parameters and results; enumerations are passed as int.

    // avutil
    static AVBufferRef* (*av_buffer_ref)(const AVBufferRef*);
    static void (*av_buffer_unref)(AVBufferRef**);
    static void (*av_channel_layout_default)(AVChannelLayout*, int);
    static void (*av_dict_free)(AVDictionary**);
    static int (*av_dict_set)(AVDictionary**, const char*, const char*, int);
    static AVFrame* (*av_frame_alloc)();
    static void (*av_frame_free)(AVFrame**);
    static void (*av_frame_unref)(AVFrame*);
    static void (*av_free)(void*);
    static void (*av_freep)(void*);
    static int (*av_get_bytes_per_sample)(int);
    static int (*av_hwdevice_ctx_create)(AVBufferRef**, int, const char*, AVDictionary*, int);
    static AVBufferRef* (*av_hwframe_ctx_alloc)(AVBufferRef*);
    static int (*av_hwframe_ctx_init)(AVBufferRef*);
    static int (*av_hwframe_get_buffer)(AVBufferRef*, AVFrame*, int);
    static int (*av_hwframe_transfer_data)(AVFrame*, const AVFrame*, int);
    static int (*av_image_copy_to_buffer)(std::uint8_t*, int, const std::uint8_t* const*, const int*, int,
                                          int, int, int);
    static int (*av_image_fill_arrays)(std::uint8_t**, int*, const std::uint8_t*, int, int, int, int);
    static int (*av_image_get_buffer_size)(int, int, int, int);
    static unsigned (*av_int_list_length_for_size)(unsigned, const void*, std::uint64_t);
    static void (*av_log_format_line)(void*, int, const char*, va_list, char*, int, int*);
    static void (*av_log_set_callback)(void (*)(void*, int, const char*, va_list));
    static void (*av_log_set_level)(int);
    static void* (*av_mallocz)(std::size_t);
    static int (*av_opt_set_bin)(void*, const char*, const std::uint8_t*, int, int);
    static std::int64_t (*av_rescale_q)(std::int64_t, AVRational, AVRational);
    static int (*av_samples_fill_arrays)(std::uint8_t**, int*, const std::uint8_t*, int, int, int, int);
    static int (*av_sample_fmt_is_planar)(int);
    static int (*av_samples_get_buffer_size)(int*, int, int, int, int);
    static const char* (*av_version_info)();
    static const char* (*avutil_configuration)();
    static unsigned (*avutil_version)();

    // avformat
    static const AVInputFormat* (*av_find_input_format)(const char*);
    static const AVOutputFormat* (*av_guess_format)(const char*, const char*, const char*);
    static int (*av_interleaved_write_frame)(AVFormatContext*, AVPacket*);
    static int (*av_read_frame)(AVFormatContext*, AVPacket*);
    static int (*av_write_trailer)(AVFormatContext*);
    static AVFormatContext* (*avformat_alloc_context)();
    static void (*avformat_close_input)(AVFormatContext**);
    static const char* (*avformat_configuration)();
    static int (*avformat_find_stream_info)(AVFormatContext*, AVDictionary**);
    static AVStream* (*avformat_new_stream)(AVFormatContext*, const AVCodec*);
    static int (*avformat_open_input)(AVFormatContext**, const char*, const AVInputFormat*, AVDictionary**);
    static int (*avformat_seek_file)(AVFormatContext*, int, std::int64_t, std::int64_t, std::int64_t, int);
    static unsigned (*avformat_version)();
    static int (*avformat_write_header)(AVFormatContext*, AVDictionary**);
    static AVIOContext* (*avio_alloc_context)(unsigned char*, int, int, void*,
                                              int (*)(void*, std::uint8_t*, int),
                                              int (*)(void*, std::uint8_t*, int),
                                              std::int64_t (*)(void*, std::int64_t, int));
    static int (*avio_closep)(AVIOContext**);
    static int (*avio_open)(AVIOContext**, const char*, int);

    // avcodec
    static AVPacket* (*av_packet_alloc)();
    static AVPacket* (*av_packet_clone)(const AVPacket*);
    static void (*av_packet_free)(AVPacket**);
    static void (*av_packet_unref)(AVPacket*);
    static AVCodecContext* (*avcodec_alloc_context3)(const AVCodec*);
    static const char* (*avcodec_configuration)();
    static const AVCodec* (*avcodec_find_decoder_by_name)(const char*);
    static const AVCodec* (*avcodec_find_decoder)(int);
    static const AVCodec* (*avcodec_find_encoder_by_name)(const char*);
    static const AVCodec* (*avcodec_find_encoder)(int);
    static void (*avcodec_free_context)(AVCodecContext**);
    static const AVCodecHWConfig* (*avcodec_get_hw_config)(const AVCodec*, int);
    static int (*av_codec_is_encoder)(const AVCodec*);
    static int (*avcodec_is_open)(AVCodecContext*);
    static int (*avcodec_open2)(AVCodecContext*, const AVCodec*, AVDictionary**);
    static int (*avcodec_parameters_to_context)(AVCodecContext*, const AVCodecParameters*);
    static int (*avcodec_receive_frame)(AVCodecContext*, AVFrame*);
    static int (*avcodec_receive_packet)(AVCodecContext*, AVPacket*);
    static int (*avcodec_send_frame)(AVCodecContext*, const AVFrame*);
    static int (*avcodec_send_packet)(AVCodecContext*, const AVPacket*);
    static unsigned (*avcodec_version)();

    // swscale
    static void (*sws_freeContext)(SwsContext*);
    static SwsContext* (*sws_getContext)(int, int, int, int, int, int, int, SwsFilter*, SwsFilter*,
                                         const double*);
    static int (*sws_scale)(SwsContext*, const std::uint8_t* const*, const int*, int, int,
                            std::uint8_t* const*, const int*);

    // swresample
    static int (*swr_alloc_set_opts2)(SwrContext**, const AVChannelLayout*, int, int, const AVChannelLayout*,
                                      int, int, int, void*);
    static void (*swr_free)(SwrContext**);
    static int (*swr_convert)(SwrContext*, std::uint8_t**, int, const std::uint8_t**, int);
    static int (*swr_init)(SwrContext*);

    // avfilter
    static int (*av_buffersink_get_frame)(AVFilterContext*, AVFrame*);
    static const AVFilter* (*avfilter_get_by_name)(const char*);
    static AVFilterGraph* (*avfilter_graph_alloc)();
    static int (*avfilter_graph_config)(AVFilterGraph*, void*);
    static int (*avfilter_graph_create_filter)(AVFilterContext**, const AVFilter*, const char*, const char*,
                                               void*, AVFilterGraph*);
    static void (*avfilter_graph_free)(AVFilterGraph**);
    static int (*avfilter_graph_parse_ptr)(AVFilterGraph*, const char*, AVFilterInOut**, AVFilterInOut**,
                                           void*);
    static AVFilterInOut* (*avfilter_inout_alloc)();
    static int (*avfilter_link)(AVFilterContext*, unsigned, AVFilterContext*, unsigned);
};

}  // namespace Mivra::FFmpeg
