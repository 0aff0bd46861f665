#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Mivra::Media {

/// The files of one session's disk cache, in the folder that all sessions of all processes of a user share.
/// A session's name is a random identifier; a file NAME.lock, locked for as long as the session lives, tells
/// the others so. Whoever opens next removes the files whose lock nobody holds any more. The session's thread
/// owns it.
class CacheFiles {
public:
    /// The folder under the absolute XDG_DATA_HOME, else under the home folder, with a slash at its end;
    /// empty when neither is known.
    static std::string DefaultFolder();

    explicit CacheFiles(std::string folder);
    /// Gives the name up. The numbered files must be gone.
    ~CacheFiles();
    CacheFiles(const CacheFiles&) = delete;
    CacheFiles& operator=(const CacheFiles&) = delete;

    /// Makes the folder (mode 0700), takes a name, and removes what sessions left that have died.
    /// GeneralException when there is no folder or no name to be had. Once more when somebody has removed the
    /// folder: from then on files have the new name.
    void Open();
    /// A new file for reading and writing, which must not be there yet (mode 0600): its descriptor, or -1
    /// with errno.
    int Create(std::uint32_t number) const;
    /// For reading: its descriptor, or -1 with errno.
    int OpenToRead(std::uint32_t number) const;
    std::string NameOf(std::uint32_t number) const;

private:
    bool takeName();
    void giveUpName();
    void removeDead() const;
    void removeFilesOf(const std::string& name, const std::vector<std::string>& entries) const;
    void makeFolder() const;

    const std::string folder;
    std::string name;
    std::string lockPath;
    int lockFile = -1;
};

}  // namespace Mivra::Media
