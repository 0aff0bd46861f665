// ADTS frames: what is found, read and put in front again, whatever the bytes.

#include <cstring>
#include <vector>

#include "fuzz/AacTables.h"
#include "fuzz/BinaryForm.h"
#include "mivra/codecs/aac/ConfigurationParser.h"
#include "mivra/common/buffers/MediaGlobal.h"

namespace {

using Mivra::Codecs::AAC::ConfigurationParser;
using Mivra::Common::MediaType;
using Mivra::Common::PacketBuffer;
using Mivra::Fuzz::Require;

int syncword(const std::vector<char>& bytes, std::size_t start) {
    for (std::size_t i = start; i + 2 <= bytes.size(); ++i) {
        if (static_cast<unsigned char>(bytes[i]) == 0xFF && (bytes[i + 1] & 0xF0) == 0xF0) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

/// What the header tells, wherever the packet stands; its configuration of the channels has three bits.
void checkRead(const std::vector<char>& bytes, MediaType& type) {
    const auto second = static_cast<unsigned char>(bytes[2]);
    const auto third = static_cast<unsigned char>(bytes[3]);
    const unsigned configuration = (second & 1U) << 2 | third >> 6;
    Require(type.GetProfileLevel() == (second >> 6) + 1U);
    Require(type.SampleRate() == Mivra::Fuzz::kRates[second >> 2 & 15]);
    Require(type.ChannelLayout() == configuration);
    Require(type.Channels() == Mivra::Fuzz::kChannels[configuration]);
}

/// A frame made from what was read says the same and carries the payload.
void frameAgain(PacketBuffer* packet, MediaType& type) {
    ConfigurationParser parser;
    parser.Parse(&type);
    PacketBuffer* frame = nullptr;
    parser.AdtsInsertHeader(packet, frame);
    Require(frame != nullptr);
    MediaType again;
    ConfigurationParser::AdtsReadMediaType(frame, &again);
    Require(again.Channels() == type.Channels());
    Require(again.SampleRate() == (type.SampleRate() != 0 ? type.SampleRate() : 96000));
    const int payload = packet->ActualSize() - packet->Position();
    Require(frame->ActualSize() == payload + 7);
    Require(payload == 0 || std::memcmp(frame->Buffer() + 7, packet->Buffer() + packet->Position(),
                                        static_cast<std::size_t>(payload)) == 0);
    const auto* const header = reinterpret_cast<const unsigned char*>(frame->Buffer());
    Require(((header[3] & 3) << 11 | header[4] << 3 | header[5] >> 5) == ((payload + 7) & 0x1FFF));
    frame->Release();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<char> bytes(data, data + size);
    Mivra::Fuzz::WithPacket(bytes, [&](PacketBuffer* packet) {
        for (const std::size_t start : {std::size_t{0}, std::size_t{1}, size / 2, size}) {
            Require(ConfigurationParser::AdtsFindSync(packet, static_cast<int>(start)) ==
                    syncword(bytes, start));
        }
        MediaType type;
        packet->Position() = static_cast<int>(size / 3);
        packet->BitPosition() = 3;
        try {
            ConfigurationParser::AdtsReadMediaType(packet, &type);
            Require(size >= 4);
            checkRead(bytes, type);
        } catch (const Mivra::Common::GeneralException&) {
            Require(size < 4 && type.GetProfileLevel() == 0 && type.SampleRate() == 0);
        }
        Require(packet->Position() == static_cast<int>(size / 3) && packet->BitPosition() == 3);
        frameAgain(packet, type);
    });
    return 0;
}
