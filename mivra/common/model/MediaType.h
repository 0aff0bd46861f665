#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "mivra/common/model/Codec.h"
#include "mivra/common/model/ContentType.h"
#include "mivra/common/model/Metadata.h"
#include "mivra/common/model/PixelFormat.h"
#include "mivra/common/model/Rational.h"
#include "mivra/common/model/SampleFormat.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

class EndianBinaryReader;
class EndianBinaryWriter;
class PacketBuffer;

/// The description of one elementary stream: what sources announce, sinks accept and codecs are made from.
/// A value without locks; GetProfileLevel() and GetReorderingQueueDepth() write caches, so an object shared
/// between threads is copied or guarded by its owner.
class MIVRA_API MediaType {
public:
    MediaType() = default;
    MediaType(const MediaType& other);
    /// Reads the binary form, in the byte order of the reader. What is cut off or claims more than there is
    /// fails as the reader fails (GeneralException).
    explicit MediaType(EndianBinaryReader* reader);
    MediaType& operator=(const MediaType& other);
    virtual ~MediaType();

protected:
    /// Every field, deeply, the cached values included.
    virtual void copy(const MediaType& other);
    /// The comparison of ==. Bitrates may differ by a third (video) or a fifth (audio) of this object's, so
    /// it is not symmetric; metadata and frame sizes take no part.
    virtual bool isEqual(const MediaType& other) const;

public:
    bool operator==(const MediaType& other) const { return isEqual(other); }
    bool operator!=(const MediaType& other) const { return !isEqual(other); }
    /// Content, codec and the picture or sample format only.
    bool IsEqualShallow(const MediaType& other) const;

    /// One line for logs.
    std::string ToString() const;
    /// The form of a query string, and back. Unknown keys and names leave the field's default.
    std::string ToParameterString() const;
    static MediaType FromParameterString(const std::string& text);
    /// The codecs string of RFC 6381 for H.264 and AAC with private data, else empty.
    std::string ToBucketMediaType() const;

    void ToPacketBuffer(EndianBinaryWriter* writer) const;
    void ToPacketBuffer(PacketBuffer* buffer) const;

    /// From the private data on first use, then cached (while it is not 0); 0 when there is nothing to tell.
    std::uint64_t GetProfileLevel() const;
    void SetProfileLevel(std::uint64_t value) { profileLevel = value; }
    /// How many pictures a decoder holds back to put them in order. Computed once, whatever changes later.
    int GetReorderingQueueDepth() const;
    void SetReorderingQueueDepth(int value) { reorderingQueueDepth = value; }

    /// The usual frame rate nearby, a whole rate nearby, or 0/0.
    static Rational GetWellKnownFramerate(const Rational& rate);

    ContentType_t& ContentType() { return contentType; }
    ContentType_t ContentType() const { return contentType; }
    Codec_t& CodecId() { return codecId; }
    Codec_t CodecId() const { return codecId; }
    /// Bits per second.
    std::int32_t& Bitrate() { return bitrate; }
    std::int32_t Bitrate() const { return bitrate; }
    /// Bytes of a frame or block of samples where that is fixed.
    std::int32_t& FrameSize() { return frameSize; }
    std::int32_t FrameSize() const { return frameSize; }
    /// In units of Timescale().
    std::int64_t& FrameDuration() { return frameDuration; }
    std::int64_t FrameDuration() const { return frameDuration; }
    Rational& Timescale() { return timescale; }
    const Rational& Timescale() const { return timescale; }
    bool& Compressed() { return compressed; }
    bool Compressed() const { return compressed; }
    /// Every sample has the same size; the bitrates of audio then compare exactly.
    bool& FixedSizeSamples() { return fixedSizeSamples; }
    bool FixedSizeSamples() const { return fixedSizeSamples; }
    /// Bytes; a hint for frame buffers.
    std::int32_t& ExpectedFrameSize() { return expectedFrameSize; }
    std::int32_t ExpectedFrameSize() const { return expectedFrameSize; }
    std::int32_t& CodecPrivateDataSize() { return codecPrivateDataSize; }
    std::int32_t CodecPrivateDataSize() const { return codecPrivateDataSize; }
    /// The codec's configuration record. Owned by this object and freed with free(): who replaces it frees
    /// the old and gives memory of malloc().
    char*& CodecPrivateData() { return codecPrivateData; }
    const char* CodecPrivateData() const { return codecPrivateData; }
    Metadata& CodecMetadata() { return codecMetadata; }
    const Metadata& CodecMetadata() const { return codecMetadata; }
    std::int32_t& Width() { return width; }
    std::int32_t Width() const { return width; }
    std::int32_t& Height() { return height; }
    std::int32_t Height() const { return height; }
    PixelFormat_t& PixelFormat() { return pixelFormat; }
    PixelFormat_t PixelFormat() const { return pixelFormat; }
    /// Frames per second; 0/0 is unknown.
    Rational& Framerate() { return framerate; }
    const Rational& Framerate() const { return framerate; }
    Rational& PixelAspectRatio() { return pixelAspectRatio; }
    const Rational& PixelAspectRatio() const { return pixelAspectRatio; }
    SampleFormat_t& SampleFormat() { return sampleFormat; }
    SampleFormat_t SampleFormat() const { return sampleFormat; }
    /// Hz.
    std::int32_t& SampleRate() { return sampleRate; }
    std::int32_t SampleRate() const { return sampleRate; }
    std::int32_t& Channels() { return channels; }
    std::int32_t Channels() const { return channels; }
    /// Channel mask in FFmpeg's layout bits; the MPEG-4 channel configuration for AAC.
    std::uint64_t& ChannelLayout() { return channelLayout; }
    std::uint64_t ChannelLayout() const { return channelLayout; }
    std::int32_t& BitsPerSample() { return bitsPerSample; }
    std::int32_t BitsPerSample() const { return bitsPerSample; }

private:
    bool hasPrivateData() const { return codecPrivateDataSize > 0 && codecPrivateData != nullptr; }
    static char* allocatePrivateData(std::int32_t size);
    void replacePrivateData(char* data, std::int32_t size);
    void readPrivateData(EndianBinaryReader& reader);
    void setParameter(std::string_view key, std::string_view value);
    unsigned audioObjectType() const;
    /// The pieces of the parameter string that only the codec's parser can tell.
    std::string codecParameters() const;

    ContentType_t contentType = ContentType_t::Unknown;
    Codec_t codecId = Codec_t::None;
    std::int32_t bitrate = 0;
    std::int32_t frameSize = 0;
    std::int64_t frameDuration = 0;
    Rational timescale{1, 10000000};
    bool compressed = true;
    bool fixedSizeSamples = false;
    mutable std::uint64_t profileLevel = 0;
    std::int32_t expectedFrameSize = 0;
    std::int32_t codecPrivateDataSize = 0;
    char* codecPrivateData = nullptr;
    Metadata codecMetadata;
    std::int32_t width = 0;
    std::int32_t height = 0;
    PixelFormat_t pixelFormat = PixelFormat_t::None;
    Rational framerate;
    Rational pixelAspectRatio{1, 1};
    mutable std::int32_t reorderingQueueDepth = -1;
    SampleFormat_t sampleFormat = SampleFormat_t::None;
    std::int32_t sampleRate = 0;
    std::int32_t channels = 0;
    std::uint64_t channelLayout = 0;
    std::int32_t bitsPerSample = 0;
};

}  // namespace Mivra::Common
