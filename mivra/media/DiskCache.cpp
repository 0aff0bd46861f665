#include "mivra/media/DiskCache.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <iterator>
#include <system_error>

#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/runtime/GeneralException.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/media/HeldPacket.h"
#include "mivra/platform/System.h"

namespace Mivra::Media {

using Common::FileLog;
using Common::LogLine;
using Common::PacketBuffer;
using Common::Reference;

namespace {

// A file ends at the first key frame behind this, and anywhere behind that.
constexpr std::uint32_t kFileSize = 4 << 20;
constexpr std::uint32_t kLargestFile = 1 << 30;
constexpr std::uint32_t kHead = sizeof(CacheRecord);
// Different ids that samples of a session may have before they are kept with the sample.
constexpr std::size_t kMostSourceIds = 256;
constexpr std::uint32_t kNoSourceId = UINT32_MAX;
// After a failure nothing is written for a second.
constexpr std::int64_t kRetryAfter = 1'000'000'000;

std::string reasonOf(int error) {
    return std::generic_category().message(error);
}

bool isFull(int error) {
    return error == ENOSPC || error == EDQUOT;
}

Reference<PacketBuffer> attributesOf(PacketBuffer& sample) {
    Reference<PacketBuffer> attributes = OwnedPacket::Make(0);
    attributes->CopyAttributes(&sample);
    return attributes;
}

}  // namespace

DiskCache::DiskCache(std::int64_t longest, const std::vector<Source>& sources, const std::string& path)
    : SampleCache(longest, sources), folder(path) {
    try {
        folder.Open();
        usable = true;
    } catch (const std::exception& exception) {
        LogLine(FileLog::Error, "MediaSession: no buffer on disk, %s", exception.what());
        report(std::string("Buffering error: ") + exception.what());
    }
}

DiskCache::~DiskCache() {
    clear();
    closeReader();
    writer.End();
    while (!files.empty()) {
        removeFile(files.begin());
    }
}

bool DiskCache::store(const Track& track, Held& held, PacketBuffer* sample) {
    if (!usable || Platform::System().coarseTime() < retryAt) {
        return false;
    }
    std::uint32_t sourceId = numberOf(sample->SourceId());
    Reference<PacketBuffer> attributes;
    if (HasMoreThanRecord(*sample) || sourceId == kNoSourceId) {
        attributes = attributesOf(*sample);
    }
    const bool ends = writer.Size() >= kFileSize && (leads(track, held) || writer.Size() >= kLargestFile);
    if (writer.IsOpen() && ends && !endFile()) {
        return false;
    }
    if (!writer.IsOpen() && !startFile()) {
        return false;
    }
    const auto dataSize = static_cast<std::uint32_t>(sample->ActualSize());
    const CacheRecord record = CacheRecord::Of(*sample, current, held.number, sourceId);
    if (!write([&] { return writer.MakeRoom(dataSize); })) {
        return false;
    }
    const std::uint32_t offset = writer.Size();
    if (!write([&] { return writer.Put(record, sample->GetPointer()); })) {
        return false;
    }
    held.packet = std::move(attributes);
    held.file = current;
    held.offset = offset;
    held.size = kHead + dataSize;
    ++files[current].held;
    return true;
}

Reference<PacketBuffer> DiskCache::load(const Held& held) {
    if (held.size == 0) {
        return held.packet;
    }
    if (files[held.file].lost) {
        return {};
    }
    const auto dataSize = static_cast<int>(held.size - kHead);
    auto packet = Reference<PacketBuffer>::Adopt(MediaGlobal::LockBuffer(dataSize));
    if (!packet) {
        if (!toldExhausted) {
            LogLine(FileLog::Warning, "MediaSession::writeBuffer: buffer exhaustion");
            toldExhausted = true;
        }
        packet = OwnedPacket::Make(dataSize);
    }
    CacheRecord record{};
    if (!read(held, record, packet->GetPointer())) {
        return {};
    }
    if (held.packet) {
        packet->CopyAttributes(held.packet.get());
    } else if (record.sourceId < sourceIds.size()) {
        packet->SourceId() = sourceIds[record.sourceId];
    }
    packet->ActualSize() = dataSize;
    record.ApplyTo(*packet.get());
    return packet;
}

void DiskCache::forget(const Held& held) {
    const auto file = held.size == 0 ? files.end() : files.find(held.file);
    if (file != files.end() && --file->second.held == 0 && !(writer.IsOpen() && held.file == current)) {
        removeFile(file);
    }
}

const char* DiskCache::nameOf(const Held& held) const {
    const auto file = held.size == 0 ? files.end() : files.find(held.file);
    return file == files.end() ? "memory" : file->second.name.c_str();
}

bool DiskCache::startFile() {
    const std::uint32_t number = current + 1;
    const int descriptor = createFile(number);
    const std::string path = folder.NameOf(number);
    if (descriptor < 0) {
        giveUp(path, errno);
        return false;
    }
    try {
        files[number].name = path;
        writer.Begin(descriptor);
    } catch (...) {
        Platform::System().close(descriptor);
        Platform::System().unlink(path.c_str());
        files.erase(number);
        throw;
    }
    current = number;
    return true;
}

int DiskCache::createFile(std::uint32_t number) {
    int descriptor = folder.Create(number);
    while (descriptor < 0 && isFull(errno) && dropOldestFile()) {
        descriptor = folder.Create(number);
    }
    if (descriptor < 0 && errno == ENOENT) {  // somebody has removed the folder, and all that was in it
        try {
            folder.Open();
            descriptor = folder.Create(number);
        } catch (const Common::GeneralException&) {
            errno = ENOENT;
        }
    }
    return descriptor;
}

bool DiskCache::endFile() {
    if (!write([this] { return writer.Flush(); })) {
        return false;
    }
    const auto file = files.find(current);
    file->second.size = writer.Size();
    LogLine(FileLog::Debug, "MediaSession::processSourceSample: Closing previous file, size %lld",
            static_cast<long long>(writer.Size()));
    writer.End();
    if (file->second.held == 0) {
        removeFile(file);
    }
    return true;
}

/// Tries until it works or there is nothing more to drop for it.
template <typename Write>
bool DiskCache::write(Write&& attempt) {
    for (int error = attempt(); error != 0; error = attempt()) {
        if (!isFull(error) || !dropOldestFile()) {
            giveUp(files[current].name, error);
            return false;
        }
    }
    return true;
}

bool DiskCache::dropOldestFile() {
    const auto oldest = files.begin();
    if (oldest == files.end() || (writer.IsOpen() && oldest->first == current)) {
        return false;
    }
    const std::uint32_t number = oldest->first;
    LogLine(FileLog::Warning, "MediaSession::processSourceSample: the disk is full, dropping %s",
            oldest->second.name.c_str());
    tell(toldFull, "Buffering error: the disk is full, less is buffered");
    for (Track& track : tracks) {
        while (!track.samples.empty() && track.samples.front().size != 0 &&
               track.samples.front().file == number) {
            dropGroup(track);
        }
    }
    alignOthers();
    if (const auto left = files.find(number); left != files.end()) {
        removeFile(left);
    }
    return true;
}

// What is held goes: its end is missing now.
void DiskCache::giveUp(const std::string& path, int error) {
    const std::string what = path + ": " + reasonOf(error);  // the path goes with its file
    LogLine(FileLog::Error, "MediaSession::processSourceSample: %s", what.c_str());
    tell(toldFailed, "Buffering error: " + what);
    clear();
    writer.End();
    while (!files.empty()) {
        removeFile(files.begin());
    }
    retryAt = Platform::System().coarseTime() + kRetryAfter;
}

void DiskCache::removeFile(std::map<std::uint32_t, File>::iterator file) {
    if (reader.IsOpen() && reading == file->first) {
        closeReader();
    }
    LogLine(FileLog::Debug, "MediaSession::writeBuffer: Deleting file %s", file->second.name.c_str());
    Platform::System().unlink(file->second.name.c_str());
    files.erase(file);
}

std::uint32_t DiskCache::numberOf(const std::string& sourceId) {
    const auto known = std::find(sourceIds.begin(), sourceIds.end(), sourceId);
    if (known != sourceIds.end()) {
        return static_cast<std::uint32_t>(known - sourceIds.begin());
    }
    if (sourceIds.size() == kMostSourceIds) {
        return kNoSourceId;
    }
    sourceIds.push_back(sourceId);
    return static_cast<std::uint32_t>(sourceIds.size() - 1);
}

bool DiskCache::read(const Held& held, CacheRecord& record, char* data) {
    const std::uint32_t dataSize = held.size - kHead;
    if (writer.IsOpen() && held.file == current && held.offset >= writer.Written()) {
        const char* const place = writer.Pending() + (held.offset - writer.Written());
        std::memcpy(&record, place, kHead);
        std::memcpy(data, place + kHead, dataSize);
        return true;
    }
    if (!openToRead(held.file, held.offset)) {
        lose(held, reasonOf(errno).c_str());
        return false;
    }
    if (reader.Position() != held.offset) {
        LogLine(FileLog::Debug, "MediaSession::writeBuffer: Seek to %lld, current position %lld",
                static_cast<long long>(held.offset), static_cast<long long>(reader.Position()));
    }
    if (!reader.Read(held.offset, dataSize, record, data)) {
        lose(held, errno == 0 ? "it is shorter than it was" : reasonOf(errno).c_str());
        return false;
    }
    if (record.IsValid() && record.file != held.file) {
        LogLine(FileLog::Error,
                "MediaSession::writeBuffer: Keyframe file name %s doesn't match sample file name %s",
                files[held.file].name.c_str(), folder.NameOf(record.file).c_str());
        lose(held, "it is another");
        return false;
    }
    if (!record.IsValid() || record.number != held.number || record.size != dataSize) {
        lose(held, "it is damaged");
        return false;
    }
    if (!record.HasData(data)) {  // what follows it may be whole
        tellLost(files[held.file], "a sample in it is damaged");
        return false;
    }
    return true;
}

bool DiskCache::openToRead(std::uint32_t number, std::uint32_t offset) {
    if (reader.IsOpen() && reading == number) {
        return true;
    }
    closeReader();
    const int descriptor = folder.OpenToRead(number);
    if (descriptor < 0) {
        return false;
    }
    reader.Begin(descriptor);
    reading = number;
    if (number == current) {
        LogLine(FileLog::Debug, "MediaSession::writeBuffer: Writing cached buffer from %lld to the end",
                static_cast<long long>(offset));
    } else {
        LogLine(FileLog::Debug, "MediaSession::writeBuffer: Writing cached buffer from %lld to %lld",
                static_cast<long long>(offset), static_cast<long long>(files[number].size));
    }
    return true;
}

void DiskCache::closeReader() {
    if (reader.IsOpen()) {
        LogLine(FileLog::Debug, "MediaSession::writeBuffer: Close current buffer file");
        reader.End();
    }
}

void DiskCache::lose(const Held& held, const char* reason) {
    File& file = files[held.file];
    file.lost = true;
    tellLost(file, reason);
    closeReader();
}

void DiskCache::tellLost(const File& file, const char* reason) {
    LogLine(FileLog::Error, "MediaSession::writeBuffer: %s: %s", file.name.c_str(), reason);
    tell(toldLost, "Buffering error: " + file.name + ": " + reason);
}

void DiskCache::tell(bool& told, const std::string& text) {
    if (!told) {
        told = true;
        report(text);
    }
}

}  // namespace Mivra::Media
