#include "tools/mivra/AacTransforms.h"

#include "mivra/codecs/aac/ConfigurationParser.h"
#include "tools/mivra/AacForms.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {
namespace {

using Codecs::AAC::ConfigurationParser;
using Common::MediaType;
using Common::PacketBuffer;

/// aac_frame_length has 13 bits.
constexpr int kLongestFrame = 0x1FFF;
/// Bytes of an AudioSpecificConfig.
constexpr int kShortestConfiguration = 2;

[[noreturn]] void fail(const std::string& what) {
    throw ProblemError(ExitCode::Damaged, {what, "", "'mivra probe' tells more"});
}

/// What is in order, but has no place in the form that is wanted.
[[noreturn]] void refuse(const std::string& what) {
    throw ProblemError(ExitCode::CannotOpen, {what, "", "'mivra probe' tells more"});
}

class AdtsTransform : public PacketTransform {
public:
    MediaType Begin(const MediaType& type, PacketBuffer* first) override {
        fromAdts = first != nullptr && isAdts(*first);
        MediaType out(type);
        if (!fromAdts) {
            const auto core = readAacCore(type);
            if (type.CodecPrivateDataSize() < kShortestConfiguration) {
                fail("the AAC stream has neither ADTS headers nor a configuration");
            }
            if (!core || core->objectType == 0 || core->objectType > 4) {
                refuse("ADTS numbers no such kind or rate of AAC");
            }
            if (core->configuration == 0 || core->configuration > 7) {
                refuse("ADTS numbers no such channel layout");
            }
            prepare(type, *core);
        }
        setPrivateData(out, nullptr, 0);
        return out;
    }

    Packet Apply(const Packet& packet) override {
        if (fromAdts) {
            return packet;
        }
        if (packet->ActualSize() + parser.GetAdtsHeaderLength() > kLongestFrame) {
            return {};
        }
        PacketBuffer* out = nullptr;
        parser.AdtsInsertHeader(packet.get(), out);
        if (out == nullptr) {
            throw std::bad_alloc();
        }
        return Packet::Adopt(out);
    }

private:
    /// The header comes from the core alone, whatever else the configuration signals.
    void prepare(const MediaType& type, const AacCore& core) {
        MediaType plain;
        plain.SetProfileLevel(core.objectType);
        plain.ChannelLayout() = core.configuration;
        Codecs::AAC::ConfigurationParser rates;
        MediaType copy(type);
        rates.Parse(reinterpret_cast<unsigned char*>(copy.CodecPrivateData()), 0,
                    copy.CodecPrivateDataSize());
        plain.SampleRate() = rates.GetSampleRate();
        plain.Channels() = rates.GetChannels();
        ConfigurationParser::GenerateCodecPrivateData(&plain);
        parser.Parse(&plain);
    }

    bool fromAdts = false;
    ConfigurationParser parser;
};

class AscTransform : public PacketTransform {
public:
    MediaType Begin(const MediaType& type, PacketBuffer* first) override {
        fromAdts = first != nullptr && isAdts(*first);
        MediaType out(type);
        if (fromAdts) {
            MediaType described(type);
            describeByAdts(*first, described);
            const auto core = readAacCore(described);
            if (!core) {
                fail("the ADTS headers are malformed");
            }
            if (core->configuration == 0) {
                refuse("the ADTS headers number no channel layout");
            }
            setPrivateData(out, described.CodecPrivateData(),
                           static_cast<std::size_t>(described.CodecPrivateDataSize()));
        } else if (type.CodecPrivateDataSize() < kShortestConfiguration) {
            fail("the AAC stream has neither ADTS headers nor a configuration");
        }
        return out;
    }

    Packet Apply(const Packet& packet) override {
        if (!fromAdts) {
            return packet;
        }
        // A frame of several blocks has them behind tables, which a raw data block has not.
        if (!isAdts(*packet.get()) || adtsBlocks(*packet.get()) != 1) {
            return {};
        }
        const int header = adtsHeaderSize(*packet.get());
        Packet out = makeBuffer(packet->ActualSize() - header);
        out->CopyAttributes(packet.get());
        out->Append(packet.get(), header, packet->ActualSize() - header);
        return out;
    }

private:
    bool fromAdts = false;
};

}  // namespace

std::unique_ptr<PacketTransform> makeAdtsTransform() {
    return std::make_unique<AdtsTransform>();
}

std::unique_ptr<PacketTransform> makeAscTransform() {
    return std::make_unique<AscTransform>();
}

}  // namespace Mivra::Tool
