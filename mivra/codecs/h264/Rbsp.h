#pragma once

#include <cstddef>
#include <span>

#include "mivra/codecs/h264/EmulationPrevention.h"
#include "mivra/platform/System.h"

namespace Mivra::Codecs::H264 {

/// A unit without its emulation prevention (ITU-T H.264 7.3.1), in memory of its own. Parameter sets are
/// small: most need none from the heap.
class Rbsp {
public:
    explicit Rbsp(std::span<const unsigned char> unit) {
        unsigned char* out = local;
        if (unit.size() > sizeof local) {
            heap = static_cast<unsigned char*>(Platform::System().allocate(unit.size()));
            out = heap;
        }
        if (out != nullptr) {
            bytes = {out, removeEmulationPrevention(unit, out)};
        }
    }
    Rbsp(const Rbsp&) = delete;
    Rbsp& operator=(const Rbsp&) = delete;
    ~Rbsp() { Platform::System().free(heap); }

    /// The whole unit; empty when there was no memory for it.
    std::span<const unsigned char> Unit() const { return bytes; }
    /// Behind the header byte.
    std::span<const unsigned char> Payload() const { return bytes.subspan(bytes.empty() ? 0 : 1); }

private:
    unsigned char local[512];
    unsigned char* heap = nullptr;
    std::span<const unsigned char> bytes;
};

}  // namespace Mivra::Codecs::H264
