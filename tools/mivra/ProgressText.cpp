#include "tools/mivra/ProgressText.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string_view>

namespace Mivra::Tool {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kBarMinimum = 10;
constexpr int kBarMaximum = 40;

double sane(double value) {
    return std::isfinite(value) && value > 0 ? value : 0;
}

double speedOf(const Progress& progress) {
    const double elapsed = sane(progress.elapsed);
    return elapsed > 0 ? sane(progress.position) / elapsed : 0;
}

/// Bits per second of media.
double bitRateOf(const Progress& progress) {
    const double position = sane(progress.position);
    return position > 0 ? static_cast<double>(progress.bytes) * 8 / position : 0;
}

/// 0 to 1; below 0 when the duration is unknown.
double shareOf(const Progress& progress) {
    const double duration = sane(progress.duration);
    return duration > 0 ? std::min(sane(progress.position) / duration, 1.0) : -1;
}

std::string fixed(double value, int digits) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", digits, value);
    return text;
}

std::string clock(double seconds) {
    const auto all = static_cast<unsigned long long>(std::llround(std::min(sane(seconds), 1e12)));
    char text[48];
    if (all >= 3600) {
        std::snprintf(text, sizeof(text), "%llu:%02llu:%02llu", all / 3600, all / 60 % 60, all % 60);
    } else {
        std::snprintf(text, sizeof(text), "%llu:%02llu", all / 60, all % 60);
    }
    return text;
}

/// Three digits or so and a decimal prefix: 512, 2.1 M.
std::string scaled(double value, std::string_view unit) {
    static constexpr const char* kPrefixes[] = {"", "k", "M", "G", "T", "P", "E"};
    std::size_t prefix = 0;
    while (value >= 999.5 && prefix + 1 < std::size(kPrefixes)) {
        value /= 1000;
        ++prefix;
    }
    return fixed(value, prefix > 0 && value < 99.95 ? 1 : 0) + " " + kPrefixes[prefix] + std::string(unit);
}

std::string speedText(const Progress& progress, bool unicode) {
    const double speed = speedOf(progress);
    return fixed(speed, speed < 99.95 ? 1 : 0) + (unicode ? "×" : "x");
}

std::string bar(double share, int width, const LiveStyle& style) {
    const int full = std::clamp(static_cast<int>(share * width), 0, width);
    std::string done;
    std::string rest;
    for (int i = 0; i < width; ++i) {
        (i < full ? done : rest) += style.unicode ? (i < full ? "━" : "─") : (i < full ? "#" : "-");
    }
    if (!style.color) {
        return done + rest;
    }
    return "\x1b[32m" + done + "\x1b[0;2m" + rest + "\x1b[0m";
}

/// A part of the live line; rank 0 is the last to go.
struct Field {
    std::string text;
    int width;
    int rank;
};

Field plain(std::string text, int rank, int width = 0) {
    const int columns = width > 0 ? width : static_cast<int>(text.size());
    return {std::move(text), columns, rank};
}

std::vector<Field> liveFields(const Progress& progress, const LiveStyle& style) {
    std::vector<Field> fields;
    const double share = shareOf(progress);
    std::string time = clock(progress.position);
    if (share >= 0) {
        char percent[16];
        std::snprintf(percent, sizeof(percent), "%3d%%", static_cast<int>(share * 100));
        fields.push_back(plain(percent, 0));
        fields.push_back({"", kBarMinimum, 2});
        time += "/" + clock(progress.duration);
    }
    fields.push_back(plain(time, share >= 0 ? 3 : 0));
    const std::string speed = speedText(progress, style.unicode);
    fields.push_back(plain(speed, 1, static_cast<int>(speed.size()) - (style.unicode ? 1 : 0)));
    fields.push_back(
        plain(std::to_string(progress.packets) + (progress.pictures ? " pictures" : " packets"), 4));
    if (!progress.pictures) {
        fields.push_back(plain(scaled(bitRateOf(progress), "b/s"), 5));
    }
    if (progress.queued.has_value()) {
        fields.push_back(plain("queue " + std::to_string(*progress.queued), 6));
    }
    return fields;
}

/// Drops the fields of the highest ranks until the rest fits; the columns left over.
int fit(std::vector<Field>& fields, int width) {
    constexpr int kGap = 2;
    while (true) {
        int used = -kGap;
        for (const Field& field : fields) {
            used += field.width + kGap;
        }
        if (used <= width || fields.empty()) {
            return fields.empty() ? width : width - used;
        }
        fields.erase(std::max_element(fields.begin(), fields.end(),
                                      [](const Field& a, const Field& b) { return a.rank < b.rank; }));
    }
}

/// A value of a key=value line: in quotes when it has blanks, quotes or nothing in it.
std::string quotedValue(std::string_view value) {
    if (!value.empty() && value.find_first_of(" \"\\=") == value.npos) {
        return printable(value);
    }
    std::string result = "\"";
    for (const char c : printable(value)) {
        if (c == '"' || c == '\\') {
            result += '\\';
        }
        result += c;
    }
    return result + '"';
}

std::string joined(const std::vector<std::string>& parts) {
    std::string result;
    for (const std::string& part : parts) {
        result += (result.empty() ? "" : ", ") + part;
    }
    return result;
}

std::string keyValues(const Progress& progress) {
    std::string line = "elapsed=" + fixed(sane(progress.elapsed), 2);
    line += " position=" + fixed(sane(progress.position), 2);
    const double share = shareOf(progress);
    if (share >= 0) {
        line += " duration=" + fixed(progress.duration, 2) + " percent=" + fixed(share * 100, 1);
    }
    line += " speed=" + fixed(speedOf(progress), 2) + " packets=" + std::to_string(progress.packets);
    line += " bytes=" + std::to_string(progress.bytes) + " bitrate=" + fixed(bitRateOf(progress), 0);
    return progress.queued.has_value() ? line + " queue=" + std::to_string(*progress.queued) : line;
}

double rounded(double value) {
    return std::round(value * 1000) / 1000;
}

Json toJson(const char* event, const Progress& progress) {
    Json object;
    object["event"] = event;
    object["elapsed"] = rounded(sane(progress.elapsed));
    object["position"] = rounded(sane(progress.position));
    const double share = shareOf(progress);
    if (share >= 0) {
        object["duration"] = rounded(progress.duration);
        object["percent"] = rounded(share * 100);
    }
    object["speed"] = rounded(speedOf(progress));
    object["packets"] = progress.packets;
    object["bytes"] = progress.bytes;
    object["bitrate"] = std::llround(bitRateOf(progress));
    if (progress.queued.has_value()) {
        object["queue"] = *progress.queued;
    }
    return object;
}

std::string dump(const Json& object) {
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

std::string liveLine(const Progress& progress, const LiveStyle& style) {
    std::vector<Field> fields = liveFields(progress, style);
    const int spare = fit(fields, std::max(style.width - 1, 0));
    std::string line;
    for (const Field& field : fields) {
        line += line.empty() ? "" : "  ";
        line += field.text.empty() ? bar(shareOf(progress), std::min(field.width + spare, kBarMaximum), style)
                                   : field.text;
    }
    return line;
}

std::vector<std::string> summaryText(const Summary& summary, const LiveStyle& style) {
    const Progress& progress = summary.progress;
    const bool done = summary.state == "done";
    const std::string state =
        style.color ? (done ? "\x1b[32m" : "\x1b[33m") + summary.state + "\x1b[0m" : summary.state;
    std::vector<std::string> lines;
    lines.push_back(state + ": " + clock(progress.position) + " of media in " +
                    fixed(sane(progress.elapsed), 2) + " s (" + speedText(progress, style.unicode) + "), " +
                    std::to_string(progress.packets) + " packets, " +
                    scaled(static_cast<double>(progress.bytes), "B") + ", " +
                    scaled(bitRateOf(progress), "b/s"));
    for (const OutputSummary& output : summary.outputs) {
        if (output.streams.empty()) {
            continue;  // it was never opened
        }
        lines.push_back("  " + printable(output.path) + ": " + printable(output.format) + ", " +
                        printable(joined(output.streams)) + "; " + std::to_string(output.written.packets) +
                        " packets, " + scaled(static_cast<double>(output.written.bytes), "B"));
    }
    return lines;
}

std::string keyValueLine(const Progress& progress) {
    return "event=progress " + keyValues(progress);
}

std::string keyValueLine(const Event& event) {
    std::string line = "event=" + event.name;
    for (const auto& [key, value] : event.values) {
        const auto* const number = std::get_if<double>(&value);
        line += " " + key + "=" + (number != nullptr ? fixed(*number, 2) : quotedValue(std::get<1>(value)));
    }
    return line;
}

std::vector<std::string> keyValueSummary(const Summary& summary) {
    std::vector<std::string> lines;
    for (const OutputSummary& output : summary.outputs) {
        lines.push_back("event=output path=" + quotedValue(output.path) + " format=" +
                        quotedValue(output.format) + " streams=" + quotedValue(joined(output.streams)) +
                        " packets=" + std::to_string(output.written.packets) +
                        " bytes=" + std::to_string(output.written.bytes));
    }
    lines.push_back("event=summary state=" + quotedValue(summary.state) + " " + keyValues(summary.progress));
    return lines;
}

std::string jsonLine(const Progress& progress) {
    return dump(toJson("progress", progress));
}

std::string jsonLine(const Event& event) {
    Json object;
    object["event"] = event.name;
    for (const auto& [key, value] : event.values) {
        if (const auto* const number = std::get_if<double>(&value)) {
            object[key] = rounded(*number);
        } else {
            object[key] = std::get<std::string>(value);
        }
    }
    return dump(object);
}

std::string jsonSummary(const Summary& summary) {
    Json object = toJson("summary", summary.progress);
    object["state"] = summary.state;
    object["outputs"] = Json::array();
    for (const OutputSummary& output : summary.outputs) {
        object["outputs"].push_back({{"path", output.path},
                                     {"format", output.format},
                                     {"streams", output.streams},
                                     {"packets", output.written.packets},
                                     {"bytes", output.written.bytes}});
    }
    return dump(object);
}

}  // namespace Mivra::Tool
