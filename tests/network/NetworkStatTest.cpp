#include "mivra/network/NetworkStat.h"

#include <gtest/gtest.h>

#include "mivra/platform/System.h"
#include "tests/support/FakeClock.h"

namespace Mivra::Test {
namespace {

using Network::NetworkStat;

TEST(NetworkStatTest, PrintsWhatItHas) {
    const FakeClock clock;
    const std::int64_t now = Platform::System().wallTime() / kSecond;
    NetworkStat stat;
    stat.LastActivity() = now - 7;
    stat.ReceiveQueueLength() = -1;
    EXPECT_EQ(stat.ToString(),
              "Started 1970-01-01 00:00:00 UTC, last active 7 s ago, speed 0.00x, recv 0, sent 0");
    stat.Started() = 1717160827;  // 2024-05-31
    stat.Ping() = 129999;
    stat.Speed() = 1.25;
    stat.TotalReceived() = 18446744073709551615U;
    stat.ReceiveQueueLength() = 0;
    stat.TotalSent() = 5;
    stat.AverageSendSpeed() = 2'560'000;
    stat.SendQueueSize() = 1316;
    stat.SendQueueLength() = 1;
    stat.StreamErrors() = 3;
    EXPECT_EQ(
        stat.ToString(),
        "Started 2024-05-31 13:07:07 UTC, last active 7 s ago, ping 12 ms, speed 1.25x, recv "
        "18446744073709551615, recv queue 0 packets, sent 5, avg send 2.6 Mbps, send queue 1316 bytes / 1 "
        "packets, 3 errors");
}

}  // namespace
}  // namespace Mivra::Test
