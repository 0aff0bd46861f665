#pragma once

// How a sample lies in a cache file: this head, then its data. The file serves the process that wrote it and
// no other, so numbers have this machine's order. What has no place here (side data, points of interest, a
// new media type, addresses) stays in memory.

#include <cstdint>

#include "mivra/common/buffers/PacketBuffer.h"

namespace Mivra::Media {

struct CacheRecord {
    std::uint32_t magic;
    std::uint32_t file;
    std::uint64_t number;  // of the sample in the order of arrival
    std::uint32_t size;    // bytes of the data
    std::uint32_t flags;
    std::int64_t pts;
    std::int64_t dts;
    std::int64_t duration;
    std::int64_t filePosition;
    std::int64_t operationTime;
    std::int32_t streamIndex;
    std::int32_t programIndex;
    std::int32_t position;
    std::int32_t bitPosition;
    std::int32_t operation;
    std::uint32_t sourceId;  // the caller's number for it
    std::uint64_t userContext;
    std::uint64_t dataChecksum;  // of a part of each page of it, and of its end
    std::uint64_t checksum;      // of all before it

    /// The head for a sample.
    static CacheRecord Of(Common::PacketBuffer& sample, std::uint32_t file, std::uint64_t number,
                          std::uint32_t sourceId);
    /// Whether it is whole.
    bool IsValid() const;
    /// Whether these bytes, as many as it says, look like its data: no page of them is missing.
    bool HasData(const char* data) const;
    /// Gives a packet, which holds the data, the attributes.
    void ApplyTo(Common::PacketBuffer& sample) const;

private:
    std::uint64_t sum() const;
};

static_assert(sizeof(CacheRecord) == 112, "there are no gaps in it");

/// Whether a packet carries more than a record can.
bool HasMoreThanRecord(Common::PacketBuffer& sample);

}  // namespace Mivra::Media
