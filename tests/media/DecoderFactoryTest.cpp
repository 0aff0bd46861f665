#include "mivra/media/DecoderFactory.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mivra/media/EngineTable.h"

namespace Mivra::Media {
namespace {

using Common::MediaFramework;
using Common::MediaType;

std::vector<std::string> s_made;  // in order, with what they were made from
bool s_mediaFoundationWorks = false;

class FakeEngine : public IDecoder {
public:
    FakeEngine(MediaType* input, MediaType* output, DecoderParameters* given, const char* name, bool works)
        : IDecoder(input, output, given) {
        usable = works;
        s_made.push_back(name + std::string(given->AllowHardwareAcceleration ? " hardware " : " software ") +
                         std::to_string(given->ThreadCount) + " " + std::to_string(input->Width()) + " " +
                         std::to_string(output->Height()));
    }
    void Write(Common::PacketBuffer*) override {}
    Common::PacketBuffer* Read() override { return nullptr; }
    void Drain() override {}
};

class DecoderFactoryTest : public testing::Test {
protected:
    DecoderFactoryTest() {
        s_made.clear();
        s_mediaFoundationWorks = false;
        g_decoders.mediaFoundation = [](MediaType* in, MediaType* out,
                                        DecoderParameters* given) -> std::shared_ptr<IDecoder> {
            return std::make_shared<FakeEngine>(in, out, given, "MF", s_mediaFoundationWorks);
        };
        g_decoders.ffmpeg = [](MediaType* in, MediaType* out,
                               DecoderParameters* given) -> std::shared_ptr<IDecoder> {
            return std::make_shared<FakeEngine>(in, out, given, "FF", false);
        };
        input.Width() = 7;
        output.Height() = 9;
    }
    ~DecoderFactoryTest() override {
        g_decoders = real;
        DecoderParameters::DefaultAllowHardwareAcceleration = true;
        DecoderParameters::DefaultPreferredMediaFramework = MediaFramework::Automatic;
    }

    /// The engines made for a framework, and whether one came back.
    std::pair<std::vector<std::string>, bool> create(int framework) {
        DecoderParameters parameters;
        parameters.PreferredMediaFramework = static_cast<MediaFramework>(framework);
        parameters.ThreadCount = 3;
        s_made.clear();
        const bool any = DecoderFactory::Create(&input, &output, &parameters) != nullptr;
        return {s_made, any};
    }

    const EngineTable<IDecoder, DecoderParameters> real = g_decoders;
    MediaType input;
    MediaType output;
};

using Made = std::pair<std::vector<std::string>, bool>;
const std::string kMF = "MF hardware 3 7 9";
const std::string kFF = "FF hardware 3 7 9";

TEST_F(DecoderFactoryTest, ChoosesByTheFramework) {
    EXPECT_EQ(create(0), Made({kMF, kFF}, true));  // the second even when it is unusable itself
    EXPECT_EQ(create(1), Made({kMF}, true));
    EXPECT_EQ(create(2), Made({kMF}, true));
    EXPECT_EQ(create(8), Made({kFF}, true));
    for (const int none : {3, 4, 5, 6, 7, 9, 100, -1}) {
        EXPECT_EQ(create(none), Made({}, false)) << none;
    }
    s_mediaFoundationWorks = true;
    EXPECT_EQ(create(0), Made({kMF}, true));
}

TEST_F(DecoderFactoryTest, TheDefaultsHoldForLaterRecordsAndWithoutParameters) {
    const DecoderParameters before;
    DecoderParameters::DefaultAllowHardwareAcceleration = false;
    DecoderParameters::DefaultPreferredMediaFramework = MediaFramework::FFmpeg;
    EXPECT_TRUE(before.AllowHardwareAcceleration);
    EXPECT_FALSE(DecoderParameters().AllowHardwareAcceleration);
    EXPECT_NE(DecoderFactory::Create(&input, &output, nullptr), nullptr);
    EXPECT_EQ(s_made, std::vector<std::string>{"FF software 0 7 9"});
}

TEST_F(DecoderFactoryTest, WithoutMediaFoundationItsEngineIsUnusable) {
    g_decoders = real;
    DecoderParameters parameters;
    parameters.PreferredMediaFramework = MediaFramework::MediaFoundationOnly;
    const auto engine = DecoderFactory::Create(&input, nullptr, &parameters);
    ASSERT_NE(engine, nullptr);
    EXPECT_FALSE(engine->IsUsable());
    engine->Write(nullptr);
    engine->Drain();
    EXPECT_EQ(engine->Read(), nullptr);
}

}  // namespace
}  // namespace Mivra::Media
