#pragma once

#include "mivra/media/SampleCache.h"

namespace Mivra::Media {

/// The cache in memory: holds the packets themselves where their pools can spare them, else copies of exactly
/// their size (HoldPacket).
class MemoryCache : public SampleCache {
public:
    using SampleCache::SampleCache;

protected:
    bool store(const Track&, Held& held, Common::PacketBuffer* sample) override {
        hold(held, sample);
        return true;
    }
    Common::Reference<Common::PacketBuffer> load(const Held& held) override { return held.packet; }
};

}  // namespace Mivra::Media
