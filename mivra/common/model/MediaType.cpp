#include "mivra/common/model/MediaType.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "mivra/common/binary/EndianBinaryReader.h"
#include "mivra/common/binary/EndianBinaryWriter.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/platform/System.h"

namespace Mivra::Common {

namespace {

constexpr unsigned char FormatVersion = 1;

void write(EndianBinaryWriter& writer, const Rational& value) {
    writer.Write(value.Num());
    writer.Write(value.Den());
}

Rational readRational(EndianBinaryReader& reader) {
    const std::int32_t num = reader.ReadInt32();
    const std::int32_t den = reader.ReadInt32();
    return Rational(num, den);
}

bool exceeds(std::int64_t a, std::int64_t b, std::int64_t tolerance) {
    return std::abs(a - b) > tolerance;
}

}  // namespace

MediaType::MediaType(const MediaType& other) : MediaType() {
    MediaType::copy(other);
}

MediaType::MediaType(EndianBinaryReader* reader) : MediaType() {
    reader->ReadByte();  // format version
    contentType = static_cast<ContentType_t>(reader->ReadInt32());
    codecId = static_cast<Codec_t>(reader->ReadInt32());
    bitrate = reader->ReadInt32();
    frameSize = reader->ReadInt32();
    frameDuration = reader->ReadInt64();
    timescale = readRational(*reader);
    compressed = reader->ReadBoolean();
    fixedSizeSamples = reader->ReadBoolean();
    expectedFrameSize = reader->ReadInt32();
    readPrivateData(*reader);
    if (contentType == ContentType_t::Audio) {
        sampleFormat = static_cast<SampleFormat_t>(reader->ReadInt32());
        sampleRate = reader->ReadInt32();
        channels = reader->ReadInt32();
        channelLayout = reader->ReadUInt64();
        bitsPerSample = reader->ReadInt32();
    } else if (contentType == ContentType_t::Video) {
        width = reader->ReadInt32();
        height = reader->ReadInt32();
        pixelFormat = static_cast<PixelFormat_t>(reader->ReadInt32());
        framerate = readRational(*reader);
        pixelAspectRatio = readRational(*reader);
    }
    codecMetadata = Metadata(reader);
}

void MediaType::readPrivateData(EndianBinaryReader& reader) {
    const std::int32_t size = reader.ReadInt32();
    if (size < 0 || size > reader.Length() - reader.Position()) {
        reader.Read(static_cast<unsigned char*>(nullptr), size);  // fails in the reader's words
    }
    if (size > 0) {
        replacePrivateData(allocatePrivateData(size), size);
        reader.Read(codecPrivateData, size);
    }
}

MediaType& MediaType::operator=(const MediaType& other) {
    copy(other);
    return *this;
}

MediaType::~MediaType() {
    std::free(codecPrivateData);
}

void MediaType::copy(const MediaType& other) {
    if (this == &other) {
        return;
    }
    // What can fail comes first.
    Metadata metadata(other.codecMetadata);
    if (other.hasPrivateData()) {
        char* data = allocatePrivateData(other.codecPrivateDataSize);
        std::memcpy(data, other.codecPrivateData, static_cast<std::size_t>(other.codecPrivateDataSize));
        replacePrivateData(data, other.codecPrivateDataSize);
    } else {
        replacePrivateData(nullptr, 0);
    }
    codecMetadata.swap(metadata);
    contentType = other.contentType;
    codecId = other.codecId;
    bitrate = other.bitrate;
    frameSize = other.frameSize;
    frameDuration = other.frameDuration;
    timescale = other.timescale;
    compressed = other.compressed;
    fixedSizeSamples = other.fixedSizeSamples;
    profileLevel = other.profileLevel;
    expectedFrameSize = other.expectedFrameSize;
    width = other.width;
    height = other.height;
    pixelFormat = other.pixelFormat;
    framerate = other.framerate;
    pixelAspectRatio = other.pixelAspectRatio;
    reorderingQueueDepth = other.reorderingQueueDepth;
    sampleFormat = other.sampleFormat;
    sampleRate = other.sampleRate;
    channels = other.channels;
    channelLayout = other.channelLayout;
    bitsPerSample = other.bitsPerSample;
}

// Memory of the C heap, as the owner of the private data may free it.
char* MediaType::allocatePrivateData(std::int32_t size) {
    char* data = static_cast<char*>(Platform::System().allocate(static_cast<std::size_t>(size)));
    if (data == nullptr) {
        throw std::bad_alloc();
    }
    return data;
}

void MediaType::replacePrivateData(char* data, std::int32_t size) {
    std::free(codecPrivateData);
    codecPrivateData = data;
    codecPrivateDataSize = size;
}

bool MediaType::IsEqualShallow(const MediaType& other) const {
    if (contentType != other.contentType || codecId != other.codecId) {
        return false;
    }
    switch (contentType) {
        case ContentType_t::Video:
            return width == other.width && height == other.height && pixelFormat == other.pixelFormat &&
                   framerate == other.framerate && pixelAspectRatio == other.pixelAspectRatio;
        case ContentType_t::Audio:
            return sampleFormat == other.sampleFormat && sampleRate == other.sampleRate &&
                   channels == other.channels && channelLayout == other.channelLayout &&
                   bitsPerSample == other.bitsPerSample;
        default:
            return true;
    }
}

bool MediaType::isEqual(const MediaType& other) const {
    if (!IsEqualShallow(other) || timescale != other.timescale) {
        return false;
    }
    if (contentType == ContentType_t::Video && exceeds(bitrate, other.bitrate, bitrate / 3)) {
        return false;
    }
    if (contentType == ContentType_t::Audio &&
        exceeds(bitrate, other.bitrate, fixedSizeSamples ? 0 : bitrate / 5)) {
        return false;
    }
    if (codecPrivateDataSize != other.codecPrivateDataSize || hasPrivateData() != other.hasPrivateData()) {
        return false;
    }
    return !hasPrivateData() || std::memcmp(codecPrivateData, other.codecPrivateData,
                                            static_cast<std::size_t>(codecPrivateDataSize)) == 0;
}

void MediaType::ToPacketBuffer(EndianBinaryWriter* writer) const {
    writer->Write(FormatVersion);
    writer->Write(static_cast<int>(contentType));
    writer->Write(static_cast<int>(codecId));
    writer->Write(bitrate);
    writer->Write(frameSize);
    writer->Write(frameDuration);
    write(*writer, timescale);
    writer->Write(compressed);
    writer->Write(fixedSizeSamples);
    writer->Write(expectedFrameSize);
    const std::int32_t size = hasPrivateData() ? codecPrivateDataSize : 0;
    writer->Write(size);
    writer->Write(reinterpret_cast<const unsigned char*>(codecPrivateData), size);
    if (contentType == ContentType_t::Audio) {
        writer->Write(static_cast<int>(sampleFormat));
        writer->Write(sampleRate);
        writer->Write(channels);
        writer->Write(channelLayout);
        writer->Write(bitsPerSample);
    } else if (contentType == ContentType_t::Video) {
        writer->Write(width);
        writer->Write(height);
        writer->Write(static_cast<int>(pixelFormat));
        write(*writer, framerate);
        write(*writer, pixelAspectRatio);
    }
    codecMetadata.ToPacketBuffer(writer);
}

void MediaType::ToPacketBuffer(PacketBuffer* buffer) const {
    EndianBinaryWriter writer(buffer);
    ToPacketBuffer(&writer);
}

Rational MediaType::GetWellKnownFramerate(const Rational& rate) {
    static const Rational Rates[] = {{24000, 1001}, {24, 1},  {25, 1},        {30000, 1001},
                                     {30, 1},       {48, 1},  {50, 1},        {60000, 1001},
                                     {60, 1},       {100, 1}, {120000, 1001}, {120, 1}};
    const double value = rate.ToDouble();
    for (const Rational& known : Rates) {
        if (std::fabs(known.ToDouble() - value) <= 0.01) {
            return known;
        }
    }
    const double whole = std::round(value);
    if (value > 0.9 && value < 120.1 && std::fabs(value - whole) < 0.1) {
        return Rational(static_cast<int>(whole));
    }
    return Rational();
}

}  // namespace Mivra::Common
