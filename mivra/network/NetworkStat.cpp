#include "mivra/network/NetworkStat.h"

#include <charconv>
#include <cstdio>
#include <ctime>

#include "mivra/platform/System.h"

namespace Mivra::Network {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t kPingUnitsPerMillisecond = 10'000;
constexpr double kBitsPerMegabit = 1'000'000;

std::string calendarTime(std::int64_t seconds) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (::gmtime_r(&time, &parts) == nullptr) parts = {};  // a year beyond an int
    char text[64];
    std::snprintf(text, sizeof text, "%04lld-%02d-%02d %02d:%02d:%02d UTC", parts.tm_year + 1900LL,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return text;
}

// With a point as its decimal sign, whatever the locale.
std::string fixed(double value, int decimals) {
    char text[400];
    const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals);
    return {text, end.ptr};
}

}  // namespace

std::string NetworkStat::ToString() const {
    const std::int64_t now = Platform::System().wallTime() / kNanosecondsPerSecond;
    std::string text = "Started " + calendarTime(started);
    text.append(", last active ").append(std::to_string(now - lastActivity)).append(" s ago");
    if (ping != 0) {
        text.append(", ping ").append(std::to_string(ping / kPingUnitsPerMillisecond)).append(" ms");
    }
    text.append(", speed ").append(fixed(speed, 2)).append("x, recv ").append(std::to_string(totalReceived));
    if (receiveQueueLength >= 0) {
        text.append(", recv queue ").append(std::to_string(receiveQueueLength)).append(" packets");
    }
    text.append(", sent ").append(std::to_string(totalSent));
    if (averageSendSpeed > 0) {
        text.append(", avg send ").append(fixed(averageSendSpeed / kBitsPerMegabit, 1));
        text.append(" Mbps, send queue ").append(std::to_string(sendQueueSize)).append(" bytes / ");
        text.append(std::to_string(sendQueueLength)).append(" packets");
    }
    if (streamErrors > 0) {
        text.append(", ").append(std::to_string(streamErrors)).append(" errors");
    }
    return text;
}

}  // namespace Mivra::Network
