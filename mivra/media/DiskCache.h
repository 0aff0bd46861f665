#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "mivra/media/CacheBlocks.h"
#include "mivra/media/CacheFiles.h"
#include "mivra/media/SampleCache.h"

namespace Mivra::Media {

/// The cache on disk: samples in files of some MiB each, in the order of arrival; a new file begins at a key
/// frame, and a file goes when none of its samples is held any more. In memory stay the place of each sample,
/// the last block, what a record cannot carry (CacheRecord), and what arrives while the output begins: a disk
/// that fails never costs what is live. A full disk shortens the cache from its head; what cannot be written
/// or read back otherwise costs what is buffered. Each is told once.
class DiskCache : public SampleCache {
public:
    /// Without a usable folder it stays empty, which is a problem to be told.
    DiskCache(std::int64_t duration, const std::vector<Source>& sources, const std::string& folder);
    ~DiskCache() override;

    /// Each file is told when it is opened.
    void LogTaking() const override {}

protected:
    bool store(const Track& track, Held& held, Common::PacketBuffer* sample) override;
    Common::Reference<Common::PacketBuffer> load(const Held& held) override;
    void forget(const Held& held) override;
    const char* nameOf(const Held& held) const override;

private:
    struct File {
        std::string name;
        std::uint32_t size = 0;  // once it is closed
        std::uint32_t held = 0;  // samples
        bool lost = false;       // it could not be read
    };

    bool startFile();
    int createFile(std::uint32_t number);
    bool endFile();
    template <typename Write>
    bool write(Write&& attempt);
    bool dropOldestFile();
    void giveUp(const std::string& path, int error);
    void removeFile(std::map<std::uint32_t, File>::iterator file);
    std::uint32_t numberOf(const std::string& sourceId);
    bool read(const Held& held, CacheRecord& record, char* data);
    bool openToRead(std::uint32_t number, std::uint32_t offset);
    void closeReader();
    /// All that is in the file.
    void lose(const Held& held, const char* reason);
    void tellLost(const File& file, const char* reason);
    /// Tells a problem of a kind once.
    void tell(bool& told, const std::string& text);

    CacheFiles folder;
    bool usable = false;
    std::map<std::uint32_t, File> files;
    CacheWriter writer;
    std::uint32_t current = 0;  // number of the file that is written, or was last
    std::int64_t retryAt = 0;   // nanoseconds of the coarse clock
    CacheReader reader;
    std::uint32_t reading = 0;
    std::vector<std::string> sourceIds;
    bool toldFull = false;
    bool toldFailed = false;
    bool toldLost = false;
    bool toldExhausted = false;
};

}  // namespace Mivra::Media
