// Which engine the two factories make, with engines that only say what they were made from.

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

Made s_made;  // in order, with what they were made from
bool s_mediaFoundationWorks = false;

std::string describe(const DecoderParameters& given) {
    return std::to_string(given.ThreadCount);
}
std::string describe(const EncoderParameters& given) {
    return std::to_string(given.ThreadCount) + given.Options + std::to_string(given.Flags);
}

template <typename Interface, typename Parameters, typename Written>
class Fake : public Interface {
public:
    Fake(MediaType* in, MediaType* out, Parameters* given, const char* name, bool works)
        : Interface(in, out, given) {
        this->usable = works;
        const Parameters& kept = this->parameters;
        s_made.push_back(name + std::string(kept.AllowHardwareAcceleration ? " hardware " : " software ") +
                         std::to_string(in->Width()) + std::to_string(out->Height()) + describe(kept));
    }
    Written Write(Common::PacketBuffer*) override { return Written(); }
    Common::PacketBuffer* Read() override { return nullptr; }
    void Drain() override {}
};

struct Decoding {
    using Factory = DecoderFactory;
    using Parameters = DecoderParameters;
    using Interface = IDecoder;
    using Engine = Fake<IDecoder, DecoderParameters, void>;
    static constexpr auto Table = &g_decoders;
};

struct Encoding {
    using Factory = EncoderFactory;
    using Parameters = EncoderParameters;
    using Interface = IEncoder;
    using Engine = Fake<IEncoder, EncoderParameters, bool>;
    static constexpr auto Table = &g_encoders;
};

template <typename Kind>
class EngineFactoryTest : public testing::Test {
protected:
    using Parameters = typename Kind::Parameters;

    EngineFactoryTest() {
        s_made.clear();
        s_mediaFoundationWorks = false;
        *Kind::Table = {make<true>, make<false>};
        input.Width() = 7;
        output.Height() = 9;
    }
    ~EngineFactoryTest() override {
        *Kind::Table = real;
        Parameters::DefaultAllowHardwareAcceleration = true;
        Parameters::DefaultPreferredMediaFramework = MediaFramework::Automatic;
    }
    template <bool MediaFoundation>
    static std::shared_ptr<typename Kind::Interface> make(MediaType* in, MediaType* out, Parameters* given) {
        return std::make_shared<typename Kind::Engine>(in, out, given, MediaFoundation ? "MF" : "FF",
                                                       MediaFoundation && s_mediaFoundationWorks);
    }
    /// The engines made for a framework, and whether one came back.
    std::pair<Made, bool> create(int framework) {
        Parameters parameters;
        parameters.PreferredMediaFramework = static_cast<MediaFramework>(framework);
        parameters.ThreadCount = 3;
        if constexpr (std::is_same_v<Parameters, EncoderParameters>) {
            parameters.Options = "a=1";
            parameters.Flags = 7;
        }
        s_made.clear();
        const bool any = Kind::Factory::Create(&input, &output, &parameters) != nullptr;
        return {s_made, any};
    }

    const std::remove_reference_t<decltype(*Kind::Table)> real = *Kind::Table;
    MediaType input;
    MediaType output;
};
using Kinds = testing::Types<Decoding, Encoding>;
TYPED_TEST_SUITE(EngineFactoryTest, Kinds);

TYPED_TEST(EngineFactoryTest, ChoosesByTheFramework) {
    const std::string given = std::is_same_v<TypeParam, Decoding> ? " hardware 793" : " hardware 793a=17";
    const std::string mf = "MF" + given;
    const std::string ff = "FF" + given;
    EXPECT_EQ(this->create(0),
              std::pair(Made({mf, ff}), true));  // the second even when it is unusable itself
    EXPECT_EQ(this->create(1), std::pair(Made({mf}), true));
    EXPECT_EQ(this->create(2), std::pair(Made({mf}), true));
    EXPECT_EQ(this->create(8), std::pair(Made({ff}), true));
    for (const int none : {3, 4, 5, 6, 7, 9, 100, -1}) {
        EXPECT_EQ(this->create(none), std::pair(Made(), false)) << none;
    }
    s_mediaFoundationWorks = true;
    EXPECT_EQ(this->create(0), std::pair(Made({mf}), true));
}

TYPED_TEST(EngineFactoryTest, DefaultsHoldForLaterRecordsAndWithoutParameters) {
    using Record = typename TypeParam::Parameters;
    s_mediaFoundationWorks = true;
    Record before;
    Record::DefaultAllowHardwareAcceleration = false;
    Record::DefaultPreferredMediaFramework = MediaFramework::FFmpeg;
    EXPECT_NE(TypeParam::Factory::Create(&this->input, &this->output, nullptr), nullptr);
    EXPECT_NE(TypeParam::Factory::Create(&this->input, &this->output, &before), nullptr);
    const std::string parameters = std::is_same_v<TypeParam, Decoding> ? "0" : "-10";
    EXPECT_EQ(s_made, Made({"FF software 79" + parameters, "MF hardware 79" + parameters}));
}

TEST(RealEngines, OfMediaFoundationAreUnusableAndNeverThrow) {
    DecoderParameters decoding;
    decoding.PreferredMediaFramework = MediaFramework::MediaFoundationOnly;
    const auto decoder = DecoderFactory::Create(nullptr, nullptr, &decoding);
    EXPECT_FALSE(decoder->IsUsable());
    decoder->Write(nullptr);
    decoder->Drain();
    EXPECT_EQ(decoder->Read(), nullptr);
    EncoderParameters encoding;
    encoding.PreferredMediaFramework = MediaFramework::MediaFoundation;
    const auto encoder = EncoderFactory::Create(nullptr, nullptr, &encoding);
    EXPECT_FALSE(encoder->IsUsable() || encoder->Write(nullptr) || encoder->IsOutputMediaTypeDirty());
    EXPECT_EQ(encoder->Read(), nullptr);
}

TEST(RealEngines, AreMadeByDefault) {
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
