#include "mivra/ffmpeg/FfmpegFunctions.h"

#include "mivra/ffmpeg/FfmpegBinding.h"
#include "mivra/ffmpeg/FfmpegProxy.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavformat/avformat.h>
#include <libavutil/hwcontext.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace Mivra::FFmpeg {
namespace {

using Library = FfmpegLibraryIndex;

constexpr FfmpegFunction kFunctions[] = {
    bound<&FfmpegProxy::av_buffer_ref, decltype(::av_buffer_ref)>(Library::avutil, "av_buffer_ref"),
    bound<&FfmpegProxy::av_buffer_unref, decltype(::av_buffer_unref)>(Library::avutil, "av_buffer_unref"),
    bound<&FfmpegProxy::av_channel_layout_default, decltype(::av_channel_layout_default)>(
        Library::avutil, "av_channel_layout_default"),
    bound<&FfmpegProxy::av_dict_free, decltype(::av_dict_free)>(Library::avutil, "av_dict_free"),
    bound<&FfmpegProxy::av_dict_set, decltype(::av_dict_set)>(Library::avutil, "av_dict_set"),
    bound<&FfmpegProxy::av_frame_alloc, decltype(::av_frame_alloc)>(Library::avutil, "av_frame_alloc"),
    bound<&FfmpegProxy::av_frame_free, decltype(::av_frame_free)>(Library::avutil, "av_frame_free"),
    bound<&FfmpegProxy::av_frame_unref, decltype(::av_frame_unref)>(Library::avutil, "av_frame_unref"),
    bound<&FfmpegProxy::av_free, decltype(::av_free)>(Library::avutil, "av_free"),
    bound<&FfmpegProxy::av_freep, decltype(::av_freep)>(Library::avutil, "av_freep"),
    bound<&FfmpegProxy::av_get_bytes_per_sample, decltype(::av_get_bytes_per_sample)>(
        Library::avutil, "av_get_bytes_per_sample"),
    bound<&FfmpegProxy::av_hwdevice_ctx_create, decltype(::av_hwdevice_ctx_create)>(Library::avutil,
                                                                                    "av_hwdevice_ctx_create"),
    bound<&FfmpegProxy::av_hwframe_ctx_alloc, decltype(::av_hwframe_ctx_alloc)>(Library::avutil,
                                                                                "av_hwframe_ctx_alloc"),
    bound<&FfmpegProxy::av_hwframe_ctx_init, decltype(::av_hwframe_ctx_init)>(Library::avutil,
                                                                              "av_hwframe_ctx_init"),
    bound<&FfmpegProxy::av_hwframe_get_buffer, decltype(::av_hwframe_get_buffer)>(Library::avutil,
                                                                                  "av_hwframe_get_buffer"),
    bound<&FfmpegProxy::av_hwframe_transfer_data, decltype(::av_hwframe_transfer_data)>(
        Library::avutil, "av_hwframe_transfer_data"),
    bound<&FfmpegProxy::av_image_copy_to_buffer, decltype(::av_image_copy_to_buffer)>(
        Library::avutil, "av_image_copy_to_buffer"),
    bound<&FfmpegProxy::av_image_fill_arrays, decltype(::av_image_fill_arrays)>(Library::avutil,
                                                                                "av_image_fill_arrays"),
    bound<&FfmpegProxy::av_image_get_buffer_size, decltype(::av_image_get_buffer_size)>(
        Library::avutil, "av_image_get_buffer_size"),
    bound<&FfmpegProxy::av_int_list_length_for_size, decltype(::av_int_list_length_for_size)>(
        Library::avutil, "av_int_list_length_for_size"),
    bound<&FfmpegProxy::av_log_format_line, decltype(::av_log_format_line)>(Library::avutil,
                                                                            "av_log_format_line"),
    bound<&FfmpegProxy::av_log_set_callback, decltype(::av_log_set_callback)>(Library::avutil,
                                                                              "av_log_set_callback"),
    bound<&FfmpegProxy::av_log_set_level, decltype(::av_log_set_level)>(Library::avutil, "av_log_set_level"),
    bound<&FfmpegProxy::av_mallocz, decltype(::av_mallocz)>(Library::avutil, "av_mallocz"),
    bound<&FfmpegProxy::av_opt_set_bin, decltype(::av_opt_set_bin)>(Library::avutil, "av_opt_set_bin"),
    bound<&FfmpegProxy::av_rescale_q, decltype(::av_rescale_q)>(Library::avutil, "av_rescale_q"),
    bound<&FfmpegProxy::av_samples_fill_arrays, decltype(::av_samples_fill_arrays)>(Library::avutil,
                                                                                    "av_samples_fill_arrays"),
    bound<&FfmpegProxy::av_sample_fmt_is_planar, decltype(::av_sample_fmt_is_planar)>(
        Library::avutil, "av_sample_fmt_is_planar"),
    bound<&FfmpegProxy::av_samples_get_buffer_size, decltype(::av_samples_get_buffer_size)>(
        Library::avutil, "av_samples_get_buffer_size"),
    bound<&FfmpegProxy::av_version_info, decltype(::av_version_info)>(Library::avutil, "av_version_info"),
    bound<&FfmpegProxy::avutil_configuration, decltype(::avutil_configuration)>(Library::avutil,
                                                                                "avutil_configuration"),
    bound<&FfmpegProxy::avutil_version, decltype(::avutil_version)>(Library::avutil, "avutil_version"),
    bound<&FfmpegProxy::av_find_input_format, decltype(::av_find_input_format)>(Library::avformat,
                                                                                "av_find_input_format"),
    bound<&FfmpegProxy::av_guess_format, decltype(::av_guess_format)>(Library::avformat, "av_guess_format"),
    bound<&FfmpegProxy::av_interleaved_write_frame, decltype(::av_interleaved_write_frame)>(
        Library::avformat, "av_interleaved_write_frame"),
    bound<&FfmpegProxy::av_read_frame, decltype(::av_read_frame)>(Library::avformat, "av_read_frame"),
    bound<&FfmpegProxy::av_write_trailer, decltype(::av_write_trailer)>(Library::avformat,
                                                                        "av_write_trailer"),
    bound<&FfmpegProxy::avformat_alloc_context, decltype(::avformat_alloc_context)>(Library::avformat,
                                                                                    "avformat_alloc_context"),
    bound<&FfmpegProxy::avformat_close_input, decltype(::avformat_close_input)>(Library::avformat,
                                                                                "avformat_close_input"),
    bound<&FfmpegProxy::avformat_configuration, decltype(::avformat_configuration)>(Library::avformat,
                                                                                    "avformat_configuration"),
    bound<&FfmpegProxy::avformat_find_stream_info, decltype(::avformat_find_stream_info)>(
        Library::avformat, "avformat_find_stream_info"),
    bound<&FfmpegProxy::avformat_new_stream, decltype(::avformat_new_stream)>(Library::avformat,
                                                                              "avformat_new_stream"),
    bound<&FfmpegProxy::avformat_open_input, decltype(::avformat_open_input)>(Library::avformat,
                                                                              "avformat_open_input"),
    bound<&FfmpegProxy::avformat_seek_file, decltype(::avformat_seek_file)>(Library::avformat,
                                                                            "avformat_seek_file"),
    bound<&FfmpegProxy::avformat_version, decltype(::avformat_version)>(Library::avformat,
                                                                        "avformat_version"),
    bound<&FfmpegProxy::avformat_write_header, decltype(::avformat_write_header)>(Library::avformat,
                                                                                  "avformat_write_header"),
    bound<&FfmpegProxy::avio_alloc_context, decltype(::avio_alloc_context)>(Library::avformat,
                                                                            "avio_alloc_context"),
    bound<&FfmpegProxy::avio_closep, decltype(::avio_closep)>(Library::avformat, "avio_closep"),
    bound<&FfmpegProxy::avio_open, decltype(::avio_open)>(Library::avformat, "avio_open"),
    bound<&FfmpegProxy::av_packet_alloc, decltype(::av_packet_alloc)>(Library::avcodec, "av_packet_alloc"),
    bound<&FfmpegProxy::av_packet_clone, decltype(::av_packet_clone)>(Library::avcodec, "av_packet_clone"),
    bound<&FfmpegProxy::av_packet_free, decltype(::av_packet_free)>(Library::avcodec, "av_packet_free"),
    bound<&FfmpegProxy::av_packet_unref, decltype(::av_packet_unref)>(Library::avcodec, "av_packet_unref"),
    bound<&FfmpegProxy::avcodec_alloc_context3, decltype(::avcodec_alloc_context3)>(Library::avcodec,
                                                                                    "avcodec_alloc_context3"),
    bound<&FfmpegProxy::avcodec_configuration, decltype(::avcodec_configuration)>(Library::avcodec,
                                                                                  "avcodec_configuration"),
    bound<&FfmpegProxy::avcodec_find_decoder_by_name, decltype(::avcodec_find_decoder_by_name)>(
        Library::avcodec, "avcodec_find_decoder_by_name"),
    bound<&FfmpegProxy::avcodec_find_decoder, decltype(::avcodec_find_decoder)>(Library::avcodec,
                                                                                "avcodec_find_decoder"),
    bound<&FfmpegProxy::avcodec_find_encoder_by_name, decltype(::avcodec_find_encoder_by_name)>(
        Library::avcodec, "avcodec_find_encoder_by_name"),
    bound<&FfmpegProxy::avcodec_find_encoder, decltype(::avcodec_find_encoder)>(Library::avcodec,
                                                                                "avcodec_find_encoder"),
    bound<&FfmpegProxy::avcodec_free_context, decltype(::avcodec_free_context)>(Library::avcodec,
                                                                                "avcodec_free_context"),
    bound<&FfmpegProxy::avcodec_get_hw_config, decltype(::avcodec_get_hw_config)>(Library::avcodec,
                                                                                  "avcodec_get_hw_config"),
    bound<&FfmpegProxy::av_codec_is_encoder, decltype(::av_codec_is_encoder)>(Library::avcodec,
                                                                              "av_codec_is_encoder"),
    bound<&FfmpegProxy::avcodec_is_open, decltype(::avcodec_is_open)>(Library::avcodec, "avcodec_is_open"),
    bound<&FfmpegProxy::avcodec_open2, decltype(::avcodec_open2)>(Library::avcodec, "avcodec_open2"),
    bound<&FfmpegProxy::avcodec_parameters_to_context, decltype(::avcodec_parameters_to_context)>(
        Library::avcodec, "avcodec_parameters_to_context"),
    bound<&FfmpegProxy::avcodec_receive_frame, decltype(::avcodec_receive_frame)>(Library::avcodec,
                                                                                  "avcodec_receive_frame"),
    bound<&FfmpegProxy::avcodec_receive_packet, decltype(::avcodec_receive_packet)>(Library::avcodec,
                                                                                    "avcodec_receive_packet"),
    bound<&FfmpegProxy::avcodec_send_frame, decltype(::avcodec_send_frame)>(Library::avcodec,
                                                                            "avcodec_send_frame"),
    bound<&FfmpegProxy::avcodec_send_packet, decltype(::avcodec_send_packet)>(Library::avcodec,
                                                                              "avcodec_send_packet"),
    bound<&FfmpegProxy::avcodec_version, decltype(::avcodec_version)>(Library::avcodec, "avcodec_version"),
    bound<&FfmpegProxy::sws_freeContext, decltype(::sws_freeContext)>(Library::swscale, "sws_freeContext"),
    bound<&FfmpegProxy::sws_getContext, decltype(::sws_getContext)>(Library::swscale, "sws_getContext"),
    bound<&FfmpegProxy::sws_scale, decltype(::sws_scale)>(Library::swscale, "sws_scale"),
    bound<&FfmpegProxy::swr_alloc_set_opts2, decltype(::swr_alloc_set_opts2)>(Library::swresample,
                                                                              "swr_alloc_set_opts2"),
    bound<&FfmpegProxy::swr_free, decltype(::swr_free)>(Library::swresample, "swr_free"),
    bound<&FfmpegProxy::swr_convert, decltype(::swr_convert)>(Library::swresample, "swr_convert"),
    bound<&FfmpegProxy::swr_init, decltype(::swr_init)>(Library::swresample, "swr_init"),
    bound<&FfmpegProxy::av_buffersink_get_frame, decltype(::av_buffersink_get_frame)>(
        Library::avfilter, "av_buffersink_get_frame"),
    bound<&FfmpegProxy::avfilter_get_by_name, decltype(::avfilter_get_by_name)>(Library::avfilter,
                                                                                "avfilter_get_by_name"),
    bound<&FfmpegProxy::avfilter_graph_alloc, decltype(::avfilter_graph_alloc)>(Library::avfilter,
                                                                                "avfilter_graph_alloc"),
    bound<&FfmpegProxy::avfilter_graph_config, decltype(::avfilter_graph_config)>(Library::avfilter,
                                                                                  "avfilter_graph_config"),
    bound<&FfmpegProxy::avfilter_graph_create_filter, decltype(::avfilter_graph_create_filter)>(
        Library::avfilter, "avfilter_graph_create_filter"),
    bound<&FfmpegProxy::avfilter_graph_free, decltype(::avfilter_graph_free)>(Library::avfilter,
                                                                              "avfilter_graph_free"),
    bound<&FfmpegProxy::avfilter_graph_parse_ptr, decltype(::avfilter_graph_parse_ptr)>(
        Library::avfilter, "avfilter_graph_parse_ptr"),
    bound<&FfmpegProxy::avfilter_inout_alloc, decltype(::avfilter_inout_alloc)>(Library::avfilter,
                                                                                "avfilter_inout_alloc"),
    bound<&FfmpegProxy::avfilter_link, decltype(::avfilter_link)>(Library::avfilter, "avfilter_link"),
};
static_assert(std::size(kFunctions) == kFfmpegFunctionCount);

}  // namespace

std::span<const FfmpegFunction> FfmpegFunctions() {
    return kFunctions;
}

decltype(FfmpegProxy::av_buffer_ref) FfmpegProxy::av_buffer_ref = nullptr;
decltype(FfmpegProxy::av_buffer_unref) FfmpegProxy::av_buffer_unref = nullptr;
decltype(FfmpegProxy::av_channel_layout_default) FfmpegProxy::av_channel_layout_default = nullptr;
decltype(FfmpegProxy::av_dict_free) FfmpegProxy::av_dict_free = nullptr;
decltype(FfmpegProxy::av_dict_set) FfmpegProxy::av_dict_set = nullptr;
decltype(FfmpegProxy::av_frame_alloc) FfmpegProxy::av_frame_alloc = nullptr;
decltype(FfmpegProxy::av_frame_free) FfmpegProxy::av_frame_free = nullptr;
decltype(FfmpegProxy::av_frame_unref) FfmpegProxy::av_frame_unref = nullptr;
decltype(FfmpegProxy::av_free) FfmpegProxy::av_free = nullptr;
decltype(FfmpegProxy::av_freep) FfmpegProxy::av_freep = nullptr;
decltype(FfmpegProxy::av_get_bytes_per_sample) FfmpegProxy::av_get_bytes_per_sample = nullptr;
decltype(FfmpegProxy::av_hwdevice_ctx_create) FfmpegProxy::av_hwdevice_ctx_create = nullptr;
decltype(FfmpegProxy::av_hwframe_ctx_alloc) FfmpegProxy::av_hwframe_ctx_alloc = nullptr;
decltype(FfmpegProxy::av_hwframe_ctx_init) FfmpegProxy::av_hwframe_ctx_init = nullptr;
decltype(FfmpegProxy::av_hwframe_get_buffer) FfmpegProxy::av_hwframe_get_buffer = nullptr;
decltype(FfmpegProxy::av_hwframe_transfer_data) FfmpegProxy::av_hwframe_transfer_data = nullptr;
decltype(FfmpegProxy::av_image_copy_to_buffer) FfmpegProxy::av_image_copy_to_buffer = nullptr;
decltype(FfmpegProxy::av_image_fill_arrays) FfmpegProxy::av_image_fill_arrays = nullptr;
decltype(FfmpegProxy::av_image_get_buffer_size) FfmpegProxy::av_image_get_buffer_size = nullptr;
decltype(FfmpegProxy::av_int_list_length_for_size) FfmpegProxy::av_int_list_length_for_size = nullptr;
decltype(FfmpegProxy::av_log_format_line) FfmpegProxy::av_log_format_line = nullptr;
decltype(FfmpegProxy::av_log_set_callback) FfmpegProxy::av_log_set_callback = nullptr;
decltype(FfmpegProxy::av_log_set_level) FfmpegProxy::av_log_set_level = nullptr;
decltype(FfmpegProxy::av_mallocz) FfmpegProxy::av_mallocz = nullptr;
decltype(FfmpegProxy::av_opt_set_bin) FfmpegProxy::av_opt_set_bin = nullptr;
decltype(FfmpegProxy::av_rescale_q) FfmpegProxy::av_rescale_q = nullptr;
decltype(FfmpegProxy::av_samples_fill_arrays) FfmpegProxy::av_samples_fill_arrays = nullptr;
decltype(FfmpegProxy::av_sample_fmt_is_planar) FfmpegProxy::av_sample_fmt_is_planar = nullptr;
decltype(FfmpegProxy::av_samples_get_buffer_size) FfmpegProxy::av_samples_get_buffer_size = nullptr;
decltype(FfmpegProxy::av_version_info) FfmpegProxy::av_version_info = nullptr;
decltype(FfmpegProxy::avutil_configuration) FfmpegProxy::avutil_configuration = nullptr;
decltype(FfmpegProxy::avutil_version) FfmpegProxy::avutil_version = nullptr;
decltype(FfmpegProxy::av_find_input_format) FfmpegProxy::av_find_input_format = nullptr;
decltype(FfmpegProxy::av_guess_format) FfmpegProxy::av_guess_format = nullptr;
decltype(FfmpegProxy::av_interleaved_write_frame) FfmpegProxy::av_interleaved_write_frame = nullptr;
decltype(FfmpegProxy::av_read_frame) FfmpegProxy::av_read_frame = nullptr;
decltype(FfmpegProxy::av_write_trailer) FfmpegProxy::av_write_trailer = nullptr;
decltype(FfmpegProxy::avformat_alloc_context) FfmpegProxy::avformat_alloc_context = nullptr;
decltype(FfmpegProxy::avformat_close_input) FfmpegProxy::avformat_close_input = nullptr;
decltype(FfmpegProxy::avformat_configuration) FfmpegProxy::avformat_configuration = nullptr;
decltype(FfmpegProxy::avformat_find_stream_info) FfmpegProxy::avformat_find_stream_info = nullptr;
decltype(FfmpegProxy::avformat_new_stream) FfmpegProxy::avformat_new_stream = nullptr;
decltype(FfmpegProxy::avformat_open_input) FfmpegProxy::avformat_open_input = nullptr;
decltype(FfmpegProxy::avformat_seek_file) FfmpegProxy::avformat_seek_file = nullptr;
decltype(FfmpegProxy::avformat_version) FfmpegProxy::avformat_version = nullptr;
decltype(FfmpegProxy::avformat_write_header) FfmpegProxy::avformat_write_header = nullptr;
decltype(FfmpegProxy::avio_alloc_context) FfmpegProxy::avio_alloc_context = nullptr;
decltype(FfmpegProxy::avio_closep) FfmpegProxy::avio_closep = nullptr;
decltype(FfmpegProxy::avio_open) FfmpegProxy::avio_open = nullptr;
decltype(FfmpegProxy::av_packet_alloc) FfmpegProxy::av_packet_alloc = nullptr;
decltype(FfmpegProxy::av_packet_clone) FfmpegProxy::av_packet_clone = nullptr;
decltype(FfmpegProxy::av_packet_free) FfmpegProxy::av_packet_free = nullptr;
decltype(FfmpegProxy::av_packet_unref) FfmpegProxy::av_packet_unref = nullptr;
decltype(FfmpegProxy::avcodec_alloc_context3) FfmpegProxy::avcodec_alloc_context3 = nullptr;
decltype(FfmpegProxy::avcodec_configuration) FfmpegProxy::avcodec_configuration = nullptr;
decltype(FfmpegProxy::avcodec_find_decoder_by_name) FfmpegProxy::avcodec_find_decoder_by_name = nullptr;
decltype(FfmpegProxy::avcodec_find_decoder) FfmpegProxy::avcodec_find_decoder = nullptr;
decltype(FfmpegProxy::avcodec_find_encoder_by_name) FfmpegProxy::avcodec_find_encoder_by_name = nullptr;
decltype(FfmpegProxy::avcodec_find_encoder) FfmpegProxy::avcodec_find_encoder = nullptr;
decltype(FfmpegProxy::avcodec_free_context) FfmpegProxy::avcodec_free_context = nullptr;
decltype(FfmpegProxy::avcodec_get_hw_config) FfmpegProxy::avcodec_get_hw_config = nullptr;
decltype(FfmpegProxy::av_codec_is_encoder) FfmpegProxy::av_codec_is_encoder = nullptr;
decltype(FfmpegProxy::avcodec_is_open) FfmpegProxy::avcodec_is_open = nullptr;
decltype(FfmpegProxy::avcodec_open2) FfmpegProxy::avcodec_open2 = nullptr;
decltype(FfmpegProxy::avcodec_parameters_to_context) FfmpegProxy::avcodec_parameters_to_context = nullptr;
decltype(FfmpegProxy::avcodec_receive_frame) FfmpegProxy::avcodec_receive_frame = nullptr;
decltype(FfmpegProxy::avcodec_receive_packet) FfmpegProxy::avcodec_receive_packet = nullptr;
decltype(FfmpegProxy::avcodec_send_frame) FfmpegProxy::avcodec_send_frame = nullptr;
decltype(FfmpegProxy::avcodec_send_packet) FfmpegProxy::avcodec_send_packet = nullptr;
decltype(FfmpegProxy::avcodec_version) FfmpegProxy::avcodec_version = nullptr;
decltype(FfmpegProxy::sws_freeContext) FfmpegProxy::sws_freeContext = nullptr;
decltype(FfmpegProxy::sws_getContext) FfmpegProxy::sws_getContext = nullptr;
decltype(FfmpegProxy::sws_scale) FfmpegProxy::sws_scale = nullptr;
decltype(FfmpegProxy::swr_alloc_set_opts2) FfmpegProxy::swr_alloc_set_opts2 = nullptr;
decltype(FfmpegProxy::swr_free) FfmpegProxy::swr_free = nullptr;
decltype(FfmpegProxy::swr_convert) FfmpegProxy::swr_convert = nullptr;
decltype(FfmpegProxy::swr_init) FfmpegProxy::swr_init = nullptr;
decltype(FfmpegProxy::av_buffersink_get_frame) FfmpegProxy::av_buffersink_get_frame = nullptr;
decltype(FfmpegProxy::avfilter_get_by_name) FfmpegProxy::avfilter_get_by_name = nullptr;
decltype(FfmpegProxy::avfilter_graph_alloc) FfmpegProxy::avfilter_graph_alloc = nullptr;
decltype(FfmpegProxy::avfilter_graph_config) FfmpegProxy::avfilter_graph_config = nullptr;
decltype(FfmpegProxy::avfilter_graph_create_filter) FfmpegProxy::avfilter_graph_create_filter = nullptr;
decltype(FfmpegProxy::avfilter_graph_free) FfmpegProxy::avfilter_graph_free = nullptr;
decltype(FfmpegProxy::avfilter_graph_parse_ptr) FfmpegProxy::avfilter_graph_parse_ptr = nullptr;
decltype(FfmpegProxy::avfilter_inout_alloc) FfmpegProxy::avfilter_inout_alloc = nullptr;
decltype(FfmpegProxy::avfilter_link) FfmpegProxy::avfilter_link = nullptr;

}  // namespace Mivra::FFmpeg
