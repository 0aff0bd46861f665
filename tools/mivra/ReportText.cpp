#include "tools/mivra/ReportText.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "tools/mivra/Console.h"

namespace Mivra::Tool {
namespace {

using Json = nlohmann::ordered_json;
using Lines = std::vector<std::string>;

constexpr std::size_t kLabelWidth = 14;
constexpr std::size_t kElementWidth = 46;

struct ProfileName {
    int profile;
    const char* name;
};
/// ITU-T H.264 Annex A.2 and the annexes of its extensions.
constexpr ProfileName kProfiles[] = {
    {44, "CAVLC 4:4:4 Intra"}, {66, "Baseline"},    {77, "Main"},         {83, "Scalable Baseline"},
    {86, "Scalable High"},     {88, "Extended"},    {100, "High"},        {110, "High 10"},
    {118, "Multiview High"},   {122, "High 4:2:2"}, {128, "Stereo High"}, {244, "High 4:4:4 Predictive"},
};

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size() + 1, width), ' ');
    return text;
}

void add(Lines& lines, const char* label, const std::string& text) {
    lines.push_back("     " + padded(label, kLabelWidth) + printable(text));
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.6g", value);
    return text;
}

/// "25", "29.97 (30000/1001)", or a question mark for what is not known.
std::string rate(const Json& fraction) {
    if (!fraction.is_string()) {
        return "?";
    }
    const std::string& text = fraction.get_ref<const std::string&>();
    const std::size_t slash = text.find('/');
    const double down = std::atof(text.c_str() + slash + 1);
    const double value = std::atof(text.c_str()) / down;
    return number(value) + (down == 1 ? "" : " (" + text + ")");
}

/// "4:3".
std::string aspect(const Json& fraction) {
    if (!fraction.is_string()) {
        return "?";
    }
    std::string text = fraction.get<std::string>();
    std::replace(text.begin(), text.end(), '/', ':');
    return text;
}

std::string bits(const Json& rate) {
    return rate.is_number() ? number(rate.get<double>() / 1000) + " kbit/s" : "?";
}

std::string profileText(int profile) {
    const auto* const found =
        std::find_if(std::begin(kProfiles), std::end(kProfiles),
                     [profile](const ProfileName& known) { return known.profile == profile; });
    return found == std::end(kProfiles) ? "profile " + std::to_string(profile) : found->name;
}

/// The value of a sequence parameter set's element; 0 when there is none.
int elementOf(const Json& set, const char* name) {
    for (const Json& element : set.value("elements", Json::array())) {
        if (element["name"] == name) {
            return element["value"];
        }
    }
    return 0;
}

/// "4.1" of 41. Level 1b is 9, or in the older profiles 11 with a flag (ITU-T H.264 Annex A.3.4).
std::string levelText(int level, int profile, const Json& sets) {
    const bool older = profile == 66 || profile == 77 || profile == 88;
    const bool flagged = !sets.empty() && elementOf(sets.front(), "constraint_set3_flag") != 0;
    if (level == 9 || (level == 11 && older && flagged)) {
        return "1b";
    }
    return std::to_string(level / 10) + "." + std::to_string(level % 10);
}

std::string size(const Json& of) {
    return of["width"].dump() + "x" + of["height"].dump() + ", samples " + aspect(of["aspectRatio"]);
}

void addSets(Lines& lines, const Json& sets) {
    for (const Json& set : sets) {
        std::string line = set["kind"] == "sps" ? "     sequence" : "     picture";
        line += " parameter set";
        const std::string bytes = " (" + set["bytes"].dump() + " bytes)";
        if (set.contains("malformed")) {
            lines.push_back(line.append(": malformed").append(bytes));
            continue;
        }
        lines.push_back(line.append(" ").append(set["id"].dump()).append(bytes));
        for (const Json& element : set["elements"]) {
            lines.push_back("       " + padded(element["name"].get<std::string>(), kElementWidth) +
                            element["value"].dump());
        }
    }
}

void addH264(Lines& lines, const Json& h264) {
    add(lines, "form",
        h264["form"] == "annexb"
            ? "start codes (Annex B)"
            : "configuration record, lengths of " + h264["lengthSize"].dump() + " bytes");
    if (!h264.contains("profile")) {
        add(lines, "sets", "no whole sequence parameter set");
    } else {
        const Json& order = h264["reordering"];
        add(lines, "profile",
            profileText(h264["profile"]) + ", level " +
                levelText(h264["level"], h264["profile"], h264["sets"]));
        add(lines, "picture", size(h264) + ", " + rate(h264["frameRate"]) + " frames/s");
        add(lines, "HRD",
            h264["bitrate"].is_null() ? "none"
                                      : bits(h264["bitrate"]) + ", at most " + bits(h264["maxBitrate"]));
        add(lines, "reordering",
            order["depth"].dump() +
                (order["exact"] == true ? " frames, told by the stream" : " frames, estimated"));
    }
    addSets(lines, h264["sets"]);
}

void addAac(Lines& lines, const Json& aac) {
    add(lines, "form", aac["form"] == "adts" ? "ADTS frames" : "AudioSpecificConfig");
    add(lines, "config",
        aac["config"].get<std::string>() + ", object type " + aac["objectType"].dump() +
            ", channel configuration " + aac["channelConfiguration"].dump());
}

void addStream(Lines& lines, const Json& stream) {
    lines.push_back("  " + padded(stream["index"].dump(), 3) + printable(stream["text"].get<std::string>()));
    const auto codecs = stream["codecs"].get<std::string>();
    add(lines, "codec", stream["codec"].get<std::string>() + (codecs.empty() ? "" : ", ") + codecs);
    if (stream.contains("width")) {
        add(lines, "container", size(stream) + ", " + rate(stream["frameRate"]) + " frames/s");
    }
    add(lines, "bit rate", bits(stream["bitrate"]));
    add(lines, "parameters", stream["parameters"].get<std::string>());
    if (stream.contains("h264")) {
        addH264(lines, stream["h264"]);
    }
    if (stream.contains("aac")) {
        addAac(lines, stream["aac"]);
    }
    if (stream.contains("sdp")) {
        for (const Json& line : stream["sdp"]) {
            lines.push_back("     " + printable(line.get<std::string>()));
        }
    }
}

}  // namespace

Lines reportText(const Json& file) {
    const std::size_t count = file["streams"].size();
    const std::string length = file["duration"].is_number() ? number(file["duration"]) + " s, " : "";
    Lines lines = {printable(file["file"].get<std::string>()) + "  " + length + std::to_string(count) +
                   (count == 1 ? " stream" : " streams")};
    for (const Json& stream : file["streams"]) {
        addStream(lines, stream);
    }
    return lines;
}

}  // namespace Mivra::Tool
