#include "mivra/media/CacheRecord.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace Mivra::Media {
namespace {

constexpr std::uint32_t kMagic = 0x31'43'56'4D;

enum Flag : std::uint32_t {
    KeyFrame = 1,
    CleanPoint = 2,
    Discontinuity = 4,
    OneMessage = 8,
    OperationFinished = 16,
};

std::uint32_t flagIf(bool set, Flag flag) {
    return set ? flag : 0U;
}

bool isUnused(const sockaddr_in& address) {
    constexpr sockaddr_in kNone{};
    return std::memcmp(&address, &kNone, sizeof kNone) == 0;
}

// What goes missing of a file goes by pages: of each a line of the processor's cache is looked at, and the
// end.
constexpr std::size_t kPage = 4096;
constexpr std::size_t kLine = 64;

std::uint64_t addLine(std::uint64_t value, const char* data, std::size_t size) {
    std::uint64_t words[kLine / sizeof(std::uint64_t)] = {};
    std::memcpy(words, data, size);
    for (const std::uint64_t word : words) {
        value = (value ^ word) * 0x9E37'79B9'7F4A'7C15U;
    }
    return value ^ value >> 32;
}

std::uint64_t sumOf(const char* data, std::size_t size) {
    std::uint64_t value = size;
    if (size == 0) {
        return value;
    }
    for (std::size_t offset = 0; offset < size; offset += kPage) {
        value = addLine(value, data + offset, std::min(kLine, size - offset));
    }
    const std::size_t last = std::min(kLine, size);
    return addLine(value, data + size - last, last);
}

}  // namespace

CacheRecord CacheRecord::Of(Common::PacketBuffer& sample, std::uint32_t file, std::uint64_t number,
                            std::uint32_t sourceId) {
    CacheRecord record{};
    record.magic = kMagic;
    record.file = file;
    record.number = number;
    record.size = static_cast<std::uint32_t>(sample.ActualSize());
    record.flags = flagIf(sample.KeyFrame(), KeyFrame) | flagIf(sample.CleanPoint(), CleanPoint) |
                   flagIf(sample.Discontinuity(), Discontinuity) | flagIf(sample.OneMessage(), OneMessage) |
                   flagIf(sample.OperationFinished(), OperationFinished);
    record.pts = sample.Pts();
    record.dts = sample.Dts();
    record.duration = sample.Duration();
    record.filePosition = sample.FilePosition();
    record.operationTime = sample.OperationTime();
    record.streamIndex = sample.StreamIndex();
    record.programIndex = sample.ProgramIndex();
    record.position = sample.Position();
    record.bitPosition = sample.BitPosition();
    record.operation = sample.Operation();
    record.sourceId = sourceId;
    record.userContext = reinterpret_cast<std::uintptr_t>(sample.UserContext());
    record.dataChecksum = sumOf(sample.GetPointer(), record.size);
    record.checksum = record.sum();
    return record;
}

bool CacheRecord::IsValid() const {
    return magic == kMagic && checksum == sum();
}

bool CacheRecord::HasData(const char* data) const {
    return dataChecksum == sumOf(data, size);
}

void CacheRecord::ApplyTo(Common::PacketBuffer& sample) const {
    sample.KeyFrame() = (flags & KeyFrame) != 0;
    sample.CleanPoint() = (flags & CleanPoint) != 0;
    sample.Discontinuity() = (flags & Discontinuity) != 0;
    sample.OneMessage() = (flags & OneMessage) != 0;
    sample.OperationFinished() = (flags & OperationFinished) != 0;
    sample.Pts() = pts;
    sample.Dts() = dts;
    sample.Duration() = duration;
    sample.FilePosition() = filePosition;
    sample.OperationTime() = operationTime;
    sample.StreamIndex() = streamIndex;
    sample.ProgramIndex() = programIndex;
    sample.Position() = position;
    sample.BitPosition() = bitPosition;
    sample.Operation() = operation;
    sample.UserContext() = reinterpret_cast<void*>(static_cast<std::uintptr_t>(userContext));
}

// Each word changes all that follow; a word that is wrong alone always shows.
std::uint64_t CacheRecord::sum() const {
    std::uint64_t words[offsetof(CacheRecord, checksum) / sizeof(std::uint64_t)];
    std::memcpy(words, this, sizeof words);
    std::uint64_t value = 0;
    for (const std::uint64_t word : words) {
        value = (value ^ word) * 0x9E37'79B9'7F4A'7C15U;
        value ^= value >> 32;
    }
    return value;
}

bool HasMoreThanRecord(Common::PacketBuffer& sample) {
    return !sample.ExtraData().empty() || !sample.POIs().empty() || sample.NewMediaType() != nullptr ||
           sample.RemoteAddrLen() != static_cast<int>(sizeof(sockaddr_in)) ||
           !isUnused(sample.RemoteAddr()) || !isUnused(sample.LocalAddr());
}

}  // namespace Mivra::Media
