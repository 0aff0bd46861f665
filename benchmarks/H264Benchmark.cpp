// H.264 parameter sets beside GStreamer's parser: one sequence parameter set with VUI and one picture
// parameter set, found in the start-code form and read.

#include <benchmark/benchmark.h>
#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gsth264parser.h>

#include "mivra/mivra.h"

namespace {

using Mivra::Codecs::H264::H264ConfigurationParser;

// Of libx264: High 4.0, 1920x1080 at 29.97, reordering told.
unsigned char s_sets[] = {0x00, 0x00, 0x00, 0x01, 0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78, 0x02,
                          0x27, 0xE5, 0xC0, 0x44, 0x00, 0x00, 0x0F, 0xA4, 0x00, 0x03, 0xA9, 0x80, 0x3C,
                          0x60, 0xC6, 0x58, 0x00, 0x00, 0x00, 0x01, 0x68, 0xEB, 0xE3, 0xF2, 0xC0};

void ParseMivra(benchmark::State& state) {
    H264ConfigurationParser parser;
    for (auto _ : state) {
        if (parser.Parse(s_sets, sizeof s_sets, 0) != 1 || parser.GetHeight() != 1080) {
            state.SkipWithError("not parsed");
        }
        benchmark::DoNotOptimize(parser.GetPps());
    }
}

void ParseGStreamer(benchmark::State& state) {
    GstH264NalParser* parser = gst_h264_nal_parser_new();
    for (auto _ : state) {
        GstH264NalUnit unit;
        GstH264SPS sps;
        GstH264PPS pps;
        bool good =
            gst_h264_parser_identify_nalu(parser, s_sets, 0, sizeof s_sets, &unit) == GST_H264_PARSER_OK;
        good = good && gst_h264_parser_parse_sps(parser, &unit, &sps) == GST_H264_PARSER_OK;
        good = good && gst_h264_parser_identify_nalu(parser, s_sets, unit.offset + unit.size, sizeof s_sets,
                                                     &unit) == GST_H264_PARSER_NO_NAL_END;
        good = good && gst_h264_parser_parse_pps(parser, &unit, &pps) == GST_H264_PARSER_OK;
        if (!good || sps.crop_rect_height != 1080) {
            state.SkipWithError("not parsed");
        }
        benchmark::DoNotOptimize(pps);
        gst_h264_sps_clear(&sps);
        gst_h264_pps_clear(&pps);
    }
    gst_h264_nal_parser_free(parser);
}

BENCHMARK(ParseMivra)->Name("ParameterSets/Mivra");
BENCHMARK(ParseGStreamer)->Name("ParameterSets/GStreamer");

}  // namespace
