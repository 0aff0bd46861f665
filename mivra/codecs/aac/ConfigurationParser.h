#pragma once

#include <cstdint>
#include <utility>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Codecs::AAC {

/// The configuration of an AAC stream between its three forms: AudioSpecificConfig (ISO/IEC 14496-3 1.6.2.1),
/// the ADTS header (1.A.2.2) and the audio fields of a media type. An object belongs to one thread at a time;
/// the static operations may be called from any thread.
class MIVRA_API ConfigurationParser {
public:
    ConfigurationParser();
    ConfigurationParser(const ConfigurationParser& other);
    ConfigurationParser& operator=(const ConfigurationParser& other);
    virtual ~ConfigurationParser();

    bool Parse(unsigned char* data, int offset, int size);
    bool Parse(Common::MediaType* type);
    std::int32_t GetSampleRate() const { return sampleRate; }
    std::int32_t GetChannels() const { return channels; }
    const unsigned char* GetAdtsHeader() const { return adtsHeader; }
    std::int32_t GetAdtsHeaderLength() const { return adtsHeaderLength; }

    static int AdtsFindSync(Common::PacketBuffer* buffer, int start);
    static std::pair<int, unsigned char*> AdtsGenerateHeader(Common::MediaType* type);
    void AdtsInsertHeader(Common::PacketBuffer* in, Common::PacketBuffer*& out);
    static void AdtsRemoveHeader(Common::PacketBuffer* in, Common::PacketBuffer*& out);
    static void AdtsReadMediaType(Common::PacketBuffer* frame, Common::MediaType* type);
    static void ConvertCodecPrivateData(Common::MediaType* type);
    static void GenerateCodecPrivateData(Common::MediaType* type);

private:
    std::int32_t sampleRate = 0;
    std::int32_t channels = 0;
    unsigned char* adtsHeader = nullptr;
    std::int32_t adtsHeaderLength = 0;
};

}  // namespace Mivra::Codecs::AAC
