#include "mivra/ffmpeg/FfmpegOptional.h"

#include "mivra/ffmpeg/FfmpegBinding.h"
#include "mivra/ffmpeg/FfmpegFunctions.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#if defined(__GNUC__)
#pragma GCC diagnostic ignored \
    "-Wdeprecated-declarations"  // 6.1 has begun to put others in place of the side data of streams
#endif

namespace Mivra::FFmpeg {
namespace {

using Library = FfmpegLibraryIndex;

constexpr FfmpegFunction kOptionalFunctions[] = {
    bound<&FfmpegOptional::av_buffer_create, decltype(::av_buffer_create)>(Library::avutil,
                                                                           "av_buffer_create"),
    bound<&FfmpegOptional::av_compare_ts, decltype(::av_compare_ts)>(Library::avutil, "av_compare_ts"),
    bound<&FfmpegOptional::av_dict_copy, decltype(::av_dict_copy)>(Library::avutil, "av_dict_copy"),
    bound<&FfmpegOptional::av_dict_get, decltype(::av_dict_get)>(Library::avutil, "av_dict_get"),
    bound<&FfmpegOptional::av_get_media_type_string, decltype(::av_get_media_type_string)>(
        Library::avutil, "av_get_media_type_string"),
    bound<&FfmpegOptional::av_rescale_q_rnd, decltype(::av_rescale_q_rnd)>(Library::avutil,
                                                                           "av_rescale_q_rnd"),
    bound<&FfmpegOptional::av_strerror, decltype(::av_strerror)>(Library::avutil, "av_strerror"),
    bound<&FfmpegOptional::av_codec_get_id, decltype(::av_codec_get_id)>(Library::avformat,
                                                                         "av_codec_get_id"),
    bound<&FfmpegOptional::av_codec_get_tag2, decltype(::av_codec_get_tag2)>(Library::avformat,
                                                                             "av_codec_get_tag2"),
    bound<&FfmpegOptional::av_guess_codec, decltype(::av_guess_codec)>(Library::avformat, "av_guess_codec"),
    bound<&FfmpegOptional::av_guess_frame_rate, decltype(::av_guess_frame_rate)>(Library::avformat,
                                                                                 "av_guess_frame_rate"),
    bound<&FfmpegOptional::av_stream_add_side_data, decltype(::av_stream_add_side_data)>(
        Library::avformat, "av_stream_add_side_data"),
    bound<&FfmpegOptional::av_stream_get_side_data, decltype(::av_stream_get_side_data)>(
        Library::avformat, "av_stream_get_side_data"),
    bound<&FfmpegOptional::av_stream_new_side_data, decltype(::av_stream_new_side_data)>(
        Library::avformat, "av_stream_new_side_data"),
    bound<&FfmpegOptional::av_write_frame, decltype(::av_write_frame)>(Library::avformat, "av_write_frame"),
    bound<&FfmpegOptional::avformat_alloc_output_context2, decltype(::avformat_alloc_output_context2)>(
        Library::avformat, "avformat_alloc_output_context2"),
    bound<&FfmpegOptional::avformat_flush, decltype(::avformat_flush)>(Library::avformat, "avformat_flush"),
    bound<&FfmpegOptional::avformat_free_context, decltype(::avformat_free_context)>(Library::avformat,
                                                                                     "avformat_free_context"),
    bound<&FfmpegOptional::avformat_init_output, decltype(::avformat_init_output)>(Library::avformat,
                                                                                   "avformat_init_output"),
    bound<&FfmpegOptional::avformat_query_codec, decltype(::avformat_query_codec)>(Library::avformat,
                                                                                   "avformat_query_codec"),
    bound<&FfmpegOptional::avformat_transfer_internal_stream_timing_info,
          decltype(::avformat_transfer_internal_stream_timing_info)>(
        Library::avformat, "avformat_transfer_internal_stream_timing_info"),
    bound<&FfmpegOptional::avio_context_free, decltype(::avio_context_free)>(Library::avformat,
                                                                             "avio_context_free"),
    bound<&FfmpegOptional::avio_flush, decltype(::avio_flush)>(Library::avformat, "avio_flush"),
    bound<&FfmpegOptional::avio_size, decltype(::avio_size)>(Library::avformat, "avio_size"),
    bound<&FfmpegOptional::av_get_audio_frame_duration2, decltype(::av_get_audio_frame_duration2)>(
        Library::avcodec, "av_get_audio_frame_duration2"),
    bound<&FfmpegOptional::av_packet_add_side_data, decltype(::av_packet_add_side_data)>(
        Library::avcodec, "av_packet_add_side_data"),
    bound<&FfmpegOptional::av_packet_copy_props, decltype(::av_packet_copy_props)>(Library::avcodec,
                                                                                   "av_packet_copy_props"),
    bound<&FfmpegOptional::av_packet_free_side_data, decltype(::av_packet_free_side_data)>(
        Library::avcodec, "av_packet_free_side_data"),
    bound<&FfmpegOptional::av_packet_get_side_data, decltype(::av_packet_get_side_data)>(
        Library::avcodec, "av_packet_get_side_data"),
    bound<&FfmpegOptional::av_packet_make_refcounted, decltype(::av_packet_make_refcounted)>(
        Library::avcodec, "av_packet_make_refcounted"),
    bound<&FfmpegOptional::av_packet_new_side_data, decltype(::av_packet_new_side_data)>(
        Library::avcodec, "av_packet_new_side_data"),
    bound<&FfmpegOptional::av_packet_rescale_ts, decltype(::av_packet_rescale_ts)>(Library::avcodec,
                                                                                   "av_packet_rescale_ts"),
    bound<&FfmpegOptional::avcodec_align_dimensions2, decltype(::avcodec_align_dimensions2)>(
        Library::avcodec, "avcodec_align_dimensions2"),
    bound<&FfmpegOptional::avcodec_default_get_buffer2, decltype(::avcodec_default_get_buffer2)>(
        Library::avcodec, "avcodec_default_get_buffer2"),
    bound<&FfmpegOptional::avcodec_default_get_format, decltype(::avcodec_default_get_format)>(
        Library::avcodec, "avcodec_default_get_format"),
    bound<&FfmpegOptional::avcodec_get_name, decltype(::avcodec_get_name)>(Library::avcodec,
                                                                           "avcodec_get_name"),
    bound<&FfmpegOptional::avcodec_parameters_alloc, decltype(::avcodec_parameters_alloc)>(
        Library::avcodec, "avcodec_parameters_alloc"),
    bound<&FfmpegOptional::avcodec_parameters_copy, decltype(::avcodec_parameters_copy)>(
        Library::avcodec, "avcodec_parameters_copy"),
    bound<&FfmpegOptional::avcodec_parameters_free, decltype(::avcodec_parameters_free)>(
        Library::avcodec, "avcodec_parameters_free"),
    bound<&FfmpegOptional::sws_getCoefficients, decltype(::sws_getCoefficients)>(Library::swscale,
                                                                                 "sws_getCoefficients"),
    bound<&FfmpegOptional::sws_setColorspaceDetails, decltype(::sws_setColorspaceDetails)>(
        Library::swscale, "sws_setColorspaceDetails"),
    bound<&FfmpegOptional::swscale_version, decltype(::swscale_version)>(Library::swscale, "swscale_version"),
    bound<&FfmpegOptional::swresample_version, decltype(::swresample_version)>(Library::swresample,
                                                                               "swresample_version"),
    bound<&FfmpegOptional::avfilter_version, decltype(::avfilter_version)>(Library::avfilter,
                                                                           "avfilter_version"),
};

}  // namespace

std::span<const FfmpegFunction> FfmpegOptionalFunctions() {
    return kOptionalFunctions;
}

decltype(FfmpegOptional::av_buffer_create) FfmpegOptional::av_buffer_create = nullptr;
decltype(FfmpegOptional::av_compare_ts) FfmpegOptional::av_compare_ts = nullptr;
decltype(FfmpegOptional::av_dict_copy) FfmpegOptional::av_dict_copy = nullptr;
decltype(FfmpegOptional::av_dict_get) FfmpegOptional::av_dict_get = nullptr;
decltype(FfmpegOptional::av_get_media_type_string) FfmpegOptional::av_get_media_type_string = nullptr;
decltype(FfmpegOptional::av_rescale_q_rnd) FfmpegOptional::av_rescale_q_rnd = nullptr;
decltype(FfmpegOptional::av_strerror) FfmpegOptional::av_strerror = nullptr;
decltype(FfmpegOptional::av_codec_get_id) FfmpegOptional::av_codec_get_id = nullptr;
decltype(FfmpegOptional::av_codec_get_tag2) FfmpegOptional::av_codec_get_tag2 = nullptr;
decltype(FfmpegOptional::av_guess_codec) FfmpegOptional::av_guess_codec = nullptr;
decltype(FfmpegOptional::av_guess_frame_rate) FfmpegOptional::av_guess_frame_rate = nullptr;
decltype(FfmpegOptional::av_stream_add_side_data) FfmpegOptional::av_stream_add_side_data = nullptr;
decltype(FfmpegOptional::av_stream_get_side_data) FfmpegOptional::av_stream_get_side_data = nullptr;
decltype(FfmpegOptional::av_stream_new_side_data) FfmpegOptional::av_stream_new_side_data = nullptr;
decltype(FfmpegOptional::av_write_frame) FfmpegOptional::av_write_frame = nullptr;
decltype(FfmpegOptional::avformat_alloc_output_context2) FfmpegOptional::avformat_alloc_output_context2 =
    nullptr;
decltype(FfmpegOptional::avformat_flush) FfmpegOptional::avformat_flush = nullptr;
decltype(FfmpegOptional::avformat_free_context) FfmpegOptional::avformat_free_context = nullptr;
decltype(FfmpegOptional::avformat_init_output) FfmpegOptional::avformat_init_output = nullptr;
decltype(FfmpegOptional::avformat_query_codec) FfmpegOptional::avformat_query_codec = nullptr;
decltype(FfmpegOptional::avformat_transfer_internal_stream_timing_info)
    FfmpegOptional::avformat_transfer_internal_stream_timing_info = nullptr;
decltype(FfmpegOptional::avio_context_free) FfmpegOptional::avio_context_free = nullptr;
decltype(FfmpegOptional::avio_flush) FfmpegOptional::avio_flush = nullptr;
decltype(FfmpegOptional::avio_size) FfmpegOptional::avio_size = nullptr;
decltype(FfmpegOptional::av_get_audio_frame_duration2) FfmpegOptional::av_get_audio_frame_duration2 = nullptr;
decltype(FfmpegOptional::av_packet_add_side_data) FfmpegOptional::av_packet_add_side_data = nullptr;
decltype(FfmpegOptional::av_packet_copy_props) FfmpegOptional::av_packet_copy_props = nullptr;
decltype(FfmpegOptional::av_packet_free_side_data) FfmpegOptional::av_packet_free_side_data = nullptr;
decltype(FfmpegOptional::av_packet_get_side_data) FfmpegOptional::av_packet_get_side_data = nullptr;
decltype(FfmpegOptional::av_packet_make_refcounted) FfmpegOptional::av_packet_make_refcounted = nullptr;
decltype(FfmpegOptional::av_packet_new_side_data) FfmpegOptional::av_packet_new_side_data = nullptr;
decltype(FfmpegOptional::av_packet_rescale_ts) FfmpegOptional::av_packet_rescale_ts = nullptr;
decltype(FfmpegOptional::avcodec_align_dimensions2) FfmpegOptional::avcodec_align_dimensions2 = nullptr;
decltype(FfmpegOptional::avcodec_default_get_buffer2) FfmpegOptional::avcodec_default_get_buffer2 = nullptr;
decltype(FfmpegOptional::avcodec_default_get_format) FfmpegOptional::avcodec_default_get_format = nullptr;
decltype(FfmpegOptional::avcodec_get_name) FfmpegOptional::avcodec_get_name = nullptr;
decltype(FfmpegOptional::avcodec_parameters_alloc) FfmpegOptional::avcodec_parameters_alloc = nullptr;
decltype(FfmpegOptional::avcodec_parameters_copy) FfmpegOptional::avcodec_parameters_copy = nullptr;
decltype(FfmpegOptional::avcodec_parameters_free) FfmpegOptional::avcodec_parameters_free = nullptr;
decltype(FfmpegOptional::sws_getCoefficients) FfmpegOptional::sws_getCoefficients = nullptr;
decltype(FfmpegOptional::sws_setColorspaceDetails) FfmpegOptional::sws_setColorspaceDetails = nullptr;
decltype(FfmpegOptional::swscale_version) FfmpegOptional::swscale_version = nullptr;
decltype(FfmpegOptional::swresample_version) FfmpegOptional::swresample_version = nullptr;
decltype(FfmpegOptional::avfilter_version) FfmpegOptional::avfilter_version = nullptr;

}  // namespace Mivra::FFmpeg
