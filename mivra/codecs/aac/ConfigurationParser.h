#pragma once

#include <cstdint>
#include <utility>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Codecs::AAC {

/// The configuration of an AAC stream between its three forms: the two bytes of an AudioSpecificConfig
/// (ISO/IEC 14496-3 1.6.2.1), the seven bytes of an ADTS header (1.A.2.2) and the audio fields of a media
/// type. Of such a type ChannelLayout is the channel configuration (Table 1.19), no speaker mask, and the
/// profile and level is the audio object type (Table 1.17: 1 Main, 2 LC, ...).
///
/// Only the fixed part of the syntax is known: no escape values, no SBR or PS signalling, no CRC. An unusual
/// value is no error: a rate that has no index counts as index 0 (96000 Hz), a configuration that has no
/// channel count as 0 channels, a channel count that has no configuration as configuration 0.
///
/// An object belongs to one thread at a time; the static operations may be called from any thread. No pointer
/// that is handed in is null, unless said otherwise, and none is kept.
class MIVRA_API ConfigurationParser {
public:
    /// All zero, without a header.
    ConfigurationParser() = default;
    /// Deep; std::bad_alloc leaves the object as it was.
    ConfigurationParser(const ConfigurationParser& other);
    ConfigurationParser& operator=(const ConfigurationParser& other);
    virtual ~ConfigurationParser();

    /// Reads rate and channels from the two bytes of an AudioSpecificConfig at data + offset, of which the
    /// caller vouches that they are there: the offset deliberately does not count against the size. False,
    /// and nothing changed, for null and for a size below 2. Rate indices 13 to 15 give 0 Hz.
    bool Parse(unsigned char* data, int offset, int size);
    /// Takes over the rate and channels of the type and makes the ADTS header from it. Always true;
    /// std::bad_alloc leaves the object as it was.
    bool Parse(Common::MediaType* type);
    /// Hz.
    std::int32_t GetSampleRate() const { return sampleRate; }
    std::int32_t GetChannels() const { return channels; }
    /// With a frame length of 0. Belongs to the object, and lives until it next parses a type or ends; null
    /// before.
    const unsigned char* GetAdtsHeader() const { return adtsHeader; }
    /// In bytes: 7, or 0 before there is one.
    std::int32_t GetAdtsHeaderLength() const { return adtsHeaderLength; }

    /// Offset of the first syncword (twelve 1 bits on a byte boundary) at or behind start, -1 for none, or
    /// for no buffer. A negative start is the beginning of the data.
    static int AdtsFindSync(Common::PacketBuffer* buffer, int start);
    /// Length (7) and bytes of the header of a frame without CRC, its frame length 0. The bytes are memory of
    /// malloc() which the caller frees; std::bad_alloc when there is none. Without private data the profile
    /// is deliberately 0, Main, whatever the type's profile says.
    static std::pair<int, unsigned char*> AdtsGenerateHeader(Common::MediaType* type);
    /// Puts the header in front of the payload, which is in's bytes from its position to its actual size:
    /// out becomes a buffer of MediaGlobal with the frame, in's attributes and position 0; its one reference
    /// is the caller's. Null when the pools have no buffer: the caller waits and tries again. in is not
    /// released. GeneralException, and out is left alone, without a header from Parse() and for a position
    /// outside of the data. The frame length has 13 bits, of a longer frame only these are written.
    void AdtsInsertHeader(Common::PacketBuffer* in, Common::PacketBuffer*& out);
    /// Deliberately leaves the header where it is: out becomes in with one more reference, the caller's.
    static void AdtsRemoveHeader(Common::PacketBuffer* in, Common::PacketBuffer*& out);
    /// Profile, rate, channel configuration and channels of the header at the beginning of the frame's data,
    /// whose position stays; nothing else of the type changes, and the syncword is not looked at. A frame of
    /// less than 4 bytes fails as the reader fails (GeneralException), and nothing changes.
    static void AdtsReadMediaType(Common::PacketBuffer* frame, Common::MediaType* type);
    /// Private data as platform audio formats have it, a format of 12 bytes in front of the configuration:
    /// of more than 13 bytes the first 12 are dropped, less than 2 are freed. All others stay, 13 bytes too,
    /// deliberately.
    static void ConvertCodecPrivateData(Common::MediaType* type);
    /// Replaces the type's private data by an AudioSpecificConfig of 2 bytes made from its fields. Before, a
    /// profile of 0 becomes 2 (LC) and a channel configuration of 0 the one of the channel count. Changes
    /// nothing on std::bad_alloc.
    static void GenerateCodecPrivateData(Common::MediaType* type);

private:
    std::int32_t sampleRate = 0;
    std::int32_t channels = 0;
    unsigned char* adtsHeader = nullptr;  // of malloc()
    std::int32_t adtsHeaderLength = 0;
};

}  // namespace Mivra::Codecs::AAC
