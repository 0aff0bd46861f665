#include "mivra/media/CacheFiles.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "mivra/common/identity/Guid.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/platform/System.h"

namespace Mivra::Media {

using Common::FileLog;
using Common::GeneralException;
using Common::LogLine;
using Platform::System;

namespace {

constexpr const char* kSubfolders = "Mivrasoft/buffer/";
constexpr std::string_view kLockEnding = ".lock";
constexpr std::string_view kFileEnding = ".cache";
constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr std::size_t kNameLength = 36;
constexpr int kNameAttempts = 5;

/// Closes a descriptor at the end of its scope.
class Descriptor {
public:
    explicit Descriptor(int opened) : descriptor(opened) {}
    ~Descriptor() {
        if (descriptor >= 0) {
            System().close(descriptor);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const { return descriptor; }

private:
    const int descriptor;
};

std::string absoluteVariable(const char* variable) {
    const char* const value = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe)
    return value != nullptr && value[0] == '/' ? std::string(value) + '/' : std::string();
}

/// The name that an entry of the folder begins with; empty when it is no entry of ours.
std::string_view sessionOf(std::string_view entry) {
    const bool ours = (entry.size() == kNameLength + kLockEnding.size() && entry.ends_with(kLockEnding)) ||
                      (entry.size() > kNameLength + kFileEnding.size() && entry[kNameLength] == '-' &&
                       entry.ends_with(kFileEnding));
    const std::string_view name = entry.substr(0, std::min(entry.size(), kNameLength));
    return ours && name.find_first_not_of("0123456789abcdef-") == std::string_view::npos ? name
                                                                                         : std::string_view();
}

bool tryLock(int descriptor) {
    return System().lockRange(descriptor, Platform::RangeLock::TryExclusive, 0, 1) == 0;
}

bool isThere(const std::string& path) {
    struct stat status;
    return System().pathStatus(path.c_str(), &status) == 0 || errno != ENOENT;
}

}  // namespace

std::string CacheFiles::DefaultFolder() {
    std::string folder = absoluteVariable("XDG_DATA_HOME");
    if (folder.empty()) {
        folder = absoluteVariable("HOME");
        if (folder.empty()) {
            return folder;
        }
        folder += ".local/share/";
    }
    return folder + kSubfolders;
}

CacheFiles::CacheFiles(std::string path) : folder(std::move(path)) {}

CacheFiles::~CacheFiles() {
    giveUpName();
}

void CacheFiles::giveUpName() {
    if (lockFile >= 0) {
        // First its name: who finds the lock free finds nothing behind it.
        System().unlink(lockPath.c_str());
        System().close(std::exchange(lockFile, -1));
    }
}

void CacheFiles::Open() {
    if (folder.empty()) {
        throw GeneralException("there is no home folder");
    }
    giveUpName();
    makeFolder();
    for (int attempt = 0; !takeName(); ++attempt) {
        if (attempt == kNameAttempts) {
            throw GeneralException("%s: no lock to be had", folder.c_str());
        }
    }
    removeDead();
}

int CacheFiles::Create(std::uint32_t number) const {
    return System().open(NameOf(number).c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, kFileMode);
}

int CacheFiles::OpenToRead(std::uint32_t number) const {
    return System().open(NameOf(number).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK, 0);
}

std::string CacheFiles::NameOf(std::uint32_t number) const {
    return folder + name + '-' + std::to_string(number) + std::string(kFileEnding);
}

// Between making the file and locking it another session may take it for a dead one's: then the lock is
// busy, or the file has no name any more.
bool CacheFiles::takeName() {
    name = Common::Guid::NewGuid().ToString();
    lockPath = folder + name + std::string(kLockEnding);
    const int file = System().open(lockPath.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, kFileMode);
    if (file < 0) {
        const int error = errno;
        throw GeneralException("%s: %s", folder.c_str(),
                               std::strerror(error));  // NOLINT(concurrency-mt-unsafe)
    }
    struct stat status {};
    // Where a file system knows no locks, nobody can take this file for a dead one's either.
    const bool busy = !tryLock(file) && (errno == EAGAIN || errno == EACCES);
    if (busy || System().descriptorStatus(file, &status) != 0 || status.st_nlink == 0) {
        System().close(file);
        return false;
    }
    lockFile = file;
    return true;
}

void CacheFiles::removeDead() const {
    std::vector<std::string> entries;
    const auto note = [](const char* entry, void* context) {
        if (!sessionOf(entry).empty()) {
            static_cast<std::vector<std::string>*>(context)->emplace_back(entry);
        }
    };
    if (System().listDirectory(folder.c_str(), note, &entries) != 0) {
        return;  // the next session may do it
    }
    for (const std::string& entry : entries) {
        const std::string session(sessionOf(entry));
        const std::string itsLock = folder + session + std::string(kLockEnding);
        if (session == name) {
            continue;
        }
        if (!entry.ends_with(kLockEnding)) {
            // A lock file is there before and after any other: without one nobody owns this.
            if (!isThere(itsLock)) {
                System().unlink((folder + entry).c_str());
            }
            continue;
        }
        const Descriptor file(System().open(itsLock.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK, 0));
        if (file.Get() >= 0 && tryLock(file.Get())) {
            LogLine(FileLog::Information, "MediaSession: removing the buffer of a session that died, %s",
                    session.c_str());
            removeFilesOf(session, entries);
            System().unlink(itsLock.c_str());
        }
    }
}

void CacheFiles::removeFilesOf(const std::string& session, const std::vector<std::string>& entries) const {
    for (const std::string& entry : entries) {
        if (entry.ends_with(kFileEnding) && sessionOf(entry) == session) {
            System().unlink((folder + entry).c_str());
        }
    }
}

// What cannot be made is told by the first file in it.
void CacheFiles::makeFolder() const {
    for (std::size_t slash = folder.find('/', 1); slash != std::string::npos;
         slash = folder.find('/', slash + 1)) {
        System().makeDirectory(folder.substr(0, slash).c_str(), kFolderMode);
    }
}

}  // namespace Mivra::Media
