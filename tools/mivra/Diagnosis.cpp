#include "tools/mivra/Diagnosis.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string_view>
#include <system_error>

#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/runtime/Version.h"
#include "mivra/ffmpeg/FfmpegInventory.h"
#include "mivra/ffmpeg/FfmpegProxy.h"
#include "tools/mivra/FfmpegSupport.h"
#include "tools/mivra/RelayFiles.h"

namespace Mivra::Tool {
namespace {

using FFmpeg::FfmpegInventory;
using FFmpeg::FfmpegLibraryState;
using FFmpeg::FfmpegProxy;
using Json = nlohmann::ordered_json;

constexpr const char* kOtherFfmpeg = "take a newer FFmpeg of the same major versions";
constexpr rlim_t kDescriptorsNeeded = 64;

std::string systemErrorText(int error) {
    return std::system_category().message(error);
}

/// ID and ID_LIKE of the system's description, with blanks around each word.
std::string systemNames() {
    std::ifstream description("/etc/os-release");
    std::string names = " ";
    for (std::string line; std::getline(description, line);) {
        if (line.rfind("ID=", 0) == 0 || line.rfind("ID_LIKE=", 0) == 0) {
            names += line.substr(line.find('=') + 1) + " ";
        }
    }
    for (char& c : names) {
        c = c == '"' || c == '\'' ? ' ' : c;
    }
    return names;
}

std::string howToInstall(const FfmpegLibraryState& library) {
    const std::string systems = systemNames();
    const auto is = [&systems](std::string_view name) {
        return systems.find(" " + std::string(name) + " ") != systems.npos;
    };
    const std::string package = "lib" + library.name + std::to_string(library.requiredMajor);
    if (is("debian") || is("ubuntu")) {
        return "apt install " + package;
    }
    if (is("suse") || is("opensuse")) {
        return "zypper install " + package;
    }
    if (is("fedora") || is("rhel")) {
        return "dnf install ffmpeg-libs (" + library.file + " must come with it)";
    }
    if (is("alpine")) {
        return "apk add ffmpeg-libs (" + library.file + " must come with it)";
    }
    if (is("arch")) {
        return "pacman -S ffmpeg (" + library.file + " must come with it)";
    }
    return "install FFmpeg's lib" + library.name + " of major version " +
           std::to_string(library.requiredMajor);
}

Finding judge(const FfmpegLibraryState& library) {
    if (!library.error.empty()) {
        // A path in front: the file was found and refused.
        const bool refused = library.error.front() == '/';
        return {Health::Bad, library.file, library.error,
                refused ? "replace or remove that file" : howToInstall(library)};
    }
    const std::string what = library.version + "  " + library.path;
    if (!library.majorMatches) {
        return {Health::Bad, library.file,
                what + ": major version " + std::to_string(library.requiredMajor) + " is needed",
                howToInstall(library)};
    }
    return {Health::Good, library.file, what, ""};
}

Json toJson(const FfmpegLibraryState& library) {
    return {{"file", library.file},       {"path", library.path},
            {"version", library.version}, {"usable", library.IsUsable()},
            {"error", library.error},     {"functions", library.functions},
            {"missing", library.missing}, {"missingOptional", library.missingOptional}};
}

void lookAtFunctions(const FfmpegInventory& inventory, Diagnosis& diagnosis, Json& details) {
    int wanted = 0;
    int found = 0;
    std::string firstMissing;
    std::vector<std::string> optional;
    bool allThere = true;
    for (const FfmpegLibraryState& library : inventory.libraries) {
        allThere = allThere && library.error.empty();
        wanted += library.functions;
        found += library.functions - static_cast<int>(library.missing.size());
        if (firstMissing.empty() && !library.missing.empty()) {
            firstMissing = library.missing.front() + " of " + library.file;
        }
        if (library.error.empty()) {
            optional.insert(optional.end(), library.missingOptional.begin(), library.missingOptional.end());
        }
    }
    Finding finding{Health::Good, "functions", std::to_string(found) + " of " + std::to_string(wanted), ""};
    if (!firstMissing.empty()) {
        finding.health = Health::Bad;
        finding.text += ", first missing: " + firstMissing;
        finding.remedy = allThere ? "install FFmpeg's libraries as your system packs them" : "";
    } else if (!optional.empty()) {
        finding.health = Health::Poor;
        finding.text += ", but not the optional " + optional.front();
        finding.remedy = kOtherFfmpeg;
    }
    diagnosis.findings.push_back(finding);
    details["functions"] = wanted;
    details["functionsFound"] = found;
    details["firstMissing"] = firstMissing;
}

struct Format {
    const char* extension;
    const char* reader;
    const char* writer;
};

constexpr Format kFormats[] = {
    {".ts", "mpegts", "mpegts"}, {".mp4", "mp4", "mp4"},    {".mkv", "matroska", "matroska"},
    {".flv", "flv", "flv"},      {".h264", "h264", "h264"}, {".aac", "aac", "adts"},
};

/// What this FFmpeg was built to read and write. It is loaded for real here: the last word on whether it
/// works.
void lookAtFormats(Diagnosis& diagnosis, Json& details) {
    const FfmpegUse use;
    details["loads"] = use.IsLoaded();
    if (!use.IsLoaded()) {
        diagnosis.findings.push_back({Health::Bad, "formats", "unknown, since FFmpeg cannot be loaded", ""});
        return;
    }
    const char* const lacking = missingForReading() != nullptr ? missingForReading() : missingForWriting();
    if (lacking != nullptr) {
        const Problem problem = functionMissing(lacking);
        diagnosis.findings.push_back(
            {Health::Bad, "relay functions", problem.what + ": " + problem.where, kOtherFfmpeg});
    }
    std::string here;
    std::string missing;
    for (const Format& format : kFormats) {
        const bool read = FfmpegProxy::av_find_input_format(format.reader) != nullptr;
        const bool write = FfmpegProxy::av_guess_format(format.writer, nullptr, nullptr) != nullptr;
        details["formats"].push_back({{"extension", format.extension}, {"read", read}, {"write", write}});
        (read && write ? here : missing) += std::string(" ") + format.extension;
    }
    if (missing.empty()) {
        diagnosis.findings.push_back({Health::Good, "formats", here.substr(1), ""});
    } else {
        diagnosis.findings.push_back({here.empty() ? Health::Bad : Health::Poor, "formats",
                                      here + ", not both ways:" + missing,
                                      "take an FFmpeg built with these"});
    }
}

void lookAtFfmpeg(Diagnosis& diagnosis) {
    const FfmpegInventory inventory = FFmpeg::TakeFfmpegInventory();
    Json details = {{"release", inventory.release}, {"libraries", Json::array()}};
    for (const FfmpegLibraryState& library : inventory.libraries) {
        diagnosis.findings.push_back(judge(library));
        details["libraries"].push_back(toJson(library));
    }
    lookAtFunctions(inventory, diagnosis, details);
    lookAtFormats(diagnosis, details);
    diagnosis.details["ffmpeg"] = std::move(details);
}

std::string sizeText(int size) {
    constexpr int kKibi = 1024;
    if (size % (kKibi * kKibi) == 0) {
        return std::to_string(size / (kKibi * kKibi)) + " MiB";
    }
    return size % kKibi == 0 ? std::to_string(size / kKibi) + " KiB" : std::to_string(size) + " bytes";
}

void lookAtPools(Diagnosis& diagnosis) {
    using Media::MediaGlobal;
    const bool mine = !MediaGlobal::IsInitialized();
    MediaGlobal::Initialize(1.0F);
    struct {
        const char* name;
        Common::PacketBufferAllocator* pool;
    } const pools[] = {{"small", MediaGlobal::GetSmallAllocator()},
                       {"normal", MediaGlobal::GetAllocator()},
                       {"big", MediaGlobal::GetBigAllocator()}};
    Finding finding{Health::Good, "pools", "", ""};
    for (const auto& [name, pool] : pools) {
        const int size = pool == nullptr ? 0 : pool->BufferSize();
        const int count = pool == nullptr ? 0 : pool->BufferCount();
        finding.text += std::string(finding.text.empty() ? "" : ", ") + name + " " + std::to_string(count) +
                        " of " + sizeText(size);
        diagnosis.details["pools"].push_back({{"name", name}, {"bufferSize", size}, {"bufferCount", count}});
        if (count == 0) {
            finding.health = Health::Bad;
            finding.remedy = "there is not enough memory: about 32 MiB are needed";
        }
    }
    if (mine) {
        MediaGlobal::Uninitialize();
    }
    diagnosis.findings.push_back(finding);
}

void lookAtDescriptors(Diagnosis& diagnosis) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const auto say = [](rlim_t value) {
        return value == RLIM_INFINITY ? std::string("unlimited") : std::to_string(value);
    };
    Finding finding{Health::Good, "descriptors",
                    say(limit.rlim_cur) + ", may be raised to " + say(limit.rlim_max), ""};
    if (limit.rlim_cur < kDescriptorsNeeded) {
        finding.health = Health::Bad;
        finding.remedy = "ulimit -n 1024";
    }
    diagnosis.findings.push_back(finding);
    const auto figure = [](rlim_t value) { return value == RLIM_INFINITY ? Json() : Json(value); };
    diagnosis.details["descriptors"] = {{"limit", figure(limit.rlim_cur)},
                                        {"maximum", figure(limit.rlim_max)}};
}

void lookAtLog(const std::string& path, Diagnosis& diagnosis) {
    if (path.empty()) {
        diagnosis.findings.push_back({Health::Good, "log", "off (--log FILE tries one)", ""});
        diagnosis.details["log"] = nullptr;
        return;
    }
    const int error = tryToWrite(path);
    diagnosis.details["log"] = {
        {"path", path}, {"writable", error == 0}, {"error", error == 0 ? "" : systemErrorText(error)}};
    if (error == 0) {
        diagnosis.findings.push_back({Health::Good, "log", path + " can be written", ""});
    } else {
        diagnosis.findings.push_back({Health::Bad, "log", path + ": " + systemErrorText(error),
                                      "name a file in a folder that you may write to"});
    }
}

}  // namespace

const Finding* Diagnosis::FirstBad() const {
    for (const Finding& finding : findings) {
        if (finding.health == Health::Bad) {
            return &finding;
        }
    }
    return nullptr;
}

bool Diagnosis::IsReady() const {
    return FirstBad() == nullptr;
}

Diagnosis diagnose(const std::string& logPath) {
    Diagnosis diagnosis;
    diagnosis.details["version"] = Common::LibraryVersion();
    diagnosis.details["ready"] = false;
    lookAtFfmpeg(diagnosis);
    lookAtPools(diagnosis);
    lookAtDescriptors(diagnosis);
    lookAtLog(logPath, diagnosis);
    diagnosis.details["ready"] = diagnosis.IsReady();
    diagnosis.details["problems"] = Json::array();
    for (const Finding& finding : diagnosis.findings) {
        if (finding.health != Health::Good) {
            diagnosis.details["problems"].push_back({{"subject", finding.subject},
                                                     {"needed", finding.health == Health::Bad},
                                                     {"text", finding.text},
                                                     {"try", finding.remedy}});
        }
    }
    return diagnosis;
}

}  // namespace Mivra::Tool
