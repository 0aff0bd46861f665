#include <gtest/gtest.h>

#include <set>

#include "mivra/common/identity/DateTime.h"
#include "mivra/common/identity/Guid.h"
#include "mivra/common/identity/Random.h"
#include "tests/support/FakeClock.h"

namespace Mivra::Test {
namespace {

using Common::DateTime;
using Common::Guid;
using Common::Random;

TEST(GuidTest, ReadsAndWritesItsTextForm) {
    const struct {
        const char* text;
        const char* expected;
    } table[] = {
        {"00112233-4455-6677-8899-aabbccddeeff", "00112233-4455-6677-8899-aabbccddeeff"},
        {"00112233-4455-6677-8899-AABBCCDDEEFF", "00112233-4455-6677-8899-aabbccddeeff"},
        {"", "00000000-0000-0000-0000-000000000000"},
        {"00112233-4455-6677-8899-aabbccddeef", "00000000-0000-0000-0000-000000000000"},    // one short
        {"00112233-4455-6677-8899-aabbccddeeff0", "00000000-0000-0000-0000-000000000000"},  // one long
        {"00112233-4455-6677-8899-aabbccddeefg", "00000000-0000-0000-0000-000000000000"},   // no digit
        {"{0112233-4455-6677-8899-aabbccddeef}", "00000000-0000-0000-0000-000000000000"},
    };
    for (const auto& row : table)
        EXPECT_EQ(Guid(row.text).ToString(), row.expected) << row.text;
    EXPECT_TRUE(Guid().IsEmpty());
    EXPECT_FALSE(Guid(table[0].text).IsEmpty());
}

TEST(GuidTest, OrdersByItsBytesAndIsNeverTheSameTwice) {
    EXPECT_LT(Guid(), Guid("00000000-0000-0000-0000-000000000001"));
    EXPECT_LT(Guid("7f000000-0000-0000-0000-000000000001"), Guid("80000000-0000-0000-0000-000000000000"));
    std::set<Guid> ids;
    for (int i = 0; i < 1000; ++i)
        ids.insert(Guid::NewGuid());
    EXPECT_EQ(ids.size(), 1000u);
    EXPECT_NE(ids.begin()->ToString(), ids.rbegin()->ToString());
    EXPECT_EQ(Guid(ids.begin()->ToString()), *ids.begin());
}

TEST(DateTimeTest, IsTheWallClockInUtc) {
    FakeClock clock;
    const DateTime before = DateTime::Now();
    clock.AdvanceWall(kSecond);
    EXPECT_EQ(DateTime::Now().Ticks() - before.Ticks(), 10'000'000);
    EXPECT_LT(before, DateTime::Now());
    EXPECT_EQ(DateTime().ToString(), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(DateTime(17'171'608'290'429'999).ToString(), "2024-05-31T13:07:09.042Z");
    EXPECT_EQ(DateTime(-1).ToString(), "1969-12-31T23:59:59.999Z");
}

TEST(RandomTest, StaysBelowItsLimitAndReachesEveryValue) {
    std::set<std::uint64_t> values;
    for (int i = 0; i < 1000; ++i)
        values.insert(Random::Next(6));
    EXPECT_EQ(values, (std::set<std::uint64_t>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(Random::Next(0), 0u);
    EXPECT_EQ(Random::Next(1), 0u);
    EXPECT_NE(Random::Next(), Random::Next());
}

}  // namespace
}  // namespace Mivra::Test
