#include "mivra/common/model/Rational.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>

#include "mivra/common/model/MediaTime.h"
#include "mivra/common/model/MediaType.h"
#include "tests/support/FakeClock.h"

namespace Mivra::Test {
namespace {

using namespace Common;

std::pair<int, int> parts(const Rational& value) {
    return {value.Num(), value.Den()};
}
std::pair<int, int> pair(int num, int den) {
    return {num, den};
}

TEST(Rational, ReducesPositiveFractionsOnly) {
    constexpr std::int64_t Big = std::int64_t{1} << 40;
    EXPECT_EQ(parts(Rational()), pair(0, 0));
    EXPECT_EQ(parts(Rational(7)), pair(7, 1));
    EXPECT_EQ(parts(Rational(2, 4)), pair(1, 2));
    EXPECT_EQ(parts(Rational(-2, 4)), pair(-2, 4));
    EXPECT_EQ(parts(Rational(2, -4)), pair(2, -4));
    EXPECT_EQ(parts(Rational(0, 4)), pair(0, 4));
    EXPECT_EQ(parts(Rational(INT32_MIN, INT32_MIN)), pair(INT32_MIN, INT32_MIN));
    EXPECT_EQ(parts(Rational(Big * 3, Big * 6)), pair(1, 2));
    EXPECT_EQ(parts(Rational(Big, std::int64_t{1})), pair(0, 0)) << "does not fit";
    EXPECT_EQ(parts(Rational(-Big, Big)), pair(0, 0)) << "not reduced, so it does not fit";
    Rational value;
    value = 5;
    EXPECT_EQ(parts(value), pair(5, 1));
    value = 12.5;
    EXPECT_EQ(parts(value), pair(25, 2));
}

TEST(Rational, MakesSensibleFractionsOfDoubles) {
    const double cases[][3] = {{0.0, 0, 0},
                               {-3.0, 0, 0},
                               {0.9e-8, 0, 0},
                               {25.0, 25, 1},
                               {24.995, 25, 1},
                               {29.97, 30000, 1001},
                               {23.976, 24000, 1001},
                               {12.5, 25, 2},
                               {1001.5, 2003, 2},
                               {0.5, 1, 2},
                               {33.3667, 33400, 1001},
                               {3.14159265, 31415927, 10000000},
                               {2147483647.0, INT32_MAX, 1},
                               {2147483648.0, 0, 0},
                               {2147480.5, 4294961, 2},
                               {1e300, 0, 0},
                               {std::numeric_limits<double>::infinity(), 0, 0},
                               {std::numeric_limits<double>::quiet_NaN(), 0, 0}};
    for (const auto& [value, num, den] : cases) {
        EXPECT_EQ(parts(Rational(value)), pair(static_cast<int>(num), static_cast<int>(den))) << value;
    }
    // The form over 1001 is never reduced.
    EXPECT_EQ(parts(Rational(77.0 / 1001)), pair(77, 1001));
}

TEST(Rational, ComparesByMembersOrByValue) {
    Rational unreduced(1, 2);
    unreduced.Num() = 2;
    unreduced.Den() = 4;
    EXPECT_TRUE(Rational(2, 4) == Rational(1, 2));
    EXPECT_TRUE(unreduced != Rational(1, 2));
    EXPECT_TRUE(unreduced.EqualTo(Rational(1, 2), 0.0));
    EXPECT_TRUE(Rational(1, 4).EqualTo(Rational(1, 2), 0.25));
    EXPECT_FALSE(Rational(1, 4).EqualTo(Rational(1, 2), 0.249));
    EXPECT_TRUE(Rational(1, 3) < Rational(1, 2) && Rational(1, 2) > Rational(1, 3));
    EXPECT_EQ(Rational(5, 0).ToDouble(), 0.0);
    EXPECT_TRUE(Rational(5, 0).IsNull() && Rational(0, 5).IsNull() && !Rational(5).IsNull());
}

TEST(Rational, CalculatesWithoutOverflow) {
    EXPECT_EQ(parts(Rational(2, 3) * Rational(3, 4)), pair(1, 2));
    EXPECT_EQ(parts(Rational(1, 1000) / Rational(1, 90000)), pair(90, 1));
    EXPECT_EQ(parts(!Rational(2, 3)), pair(3, 2));
    EXPECT_EQ(parts(!Rational(-2, 4)), pair(4, -2));
    EXPECT_EQ(parts(Rational(-1, 2) * Rational(2, 3)), pair(-2, 6));
    EXPECT_EQ(parts(Rational(INT32_MAX, 1) * Rational(INT32_MAX, 1)), pair(0, 0));
    EXPECT_EQ(parts(Rational(INT32_MIN, 1) * Rational(INT32_MIN, 1)), pair(0, 0));
}

TEST(MediaTime, ConvertsBetweenTimeBases) {
    struct Case {
        std::int64_t value;
        Rational from;
        Rational to;
        std::int64_t expected;
    };
    const Case cases[] = {
        {1000, {1, 1000}, {1, 90000}, 90000},
        {1001, {1, 90000}, {1, 1000}, 11},
        {-1001, {1, 90000}, {1, 1000}, -11},
        {77, {0, 0}, {0, 0}, 77},
        {77, {1, 1000}, {0, 0}, 77},
        {77, {1, 0}, {1, 1000}, 77},
        {77, {0, 1}, {1, 1000}, 0},
        {INT64_MAX, {1, 1000}, {1, 1000}, INT64_MAX},
        {INT64_MIN, {1, 1}, {-1, 1}, INT64_MIN},     // the quotient wraps
        {std::int64_t{1} << 62, {4, 1}, {1, 1}, 0},  // the product wraps
        {90000, {1001, 30000}, {1, 10000000}, 30030000000},
        {11988, {1001, 11988}, {1, 10000000}, 10010000000},  // 2502500000/2997 fits no Rational
    };
    for (const Case& c : cases) {
        EXPECT_EQ(MediaTime::Convert(c.value, c.from, c.to), c.expected) << c.value;
    }
}

TEST(MediaTime, CountsFromTheStartOfTheLibrary) {
    FakeClock clock;
    const std::int64_t before = MediaTime::Get(1000000);
    const std::int64_t startTicks = MediaTime::GetStartTime().Ticks();
    clock.Advance(1234567 * std::int64_t{1000} + 999);
    const std::int64_t now = MediaTime::Get(1000000);
    EXPECT_NEAR(static_cast<double>(now - before), 1234567.0, 1.0);
    EXPECT_EQ(MediaTime::Get(10000000), now * 10);
    EXPECT_EQ(MediaTime::Get(90000), now * 9 / 100);
    EXPECT_EQ(MediaTime::Get(1), now / 1000000);
    EXPECT_EQ(MediaTime::Get(0), 0);
    EXPECT_EQ(MediaTime::Get(-5), 0);
    EXPECT_EQ(MediaTime::GetStartTime().Ticks(), startTicks);
    EXPECT_LE(startTicks, DateTime::Now().Ticks());
    EXPECT_GT(startTicks, 0);
}

TEST(MediaType, FindsWellKnownFrameRates) {
    const int cases[][4] = {{2997, 100, 30000, 1001},
                            {11988, 100, 120000, 1001},
                            {23976, 1000, 24000, 1001},
                            {1504, 100, 15, 1},
                            {1, 2, 0, 0},
                            {200, 1, 0, 0},
                            {2401, 100, 24, 1},
                            {2511, 100, 0, 0},
                            {0, 0, 0, 0},
                            {50, 1, 50, 1},
                            {12004, 100, 120, 1},
                            {1, 1, 1, 1}};
    for (const auto& [num, den, wellKnownNum, wellKnownDen] : cases) {
        EXPECT_EQ(parts(MediaType::GetWellKnownFramerate(Rational(num, den))),
                  pair(wellKnownNum, wellKnownDen))
            << num << '/' << den;
    }
}

}  // namespace
}  // namespace Mivra::Test
