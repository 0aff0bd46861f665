#include "mivra/ffmpeg/HardwareReplay.h"

#include <utility>

namespace Mivra::FFmpeg {
namespace {

constexpr std::size_t kMostPackets = 2000;
constexpr std::size_t kMostBytes = std::size_t{64} << 20;

}  // namespace

void HardwareReplay::dropBefore(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        bytes -= static_cast<std::size_t>(entries[i].packet->size);
    }
    entries.erase(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(count));
    firstNumber += static_cast<std::int64_t>(count);
    lastKey = lastKey > count ? lastKey - count : 0;
}

void HardwareReplay::Keep(PacketPointer packet, std::int64_t number, bool key) {
    if (packet == nullptr || (entries.empty() && !key)) {
        return;
    }
    if (entries.size() >= kMostPackets || bytes >= kMostBytes ||
        (!entries.empty() && number != firstNumber + static_cast<std::int64_t>(entries.size()))) {
        Clear();
        if (!key) {
            return;
        }
    }
    if (entries.empty()) {
        firstNumber = number;
    }
    const auto size = static_cast<std::size_t>(packet->size);
    entries.push_back({std::move(packet), false});
    bytes += size;
    if (key && entries.size() > 1) {
        dropBefore(lastKey);  // pictures behind a key packet may still be predicted from those before it
        lastKey = entries.size() - 1;
    }
}

void HardwareReplay::NoteDelivered(std::int64_t number) {
    const std::int64_t place = number - firstNumber;
    if (place >= 0 && place < static_cast<std::int64_t>(entries.size())) {
        entries[static_cast<std::size_t>(place)].delivered = true;
    }
}

bool HardwareReplay::IsDelivered(std::int64_t number) const {
    const std::int64_t place = number - firstNumber;
    return place < 0 || (place < static_cast<std::int64_t>(entries.size()) &&
                         entries[static_cast<std::size_t>(place)].delivered);
}

void HardwareReplay::Clear() {
    entries.clear();
    lastKey = 0;
    bytes = 0;
}

}  // namespace Mivra::FFmpeg
