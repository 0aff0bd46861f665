#include "tools/mivra/RelayFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "tools/mivra/MediaFile.h"
#include "tools/mivra/NetworkAddress.h"
#include "tools/mivra/OutputFormat.h"
#include "tools/mivra/ProblemError.h"

namespace Mivra::Tool {
namespace {

/// What a path leads to: the file when it is there, and where it stands in any case.
struct Place {
    std::string name;
    bool exists = false;
    bool isDevice = false;
    dev_t device = 0;
    ino_t inode = 0;
    std::filesystem::path canonical;
};

/// Where a link leads to, the last of a chain: its target need not be there.
std::filesystem::path followed(std::filesystem::path path) {
    constexpr int kMostLinks = 40;
    std::error_code ignored;
    for (int i = 0; i < kMostLinks && std::filesystem::is_symlink(path, ignored); ++i) {
        path = path.parent_path() / std::filesystem::read_symlink(path, ignored);
    }
    return std::filesystem::weakly_canonical(path, ignored);
}

void setFile(Place& place, const struct stat& status) {
    place.exists = true;
    place.isDevice = S_ISCHR(status.st_mode);
    place.device = status.st_dev;
    place.inode = status.st_ino;
}

Place placeOf(const std::string& path) {
    Place place;
    place.name = path;
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        setFile(place, status);
    }
    place.canonical = followed(path);
    return place;
}

Place standardPlace(const std::string& name, int descriptor) {
    Place place;
    place.name = name;
    struct stat status {};
    if (::fstat(descriptor, &status) == 0) {
        setFile(place, status);
    }
    return place;
}

bool isSame(const Place& a, const Place& b) {
    if (a.exists && b.exists) {
        return a.device == b.device && a.inode == b.inode && !a.isDevice;
    }
    return !a.exists && !b.exists && !a.canonical.empty() && a.canonical == b.canonical;
}

std::vector<Place> placesOf(const std::vector<std::string>& names, int standardDescriptor) {
    std::vector<Place> places;
    places.reserve(names.size());
    for (const std::string& name : names) {
        if (NetworkAddress::IsOne(name)) {
            continue;
        }
        places.push_back(name == kStandardStream ? standardPlace(name, standardDescriptor) : placeOf(name));
    }
    return places;
}

std::optional<Problem> checkLog(const std::string& log, const std::vector<Place>& read,
                                const std::vector<Place>& written) {
    if (log.empty()) {
        return std::nullopt;
    }
    const Place place = placeOf(log);
    const auto isLog = [&place](const Place& other) { return isSame(place, other); };
    const bool isRead = std::any_of(read.begin(), read.end(), isLog);
    if (isRead || std::any_of(written.begin(), written.end(), isLog)) {
        return Problem{isRead ? "the log is also an input" : "the log is also an output", log,
                       "choose another name"};
    }
    return std::nullopt;
}

/// ProblemError that says what is wrong with the first wrong address among the names, known ones included.
void checkAddresses(const std::vector<std::string>& names, NetworkAddress::Use use,
                    std::vector<NetworkAddress>& known) {
    for (const std::string& name : names) {
        if (!NetworkAddress::IsOne(name)) {
            continue;
        }
        NetworkAddress address = NetworkAddress::Parse(name, use);
        if (std::any_of(known.begin(), known.end(),
                        [&](const NetworkAddress& other) { return address.Excludes(other); })) {
            throw ProblemError(ExitCode::Usage, {"the address is given twice", name, "choose another port"});
        }
        known.push_back(std::move(address));
    }
}

std::ptrdiff_t countStandard(const std::vector<std::string>& names) {
    return std::count(names.begin(), names.end(), kStandardStream);
}

}  // namespace

std::optional<Problem> checkRelayFiles(const std::vector<std::string>& inputs,
                                       const std::vector<std::string>& outputs, const std::string& log) {
    for (const std::string& output : outputs) {
        if (findOutputFormat(output) == nullptr) {
            return Problem{"the output's name does not tell a format", output,
                           "use one of " + outputExtensions()};
        }
    }
    try {
        std::vector<NetworkAddress> known;
        checkAddresses(inputs, NetworkAddress::Use::Read, known);
        checkAddresses(outputs, NetworkAddress::Use::Write, known);
    } catch (const ProblemError& error) {
        return error.problem;
    }
    if (countStandard(inputs) > 1) {
        return Problem{"standard input is given twice", kStandardStream, "use it once"};
    }
    const std::vector<Place> read = placesOf(inputs, STDIN_FILENO);
    const std::vector<Place> written = placesOf(outputs, STDOUT_FILENO);
    for (std::size_t i = 0; i < written.size(); ++i) {
        for (const Place& input : read) {
            if (isSame(written[i], input)) {
                return Problem{"the output is also an input", written[i].name, "choose another name"};
            }
        }
        for (std::size_t j = 0; j < i; ++j) {
            if (isSame(written[i], written[j]) ||
                (written[i].name == written[j].name && written[i].name == kStandardStream)) {
                return Problem{"two outputs are the same file", written[i].name, "choose another name"};
            }
        }
    }
    return checkLog(log, read, written);
}

int tryToWrite(const std::string& path) {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    int descriptor = ::open(path.c_str(), kFlags | O_CREAT | O_EXCL, 0666);
    const bool made = descriptor >= 0;
    if (!made) {
        descriptor = ::open(path.c_str(), kFlags);
    }
    if (descriptor < 0) {
        return errno;
    }
    ::close(descriptor);
    if (made) {
        ::unlink(path.c_str());
    }
    return 0;
}

std::wstring widePath(const std::string& path) {
    std::wstring wide;
    for (std::size_t i = 0; i < path.size();) {
        const unsigned char lead = static_cast<unsigned char>(path[i]);
        const std::size_t length = lead < 0xC2 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 1;
        std::uint32_t code = length == 1 ? lead : lead & (0x7Fu >> length);
        bool valid = i + length <= path.size();
        for (std::size_t k = 1; valid && k < length; ++k) {
            const unsigned char next = static_cast<unsigned char>(path[i + k]);
            valid = (next & 0xC0) == 0x80;
            code = code << 6 | (next & 0x3F);
        }
        wide += static_cast<wchar_t>(valid ? code : lead);
        i += valid ? length : 1;
    }
    return wide;
}

}  // namespace Mivra::Tool
