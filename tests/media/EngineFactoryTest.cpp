// Which engine the two factories make: their table with engines that only say that they were made, then the
// factories with the real ones.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mivra/media/DecoderFactory.h"
#include "mivra/media/EncoderFactory.h"
#include "mivra/media/EngineTable.h"

namespace Mivra::Media {
namespace {

using Common::MediaFramework;
using Common::MediaType;
using Made = std::vector<std::string>;

Made s_made;  // in order
bool s_mediaFoundationWorks = false;

class Fake : public IDecoder {
public:
    Fake(MediaType* in, MediaType* out, DecoderParameters* given, const char* name, bool works)
        : IDecoder(in, out, given) {
        usable = works;
        s_made.push_back(name + std::to_string(in->Width()) + std::to_string(out->Height()) +
                         std::to_string(parameters.ThreadCount));
    }
    void Write(Common::PacketBuffer*) override {}
    Common::PacketBuffer* Read() override { return nullptr; }
    void Drain() override {}
};

TEST(EngineTable, ChoosesByTheFramework) {
    constexpr EngineTable<IDecoder, DecoderParameters> Table{
        [](MediaType* in, MediaType* out, DecoderParameters* given) -> std::shared_ptr<IDecoder> {
            return std::make_shared<Fake>(in, out, given, "MF", s_mediaFoundationWorks);
        },
        [](MediaType* in, MediaType* out, DecoderParameters* given) -> std::shared_ptr<IDecoder> {
            return std::make_shared<Fake>(in, out, given, "FF", false);
        }};
    const struct {
        int framework;
        bool works;
        Made made;
    } cases[] = {{0, false, {"MF793", "FF793"}},  // the second even when it is unusable itself
                 {0, true, {"MF793"}},
                 {1, false, {"MF793"}},
                 {2, false, {"MF793"}},
                 {8, true, {"FF793"}},
                 {3, true, {}},
                 {7, true, {}},
                 {9, true, {}},
                 {-1, true, {}}};
    MediaType input;
    MediaType output;
    input.Width() = 7;
    output.Height() = 9;
    DecoderParameters parameters;
    parameters.ThreadCount = 3;
    for (const auto& [framework, works, made] : cases) {
        s_made.clear();
        s_mediaFoundationWorks = works;
        const auto engine =
            Table.Choose(static_cast<MediaFramework>(framework), &input, &output, &parameters);
        EXPECT_EQ(s_made, made) << framework;
        EXPECT_EQ(engine != nullptr, !made.empty()) << framework;
    }
}

template <typename Factory, typename Parameters>
void expectDefaultsForLaterRecords(MediaType input, MediaType output) {
    Parameters before;
    Parameters::DefaultAllowHardwareAcceleration = false;
    Parameters::DefaultPreferredMediaFramework = MediaFramework::MediaFoundation;
    EXPECT_TRUE(before.AllowHardwareAcceleration && !Parameters().AllowHardwareAcceleration);
    EXPECT_TRUE(Factory::Create(&input, &output, &before)->IsUsable()) << "FFmpeg's";
    const auto none = Factory::Create(&input, &output, nullptr);
    EXPECT_FALSE(none->IsUsable()) << "Media Foundation's";
    none->Write(nullptr);
    none->Drain();
    EXPECT_EQ(none->Read(), nullptr);
    Parameters::DefaultAllowHardwareAcceleration = true;
    Parameters::DefaultPreferredMediaFramework = MediaFramework::Automatic;
    EXPECT_FALSE(Factory::Create(nullptr, nullptr, nullptr)->IsUsable());
}

TEST(EngineFactories, TakeTheirDefaultsForLaterRecordsAndWithoutParameters) {
    MediaType picture;
    picture.ContentType() = Common::ContentType_t::Video;
    picture.PixelFormat() = Common::PixelFormat_t::YUV420P;
    picture.Width() = picture.Height() = 32;
    MediaType coded = picture;
    coded.CodecId() = Common::Codec_t::MPEG4;
    expectDefaultsForLaterRecords<EncoderFactory, EncoderParameters>(picture, coded);
    expectDefaultsForLaterRecords<DecoderFactory, DecoderParameters>(coded, picture);
    const auto encoder = EncoderFactory::Create(&picture, &coded, nullptr);
    EXPECT_TRUE(encoder->IsOutputMediaTypeDirty());
    EXPECT_EQ(encoder->GetOutputMediaType()->Width(), 32);
    EXPECT_FALSE(encoder->IsOutputMediaTypeDirty());
}

}  // namespace
}  // namespace Mivra::Media
