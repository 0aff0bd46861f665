// Which engine the factory makes, with engines that only say what they were made from.
#include "mivra/media/EncoderFactory.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mivra/media/EngineTable.h"

namespace Mivra::Media {
namespace {

using Common::MediaFramework;
using Common::MediaType;

std::vector<std::string> s_made;
bool s_usable;
EncoderParameters s_parameters;

class Fake : public IEncoder {
public:
    Fake(MediaType* input, MediaType* output, EncoderParameters* wanted) : IEncoder(input, output, wanted) {
        usable = s_usable;
        s_parameters = parameters;
    }
    bool Write(Common::PacketBuffer* /*frame*/) override { return false; }
    Common::PacketBuffer* Read() override { return nullptr; }
    void Drain() override {}
};

template <char Name>
std::shared_ptr<IEncoder> make(MediaType* input, MediaType* output, EncoderParameters* parameters) {
    s_made.emplace_back(1, Name);
    return std::make_shared<Fake>(input, output, parameters);
}

class EncoderFactoryTest : public ::testing::Test {
protected:
    EncoderFactoryTest() : real(g_encoders) { g_encoders = {make<'M'>, make<'F'>}; }
    ~EncoderFactoryTest() override { g_encoders = real; }

    const EngineTable<IEncoder, EncoderParameters> real;
};

TEST_F(EncoderFactoryTest, ChoosesByTheFramework) {
    struct Case {
        int framework;
        bool usable;
        std::vector<std::string> made;
    };
    const Case cases[] = {{0, true, {"M"}},  {0, false, {"M", "F"}}, {1, false, {"M"}}, {2, false, {"M"}},
                          {8, false, {"F"}}, {8, true, {"F"}},       {3, true, {}},     {5, true, {}},
                          {7, true, {}},     {9, true, {}},          {-1, true, {}}};
    for (const Case& one : cases) {
        SCOPED_TRACE(one.framework);
        s_made.clear();
        s_usable = one.usable;
        EncoderParameters parameters;
        parameters.PreferredMediaFramework = static_cast<MediaFramework>(one.framework);
        parameters.Options = "a=1";
        parameters.ThreadCount = 3;
        parameters.Flags = 7;
        const auto engine = EncoderFactory::Create(nullptr, nullptr, &parameters);
        EXPECT_EQ(s_made, one.made);
        EXPECT_EQ(engine != nullptr, !one.made.empty());
        EXPECT_TRUE(engine == nullptr || engine->IsUsable() == one.usable);
        if (engine != nullptr) {
            EXPECT_EQ(s_parameters.Options, "a=1");
            EXPECT_EQ(s_parameters.ThreadCount, 3);
            EXPECT_EQ(s_parameters.Flags, 7);
        }
    }
}

TEST_F(EncoderFactoryTest, DefaultsHoldForRecordsMadeAfterwardsAndForNone) {
    s_usable = true;
    EncoderParameters before;
    EXPECT_TRUE(before.AllowHardwareAcceleration);
    EXPECT_EQ(before.ThreadCount, -1);
    EXPECT_EQ(before.Flags, 0);
    EncoderParameters::DefaultAllowHardwareAcceleration = false;
    EncoderParameters::DefaultPreferredMediaFramework = MediaFramework::FFmpeg;
    s_made.clear();
    EncoderFactory::Create(nullptr, nullptr, nullptr);
    EXPECT_FALSE(s_parameters.AllowHardwareAcceleration);
    EXPECT_FALSE(EncoderParameters().AllowHardwareAcceleration);
    EncoderFactory::Create(nullptr, nullptr, &before);
    EXPECT_TRUE(s_parameters.AllowHardwareAcceleration);
    EXPECT_EQ(s_made, (std::vector<std::string>{"F", "M"}));
    EncoderParameters::DefaultAllowHardwareAcceleration = true;
    EncoderParameters::DefaultPreferredMediaFramework = MediaFramework::Automatic;
}

TEST(EncoderEngines, AreTheRealOnesAndNeverThrow) {
    EncoderParameters parameters;
    parameters.PreferredMediaFramework = MediaFramework::MediaFoundation;
    const auto engine = EncoderFactory::Create(nullptr, nullptr, &parameters);
    EXPECT_FALSE(engine->IsUsable() || engine->Write(nullptr) || engine->IsOutputMediaTypeDirty());
    EXPECT_EQ(engine->Read(), nullptr);
    EXPECT_FALSE(EncoderFactory::Create(nullptr, nullptr, nullptr)->IsUsable());
    MediaType input;
    input.ContentType() = Common::ContentType_t::Video;
    input.PixelFormat() = Common::PixelFormat_t::YUV420P;
    input.Width() = input.Height() = 32;
    MediaType output;
    output.CodecId() = Common::Codec_t::MPEG4;
    const auto encoder = EncoderFactory::Create(&input, &output, nullptr);
    EXPECT_TRUE(encoder->IsUsable() && encoder->IsOutputMediaTypeDirty());
    EXPECT_EQ(encoder->GetOutputMediaType()->Width(), 32);
    EXPECT_FALSE(encoder->IsOutputMediaTypeDirty());
}

}  // namespace
}  // namespace Mivra::Media
