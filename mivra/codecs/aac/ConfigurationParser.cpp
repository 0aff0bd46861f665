#include "mivra/codecs/aac/ConfigurationParser.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "mivra/common/binary/BitFields.h"
#include "mivra/common/binary/EndianBinaryReader.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/platform/System.h"

namespace Mivra::Codecs::AAC {

namespace {

using Common::MediaType;
using Common::PacketBuffer;

constexpr int ConfigSize = 2;
constexpr int AdtsHeaderSize = 7;

/// samplingFrequencyIndex (ISO/IEC 14496-3 Table 1.18); 13 to 15 are reserved and the escape value.
constexpr std::int32_t SampleRates[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                          16000, 12000, 11025, 8000,  7350,  0,     0,     0};
/// channelConfiguration (Table 1.19) of 0 to 8 channels: seven have none.
constexpr unsigned char ConfigurationOfChannels[9] = {0, 1, 2, 3, 4, 5, 6, 0, 7};
/// And the other way.
constexpr unsigned char ChannelsOfConfiguration[8] = {0, 1, 2, 3, 4, 5, 6, 8};

/// 0 for a rate without an index: whoever asks gets 96000 Hz and no error.
unsigned rateIndex(std::int32_t rate) {
    const auto* const found = std::find(std::begin(SampleRates), std::end(SampleRates) - 3, rate);
    return found == std::end(SampleRates) - 3 ? 0 : static_cast<unsigned>(found - std::begin(SampleRates));
}

std::uint64_t channelConfiguration(const MediaType& type) {
    const std::int32_t channels = type.Channels();
    if (type.ChannelLayout() == 0 && channels >= 0 && channels < 9) {
        return ConfigurationOfChannels[channels];
    }
    return type.ChannelLayout();
}

/// Memory of the C heap: what is made here is freed by whoever owns it then.
template <typename Byte>
Byte* allocate(std::size_t size) {
    auto* const bytes = static_cast<Byte*>(Platform::System().allocate(size));
    if (bytes == nullptr) {
        throw std::bad_alloc();
    }
    return bytes;
}

/// Fills zeroed bytes with one field after the other, most significant bit first.
class FieldWriter {
public:
    explicit FieldWriter(unsigned char* zeroed) : bytes(zeroed) {}
    FieldWriter& operator()(std::uint64_t value, int bits) {
        Common::StoreBits(value, bits, bytes, position);
        position += bits;
        return *this;
    }

private:
    unsigned char* bytes;
    int position = 0;
};

/// Puts the cursors of a packet back where they were.
class CursorGuard {
public:
    explicit CursorGuard(PacketBuffer& buffer)
        : packet(buffer), position(buffer.Position()), bitPosition(buffer.BitPosition()) {}
    ~CursorGuard() {
        packet.Position() = position;
        packet.BitPosition() = bitPosition;
    }
    CursorGuard(const CursorGuard&) = delete;
    CursorGuard& operator=(const CursorGuard&) = delete;

private:
    PacketBuffer& packet;
    const int position;
    const int bitPosition;
};

/// aac_frame_length (1.A.2.2.1): 13 bits that begin with the last two of byte 3.
void setFrameLength(unsigned char* header, unsigned length) {
    header[3] = static_cast<unsigned char>(header[3] | ((length >> 11) & 3));
    header[4] = static_cast<unsigned char>(length >> 3);
    header[5] = static_cast<unsigned char>(header[5] | ((length & 7) << 5));
}

}  // namespace

ConfigurationParser::ConfigurationParser(const ConfigurationParser& other) {
    *this = other;
}

ConfigurationParser& ConfigurationParser::operator=(const ConfigurationParser& other) {
    if (this == &other) {
        return *this;
    }
    unsigned char* header = nullptr;
    if (other.adtsHeader != nullptr) {
        header = allocate<unsigned char>(static_cast<std::size_t>(other.adtsHeaderLength));
        std::memcpy(header, other.adtsHeader, static_cast<std::size_t>(other.adtsHeaderLength));
    }
    std::free(adtsHeader);
    adtsHeader = header;
    adtsHeaderLength = other.adtsHeaderLength;
    sampleRate = other.sampleRate;
    channels = other.channels;
    return *this;
}

ConfigurationParser::~ConfigurationParser() {
    std::free(adtsHeader);
}

bool ConfigurationParser::Parse(unsigned char* data, int offset, int size) {
    // The offset is not taken off the size: callers give the size of the configuration alone.
    if (data == nullptr || size < ConfigSize) {
        return false;
    }
    const unsigned first = data[offset];
    const unsigned second = data[offset + 1];
    sampleRate = SampleRates[(first & 7) * 2 + (second >> 7)];
    const unsigned configuration = (second >> 3) & 15;
    channels =
        configuration < std::size(ChannelsOfConfiguration) ? ChannelsOfConfiguration[configuration] : 0;
    return true;
}

bool ConfigurationParser::Parse(MediaType* type) {
    const auto [length, header] = AdtsGenerateHeader(type);
    std::free(adtsHeader);
    adtsHeader = header;
    adtsHeaderLength = length;
    sampleRate = type->SampleRate();
    channels = type->Channels();
    return true;
}

int ConfigurationParser::AdtsFindSync(PacketBuffer* buffer, int start) {
    if (buffer == nullptr) {
        return -1;
    }
    const auto* const data = reinterpret_cast<const unsigned char*>(buffer->GetPointer());
    const int end = buffer->ActualSize() - 1;  // a syncword begins in front of the last byte
    for (int i = std::max(start, 0); i < end; ++i) {
        const void* const found = std::memchr(data + i, 0xFF, static_cast<std::size_t>(end - i));
        if (found == nullptr) {
            return -1;
        }
        i = static_cast<int>(static_cast<const unsigned char*>(found) - data);
        if ((data[i + 1] & 0xF0) == 0xF0) {
            return i;
        }
    }
    return -1;
}

std::pair<int, unsigned char*> ConfigurationParser::AdtsGenerateHeader(MediaType* type) {
    auto* const header = allocate<unsigned char>(AdtsHeaderSize);
    std::memset(header, 0, AdtsHeaderSize);
    const bool hasConfig = type->CodecPrivateData() != nullptr && type->CodecPrivateDataSize() > 0;
    const unsigned objectType = hasConfig ? static_cast<unsigned char>(*type->CodecPrivateData()) >> 3 : 1;
    FieldWriter write(header);
    write(0xFFF1, 16)                       // syncword, ID 0 (MPEG-4), layer 0, protection_absent 1
        (objectType - 1, 2)                 // profile_ObjectType
        (rateIndex(type->SampleRate()), 4)  // sampling_frequency_index
        (0, 1)                              // private_bit
        (channelConfiguration(*type), 3)    // channel_configuration
        (0, 4)                              // original_copy, home and the two bits of the copyright
        (0, 13)                             // aac_frame_length, set for each frame
        (0x7FF, 11)                         // adts_buffer_fullness: variable rate
        (0, 2);                             // number_of_raw_data_blocks_in_frame, one
    return {AdtsHeaderSize, header};
}

void ConfigurationParser::AdtsInsertHeader(PacketBuffer* in, PacketBuffer*& out) {
    if (adtsHeader == nullptr) {
        throw Common::GeneralException("ADTS header has not been initialized");
    }
    const int position = in->Position();
    if (position < 0 || position > in->ActualSize()) {
        throw Common::GeneralException("ConfigurationParser::AdtsInsertHeader: position %d of %d bytes",
                                       position, in->ActualSize());
    }
    const int payload = in->ActualSize() - position;
    // Nothing is as long as the sum of the two could be: a size that overflows is one that no pool has.
    const std::int64_t length = std::int64_t{payload} + adtsHeaderLength;
    if (length > INT32_MAX) {
        out = nullptr;
        return;
    }
    auto frame =
        Common::Reference<PacketBuffer>::Adopt(Media::MediaGlobal::LockBuffer(static_cast<int>(length)));
    if (frame) {
        frame->CopyAttributes(in);
        frame->Append(adtsHeader, adtsHeaderLength);
        frame->Append(in, position, payload);
        setFrameLength(reinterpret_cast<unsigned char*>(frame->GetPointer()), static_cast<unsigned>(length));
        frame->Position() = 0;
    }
    out = frame.Detach();
}

void ConfigurationParser::AdtsRemoveHeader(PacketBuffer* in, PacketBuffer*& out) {
    // The frame keeps its header and its position: those who ask look for the raw block themselves.
    in->AddRef();
    out = in;
}

void ConfigurationParser::AdtsReadMediaType(PacketBuffer* frame, MediaType* type) {
    const CursorGuard guard(*frame);
    frame->Position() = 0;
    frame->BitPosition() = 0;
    Common::EndianBinaryReader reader(frame);
    reader.SetEndiannes(Common::Endianness::Big);
    reader.ReadBits(15);  // syncword, ID, layer
    reader.ReadBits(1);   // protection_absent
    const auto profile = static_cast<std::uint64_t>(reader.ReadBits(2));
    const auto rate = static_cast<std::size_t>(reader.ReadBits(4));
    reader.ReadBits(1);  // private_bit
    const auto configuration = static_cast<std::size_t>(reader.ReadBits(3));
    type->SetProfileLevel(profile + 1);
    type->SampleRate() = SampleRates[rate];
    type->ChannelLayout() = configuration;
    type->Channels() = ChannelsOfConfiguration[configuration];
}

void ConfigurationParser::ConvertCodecPrivateData(MediaType* type) {
    constexpr int FormatSize = 12;
    if (type->CodecPrivateData() == nullptr) {
        return;
    }
    const std::int32_t size = type->CodecPrivateDataSize();
    if (size < ConfigSize) {
        std::free(type->CodecPrivateData());
        type->CodecPrivateData() = nullptr;
        type->CodecPrivateDataSize() = 0;
    } else if (size > FormatSize + 1) {  // of 13 bytes one would be left: such a block is kept as it is
        type->CodecPrivateDataSize() = size - FormatSize;
        std::memmove(type->CodecPrivateData(), type->CodecPrivateData() + FormatSize,
                     static_cast<std::size_t>(size - FormatSize));
    }
}

void ConfigurationParser::GenerateCodecPrivateData(MediaType* type) {
    auto* const config = allocate<char>(ConfigSize);
    std::memset(config, 0, ConfigSize);
    if (type->GetProfileLevel() == 0) {
        constexpr std::uint64_t LowComplexity = 2;
        type->SetProfileLevel(LowComplexity);
    }
    type->ChannelLayout() = channelConfiguration(*type);
    // frameLengthFlag, dependsOnCoreCoder and extensionFlag, the last three bits, are 0.
    FieldWriter write(reinterpret_cast<unsigned char*>(config));
    write(type->GetProfileLevel(), 5)(rateIndex(type->SampleRate()), 4)(type->ChannelLayout(), 4);
    std::free(type->CodecPrivateData());
    type->CodecPrivateData() = config;
    type->CodecPrivateDataSize() = ConfigSize;
}

}  // namespace Mivra::Codecs::AAC
