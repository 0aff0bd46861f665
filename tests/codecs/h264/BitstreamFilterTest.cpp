// Packets of real films, held against what h264_mp4toannexb makes of them.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

extern "C" {
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include "mivra/codecs/h264/AccessUnits.h"
#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "tests/codecs/h264/Packets.h"
#include "tests/support/TempFolder.h"

namespace Mivra::Codecs::H264 {
namespace {

using namespace Testing;
using Parser = H264ConfigurationParser;

template <typename T, void (*Free)(T**)>
struct Deleter {
    void operator()(T* object) const { Free(&object); }
};
using Input = std::unique_ptr<AVFormatContext, Deleter<AVFormatContext, avformat_close_input>>;
using Filter = std::unique_ptr<AVBSFContext, Deleter<AVBSFContext, av_bsf_free>>;
using AvPacket = std::unique_ptr<AVPacket, Deleter<AVPacket, av_packet_free>>;

Bytes bytesOf(const AVPacket& packet) {
    return {packet.data, packet.data + packet.size};
}

/// Every picture type that the encoder has, by its parameters.
class BitstreamFilter : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        const std::string film = folder / "film.mp4";
        const std::string command =
            "ffmpeg -v error -f lavfi -i testsrc2=size=160x96:rate=25 -frames:v 60 -pix_fmt yuv420p "
            "-c:v libx264 -x264-params " +
            std::string(GetParam()) + " " + film;
        ASSERT_EQ(std::system(command.c_str()), 0);  // NOLINT(cert-env33-c): the encoder is a program
        AVFormatContext* context = nullptr;
        ASSERT_EQ(avformat_open_input(&context, film.c_str(), nullptr, nullptr), 0);
        input.reset(context);
        AVBSFContext* made = nullptr;
        ASSERT_EQ(av_bsf_alloc(av_bsf_get_by_name("h264_mp4toannexb"), &made), 0);
        filter.reset(made);
        ASSERT_GE(avcodec_parameters_copy(filter->par_in, input->streams[0]->codecpar), 0);
        ASSERT_EQ(av_bsf_init(filter.get()), 0);
    }

    Mivra::Test::TempFolder folder;
    Input input;
    Filter filter;
    AvPacket packet{av_packet_alloc()};
    AvPacket filtered{av_packet_alloc()};
};

TEST_P(BitstreamFilter, PacketsAreTheSameByteForByte) {
    const AVCodecParameters* parameters = filter->par_out;
    const bool openGroups = std::string(GetParam()).find("open-gop") != std::string::npos;
    Bytes stream;
    std::size_t count = 0;
    for (; av_read_frame(input.get(), packet.get()) == 0; ++count) {
        const Bytes original = bytesOf(*packet);
        const bool sync = (packet->flags & AV_PKT_FLAG_KEY) != 0;
        ASSERT_EQ(av_bsf_send_packet(filter.get(), packet.get()), 0);
        ASSERT_EQ(av_bsf_receive_packet(filter.get(), filtered.get()), 0);
        Packet out({}, filtered->size);
        ASSERT_TRUE(Parser::ConvertToAnnexBBitstream(Packet(original).get(), out.get(), 4,
                                                     parameters->extradata, parameters->extradata_size));
        ASSERT_EQ(out.Content(), bytesOf(*filtered)) << "packet " << count;
        bool key = false;
        bool reference = false;
        ASSERT_TRUE(Parser::DetectFrameType(out.get(), key, reference));
        // Where a refresh begins, the encoder says key frame, and this picture is not whole.
        const bool refresh = count > 0 && std::string(GetParam()).find("intra-refresh") != std::string::npos;
        ASSERT_TRUE(key == sync || (sync && refresh) || (key && openGroups)) << "packet " << count;
        Packet back({}, original.size());
        Packet plain({}, original.size());
        ASSERT_TRUE(Parser::ConvertToAnnexBBitstream(Packet(original).get(), plain.get(), 4));
        Bytes content = plain.Content();
        ASSERT_TRUE(Parser::ConvertToAvcBitstream(content.data(), static_cast<int>(content.size()), 4,
                                                  back.get(), false));
        ASSERT_EQ(back.Content(), original);
        stream = stream + out.Content();
        av_packet_unref(filtered.get());
    }
    ASSERT_EQ(count, 60U);
    AccessUnitBoundaries boundaries;
    UnitWalk units(stream, 0);
    while (const auto unit = units.Next()) {
        count -= boundaries.Begins(*unit, units) ? 1 : 0;
    }
    EXPECT_EQ(count, 0U);
}

INSTANTIATE_TEST_SUITE_P(
    , BitstreamFilter,
    ::testing::Values("keyint=10:aud=1", "keyint=12:open-gop=1:slices=3:repeat-headers=1",
                      "keyint=1:bframes=0", "keyint=20:intra-refresh=1",
                      "keyint=10:tff=1:slices=2:nal-hrd=vbr:vbv-maxrate=300:vbv-bufsize=300",
                      "keyint=10:cabac=0:bframes=0:b-adapt=0"));

}  // namespace
}  // namespace Mivra::Codecs::H264
