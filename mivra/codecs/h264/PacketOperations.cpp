// The packet operations of H264ConfigurationParser: checks what comes from outside, hands on, and logs.

#include "mivra/codecs/h264/H264ConfigurationParser.h"

#include "mivra/codecs/h264/AccessUnits.h"
#include "mivra/codecs/h264/BitstreamRefinement.h"
#include "mivra/codecs/h264/NalUnitText.h"
#include "mivra/codecs/h264/PacketBytes.h"
#include "mivra/codecs/h264/PacketConversion.h"
#include "mivra/codecs/h264/Sei.h"
#include "mivra/common/runtime/GlobalLog.h"

namespace Mivra::Codecs::H264 {

using Common::FileLog;
using Common::LogLine;
using Common::PacketBuffer;

namespace {

/// Whether a length prefix may have so many bytes.
bool isLengthSize(int lengthSize) {
    return lengthSize >= 1 && lengthSize <= 4;
}

bool isDone(Conversion conversion, const char* method) {
    if (conversion == Conversion::Malformed) {
        LogLine(FileLog::Warning, "H264ConfigurationParser::%s: malformed input", method);
    } else if (conversion == Conversion::TooLittleRoom) {
        LogLine(FileLog::Error, "H264ConfigurationParser::%s: output is too small", method);
    }
    return conversion == Conversion::Done;
}

/// Runs a conversion of in's bytes, and hands the attributes on when it is done.
template <typename Convert>
bool convertPacket(PacketBuffer* in, PacketBuffer* out, const char* method, Convert convert) {
    const auto bytes = packetBytes(in);
    const bool done = isDone(bytes && out != nullptr ? convert(*bytes) : Conversion::Malformed, method);
    if (done) {
        out->CopyAttributes(in);
    }
    return done;
}

}  // namespace

bool H264ConfigurationParser::ConvertToAnnexBBitstream(PacketBuffer* in, PacketBuffer* out, int lengthSize) {
    return convertPacket(in, out, "ConvertToAnnexBBitstream", [&](std::span<const unsigned char> bytes) {
        return isLengthSize(lengthSize) ? convertToAnnexB(bytes, lengthSize, *out) : Conversion::Malformed;
    });
}

bool H264ConfigurationParser::ConvertToAnnexBBitstream(PacketBuffer* in, PacketBuffer* out, int lengthSize,
                                                       const unsigned char* sets, int setsSize) {
    return convertPacket(in, out, "ConvertToAnnexBBitstream", [&](std::span<const unsigned char> bytes) {
        const auto given = bytesOf(sets, setsSize);
        return given && isLengthSize(lengthSize) ? convertToAnnexB(bytes, lengthSize, *given, *out)
                                                 : Conversion::Malformed;
    });
}

bool H264ConfigurationParser::ConvertToAvcBitstream(unsigned char* data, int size, int lengthSize,
                                                    PacketBuffer* out, bool dropParameterSets) {
    const auto bytes = bytesOf(data, size);
    const bool valid = bytes && out != nullptr && isLengthSize(lengthSize);
    return isDone(valid ? convertToAvc(*bytes, lengthSize, dropParameterSets, *out) : Conversion::Malformed,
                  "ConvertToAvcBitstream");
}

bool H264ConfigurationParser::RefineAnnexBBitstream(PacketBuffer* in, PacketBuffer* out,
                                                    const unsigned char* sets, int setsSize) {
    return convertPacket(in, out, "RefineAnnexBBitstream", [&](std::span<const unsigned char> bytes) {
        const auto given = bytesOf(sets, setsSize);
        return given ? refineAnnexB(bytes, *given, *out) : Conversion::Malformed;
    });
}

bool H264ConfigurationParser::DetectFrameType(PacketBuffer* packet, bool& keyFrame, bool& reference) {
    const auto bytes = packetBytes(packet);
    const auto frame = bytes ? detectFrameType(*bytes) : std::nullopt;
    keyFrame = frame && frame->keyFrame;
    reference = frame && frame->reference;
    return frame.has_value();
}

bool H264ConfigurationParser::FindVideoStart(unsigned char* data, int size, int from, int lengthSize,
                                             int& offset) {
    const auto bytes = bytesOf(data, size);
    const bool valid = bytes && from >= 0 && (lengthSize == 0 || isLengthSize(lengthSize));
    const auto start =
        valid ? findVideoStart(*bytes, static_cast<std::size_t>(from), lengthSize) : std::nullopt;
    offset = start ? static_cast<int>(*start) : -1;
    return start.has_value();
}

std::optional<std::vector<unsigned char>> H264ConfigurationParser::FindSei(PacketBuffer* packet,
                                                                           SeiPayloadTypes type) {
    const auto bytes = packetBytes(packet);
    return bytes ? findSei(*bytes, static_cast<int>(type)) : std::nullopt;
}

bool H264ConfigurationParser::InsertSei(PacketBuffer* packet, SeiPayloadTypes type,
                                        const unsigned char* payload, int size) {
    const auto bytes = packetBytes(packet);
    const auto message = bytesOf(payload, size);
    const bool inserted = bytes && message && static_cast<int>(type) >= 0 &&
                          insertSei(*packet, *bytes, static_cast<int>(type), *message);
    if (!inserted) {
        LogLine(FileLog::Error, "H264ConfigurationParser::InsertSei: no slice, or no room for %d bytes",
                size);
    }
    return inserted;
}

std::string H264ConfigurationParser::PrintNalUnits(unsigned char* data, int size, int lengthSize) {
    const auto bytes = bytesOf(data, size);
    const bool valid = bytes && (lengthSize == 0 || isLengthSize(lengthSize));
    return valid ? describeUnits(*bytes, lengthSize) : std::string();
}

}  // namespace Mivra::Codecs::H264
