#include "mivra/common/model/MediaNames.h"

#include <iterator>

namespace Mivra::Common {

namespace {

struct ContentEntry {
    ContentType_t type;
    const char* name;
    const char* parseName;
};

constexpr ContentEntry Contents[] = {{ContentType_t::Video, "Video", "video"},
                                     {ContentType_t::Audio, "Audio", "audio"},
                                     {ContentType_t::Text, "Text", "text"},
                                     {ContentType_t::Binary, "Binary", "binary"}};

constexpr const char* SampleFormats[] = {"U8",  "S16",  "S32",  "FLT",  "DBL",
                                         "U8P", "S16P", "S32P", "FLTP", "DBLP"};

/// Codes from first to last share a display name; a parse name yields `parsed`.
struct CodecEntry {
    int first;
    int last;
    const char* name;
    const char* parseName = "";
    int parsed = first;
};

constexpr CodecEntry Codecs[] = {
    {0, 0, "None"},
    {1, 1, "MPEG1", "mpeg1"},
    {2, 2, "MPEG2", "mpeg2"},
    {4, 4, "H263", "h263"},
    {7, 7, "MJPEG", "mjpeg"},
    {12, 12, "MPEG4", "mpeg4"},
    {13, 13, "Uncompressed", "uncompressed"},
    {17, 18, "WMV", "wmv", 71},
    {71, 71, "WMV"},
    {70, 70, "VC1", "vc1"},
    {27, 27, "H264", "h264"},
    {139, 139, "VP8", "vp8"},
    {167, 167, "VP9", "vp9"},
    {173, 173, "H265", "h265"},
    {173, 173, "H265", "hevc"},
    {65536, 65541, "PCM", "pcm", 65536},
    {65544, 65566, "PCM"},
    {65542, 65542, "G711U", "g711u"},
    {65543, 65543, "G711A", "g711a"},
    {69643, 69643, "G726", "g726"},
    {69660, 69660, "G722", "g722"},
    {73728, 73728, "AMR_NB", "amr_nb"},
    {73729, 73729, "AMR_WB", "amr_wb"},
    {77824, 77825, "RealAudio"},
    {86016, 86016, "MP2", "mp2"},
    {86017, 86017, "MP3", "mp3"},
    {86018, 86018, "AAC", "aac"},
    {86019, 86019, "AC3", "ac3"},
    {86020, 86020, "DTS", "dts"},
    {86021, 86021, "Vorbis", "vorbis"},
    {86023, 86024, "WMA"},
    {86052, 86054, "WMA"},
    {86028, 86028, "FLAC", "flac"},
    {86032, 86032, "ALAC", "alac"},
    {86034, 86034, "GSM", "gsm"},
    {86037, 86037, "TrueSpeech"},
    {86038, 86038, "TTA"},
    {86040, 86040, "QCELP", "qcelp"},
    {86041, 86041, "WavPack", "wavpack"},
    {86046, 86046, "GSM_MS", "gsm_ms"},
    {86048, 86048, "Ape", "ape"},
    {86056, 86056, "EAC3", "eac3"},
    {86058, 86058, "MP1", "mp1"},
    {86065, 86065, "AAC-LATM", "aac-latm"},
    {86068, 86068, "G723_1", "g723_1"},
    {86069, 86069, "G729", "g729"},
};

}  // namespace

const char* ContentName(ContentType_t type) {
    for (const ContentEntry& entry : Contents) {
        if (entry.type == type) {
            return entry.name;
        }
    }
    return "Unknown";
}

std::optional<ContentType_t> ParseContentName(std::string_view lowerCase) {
    for (const ContentEntry& entry : Contents) {
        if (lowerCase == entry.parseName) {
            return entry.type;
        }
    }
    return std::nullopt;
}

std::string CodecName(Codec_t codec) {
    const int code = static_cast<int>(codec);
    for (const CodecEntry& entry : Codecs) {
        if (entry.first <= code && code <= entry.last) {
            return entry.name;
        }
    }
    return std::string("Codec ").append(std::to_string(code));
}

std::optional<Codec_t> ParseCodecName(std::string_view lowerCase) {
    for (const CodecEntry& entry : Codecs) {
        if (!lowerCase.empty() && lowerCase == entry.parseName) {
            return static_cast<Codec_t>(entry.parsed);
        }
    }
    return std::nullopt;
}

const char* SampleFormatName(SampleFormat_t format) {
    const int index = static_cast<int>(format);
    return index >= 0 && index < static_cast<int>(std::size(SampleFormats)) ? SampleFormats[index]
                                                                            : "Unknown";
}

std::optional<SampleFormat_t> ParseSampleFormatName(std::string_view upperCase) {
    for (std::size_t i = 0; i < std::size(SampleFormats); ++i) {
        if (upperCase == SampleFormats[i]) {
            return static_cast<SampleFormat_t>(i);
        }
    }
    return std::nullopt;
}

}  // namespace Mivra::Common
