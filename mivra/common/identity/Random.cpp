#include "mivra/common/identity/Random.h"

#include <openssl/rand.h>

#include <algorithm>
#include <limits>

#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Common {

void Random::Fill(void* data, std::size_t size) {
    constexpr std::size_t kMost = std::numeric_limits<int>::max();
    auto* out = static_cast<unsigned char*>(data);
    while (size > 0) {
        const std::size_t part = std::min(size, kMost);
        if (::RAND_bytes(out, static_cast<int>(part)) != 1) {
            throw GeneralException("Random::Fill: no random bytes to be had");
        }
        out += part;
        size -= part;
    }
}

std::uint64_t Random::Next() {
    std::uint64_t value;
    Fill(&value, sizeof value);
    return value;
}

std::uint64_t Random::Next(std::uint64_t limit) {
    if (limit == 0) return 0;
    // The values below 2^64 mod limit would make the small results likelier.
    const std::uint64_t excess = (0 - limit) % limit;
    std::uint64_t value;
    do {
        value = Next();
    } while (value < excess);
    return value % limit;
}

}  // namespace Mivra::Common
