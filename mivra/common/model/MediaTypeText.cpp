// The text forms of a media type. Numbers do not depend on the process's locale.

#include <algorithm>
#include <charconv>
#include <cstring>
#include <locale>
#include <sstream>
#include <string_view>

#include "mivra/common/binary/EndianBitConverter.h"
#include "mivra/common/model/MediaNames.h"
#include "mivra/common/model/MediaType.h"

namespace Mivra::Common {

namespace {

std::ostringstream textStream() {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    return text;
}

std::string lowerCase(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; });
    return result;
}

std::string upperCase(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - ('a' - 'A')) : c; });
    return result;
}

// Keeps the target unless the whole text is a number that fits.
template <typename T>
bool parseNumber(std::string_view text, T& target) {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return false;
    }
    target = value;
    return true;
}

int hexDigit(char c) {
    constexpr std::string_view Digits = "0123456789abcdef";
    const std::size_t digit = Digits.find(c >= 'A' && c <= 'F' ? static_cast<char>(c + ('a' - 'A')) : c);
    return digit == std::string_view::npos ? -1 : static_cast<int>(digit);
}

// Empty when the text is not a row of digit pairs.
std::string parseHex(std::string_view text) {
    std::string bytes;
    if (text.size() % 2 != 0) {
        return bytes;
    }
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = hexDigit(text[i]);
        const int low = hexDigit(text[i + 1]);
        if (high < 0 || low < 0) {
            return {};
        }
        bytes += static_cast<char>(high << 4 | low);
    }
    return bytes;
}

template <typename T>
void assignKnown(T& target, const std::optional<T>& value) {
    if (value) {
        target = *value;
    }
}

}  // namespace

std::string MediaType::ToString() const {
    std::ostringstream text = textStream();
    const std::string name = CodecName(codecId);
    switch (contentType) {
        case ContentType_t::Video:
            text << "Video " << name;
            if (codecId == Codec_t::UNCOMPRESSED) {
                text << " pixel format " << static_cast<int>(pixelFormat);
            } else {
                text << ' ' << bitrate / 1000 << " kbps";
            }
            text << ' ' << width << 'x' << height << ' ' << framerate.ToDouble() << " fps";
            break;
        case ContentType_t::Audio:
            text << "Audio " << name;
            if (codecId == Codec_t::PCM_S16LE) {
                text << " sample format " << SampleFormatName(sampleFormat);
            } else {
                text << ' ' << bitrate / 1000 << " kbps";
            }
            text << ' ' << sampleRate << " Hz " << channels << " ch";
            break;
        case ContentType_t::Text:
        case ContentType_t::Binary:
            return ContentName(contentType);
        default:
            return "Empty";
    }
    return text.str();
}

std::string MediaType::ToParameterString() const {
    std::ostringstream text = textStream();
    text << "contentType=" << ContentName(contentType) << "&codecId=" << CodecName(codecId)
         << "&bitrate=" << bitrate;
    if (hasPrivateData()) {
        text << "&privateData="
             << EndianBitConverter::ToString(reinterpret_cast<const unsigned char*>(codecPrivateData),
                                             codecPrivateDataSize)
             << codecParameters();
    }
    if (contentType == ContentType_t::Video) {
        text << "&width=" << width << "&height=" << height << "&framerate=" << framerate.ToDouble();
    } else if (contentType == ContentType_t::Audio) {
        text << "&sampleRate=" << sampleRate << "&channels=" << channels
             << "&bitsPerSample=" << bitsPerSample;
    }
    if (codecId == Codec_t::AAC && codecMetadata.ContainsKey("IsAdts")) {
        text << "&isAdts=" << codecMetadata.text("IsAdts");
    }
    return text.str();
}

MediaType MediaType::FromParameterString(const std::string& text) {
    MediaType type;
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::string_view pair = rest.substr(0, rest.find('&'));
        rest.remove_prefix(std::min(pair.size() + 1, rest.size()));
        const std::size_t equals = pair.find('=');
        if (equals != std::string_view::npos) {
            type.setParameter(pair.substr(0, equals), pair.substr(equals + 1));
        }
    }
    return type;
}

void MediaType::setParameter(std::string_view key, std::string_view value) {
    struct NumberKey {
        std::string_view key;
        std::int32_t MediaType::*field;
    };
    static constexpr NumberKey NumberKeys[] = {
        {"bitrate", &MediaType::bitrate},   {"width", &MediaType::width},
        {"height", &MediaType::height},     {"sampleRate", &MediaType::sampleRate},
        {"channels", &MediaType::channels}, {"bitsPerSample", &MediaType::bitsPerSample}};
    for (const NumberKey& number : NumberKeys) {
        if (key == number.key) {
            parseNumber(value, this->*number.field);
            return;
        }
    }
    if (key == "contentType") {
        assignKnown(contentType, ParseContentName(lowerCase(value)));
    } else if (key == "codecId") {
        assignKnown(codecId, ParseCodecName(lowerCase(value)));
    } else if (key == "sampleFormat") {
        assignKnown(sampleFormat, ParseSampleFormatName(upperCase(value)));
    } else if (key == "framerate") {
        double rate = 0;
        if (parseNumber(value, rate)) {
            framerate = Rational(rate);
        }
    } else if (key == "privateData") {
        const std::string bytes = parseHex(value);
        if (!bytes.empty()) {
            const std::int32_t size = static_cast<std::int32_t>(bytes.size());
            char* data = allocatePrivateData(size);
            std::memcpy(data, bytes.data(), bytes.size());
            replacePrivateData(data, size);
        }
    } else if (key == "isAdts") {
        codecMetadata["IsAdts"] = std::string(value);
    }
}

}  // namespace Mivra::Common
