#include "mivra/common/model/Metadata.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/common/model/BinaryForms.h"
#include "tests/support/FaultInjection.h"

namespace Mivra::Test {
namespace {

using namespace Common;

constexpr int Deep = 1000000;
constexpr std::int64_t Allowance = 64 * 1024;

Metadata& nestedOf(MetadataObject& object) {
    return object;
}

std::string entryForm(const std::string& key, const std::string& text, bool nested = false) {
    return Int32(static_cast<std::int64_t>(key.size())) + key +
           Int32(static_cast<std::int64_t>(text.size())) + text + std::string(16, '\0') +
           (nested ? '\1' : '\0');
}

/// Maps nested in each other, each with one entry.
std::string deepForm(int depth) {
    const std::string level = Int32(1) + entryForm("", "", true);
    std::string form;
    form.reserve(level.size() * static_cast<std::size_t>(depth) + 4);
    for (int i = 0; i < depth; ++i) {
        form += level;
    }
    return form + Int32(0);
}

TEST(Metadata, SlotsLiveSideBySide) {
    Metadata map;
    map["k"] = 5;
    map["k"] = std::string("5");
    map["k"] = 2.5f;
    MetadataObject& object = map["k"];
    EXPECT_EQ(static_cast<int>(object), 5);
    EXPECT_EQ(static_cast<std::string&>(object), "5");
    EXPECT_EQ(static_cast<double>(object), 2.5);
    object = static_cast<short>(-2);
    EXPECT_EQ(static_cast<std::int64_t>(object), -2);
    object = (std::int64_t{1} << 40) + 0x18001;
    EXPECT_EQ(static_cast<short>(object), static_cast<short>(0x8001));
    EXPECT_EQ(static_cast<int>(object), 0x18001);
    static_cast<std::string&>(object) += "6";
    const std::string text = map["k"];
    EXPECT_EQ(text, "56");

    EXPECT_FALSE(map.ContainsKey("Profile"));
    EXPECT_EQ(static_cast<int>(map["Profile"]), 0);
    EXPECT_TRUE(map.ContainsKey("Profile"));
    map.RemoveKey("Profile");
    map.RemoveKey("never there");
    EXPECT_FALSE(map.ContainsKey("Profile"));
}

TEST(Metadata, ComparesAllSlots) {
    using Change = void (*)(Metadata&);
    const Change changes[] = {
        [](Metadata& m) { m["k"] = 6; },
        [](Metadata& m) { m["k"] = std::string("x"); },
        [](Metadata& m) { m["k"] = 0.5; },
        [](Metadata& m) { m["k"] = Metadata(); },  // an empty nested map differs from none
        [](Metadata& m) { m["other"]; },
        [](Metadata& m) { m.RemoveKey("k"), m["l"] = 5; },
        [](Metadata& m) { nestedOf(m["n"])["deep"] = 1; },
    };
    Metadata original;
    original["k"] = 5;
    nestedOf(original["n"])["deep"] = 0;
    EXPECT_TRUE(original == Metadata(original));
    for (const Change& change : changes) {
        Metadata changed(original);
        change(changed);
        EXPECT_TRUE(original != changed && changed != original) << &change - changes;
    }
    original["k"] = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(original != Metadata(original)) << "a NaN equals nothing";
}

TEST(Metadata, CopiesAreDeepAlsoOfAPartOfThemselves) {
    Metadata map;
    nestedOf(map["a"])["b"] = 1;
    Metadata copy(map);
    nestedOf(copy["a"])["b"] = 2;
    EXPECT_EQ(static_cast<int>(nestedOf(map["a"])["b"]), 1);
    map["a"] = nestedOf(map["a"]);
    EXPECT_EQ(static_cast<int>(nestedOf(map["a"])["b"]), 1);
    map["a"] = nestedOf(map["a"])["b"];
    EXPECT_EQ(static_cast<int>(map["a"]), 1);
    copy = nestedOf(copy["a"]);
    EXPECT_EQ(static_cast<int>(copy["b"]), 2);
    Metadata& alias = copy;
    copy = alias;
    EXPECT_TRUE(copy.ContainsKey("b"));
}

TEST(Metadata, WritesTheKnownBytes) {
    Metadata map;
    EXPECT_EQ(Written(map), Int32(0));
    map["key"] = std::string("v");
    map["key"] = 2;
    map["key"] = 1.0;
    map["key"] = Metadata();
    const std::string expected("\0\0\0\1\0\0\0\3key\0\0\0\1v\0\0\0\0\0\0\0\2\x3F\xF0\0\0\0\0\0\0\1\0\0\0\0",
                               37);
    EXPECT_EQ(Written(map), expected);
    EXPECT_EQ(Written(map["key"]), expected.substr(11));
    EXPECT_TRUE(ReadAs<Metadata>(expected, [&](Metadata& read) { EXPECT_TRUE(read == map); }));
    EXPECT_EQ(Written(map, Endianness::Little).substr(0, 8), std::string("\1\0\0\0\3\0\0\0", 8));
}

TEST(Metadata, TheLastOfEqualKeysWinsAndANegativeCountIsEmpty) {
    const std::string form =
        Int32(2) + entryForm("k", "first", true) + Int32(1) + entryForm("x", "") + entryForm("k", "last");
    Metadata expected;
    expected["k"] = std::string("last");
    EXPECT_TRUE(ReadAs<Metadata>(form, [&](Metadata& read) { EXPECT_TRUE(read == expected); }));
    EXPECT_TRUE(ReadAs<Metadata>(Int32(-7), [](Metadata& read) { EXPECT_TRUE(read == Metadata()); }));
}

// No length, count or depth makes a form that fails take memory beyond its own size.
TEST(Metadata, HostileFormsTakeNoMemory) {
    const std::string wide = [] {
        std::string form = Int32(1000000);
        for (int i = 0; i < 20000; ++i) {
            form += entryForm("key" + std::to_string(i), "text", i % 2 == 0) + (i % 2 == 0 ? Int32(0) : "");
        }
        return form;
    }();
    const std::string deep = deepForm(100000);
    const std::string forms[] = {
        "",
        Int32(INT32_MAX),
        Int32(INT32_MAX) + std::string(1000, '\0'),
        Int32(1) + Int32(INT32_MAX) + std::string(100, 'k'),
        Int32(1) + Int32(-1) + std::string(100, 'k'),
        Int32(1) + Int32(1) + "k" + Int32(0x7FFFFFF0) + std::string(100, 'v'),
        Int32(1) + Int32(1) + "k" + Int32(INT32_MIN) + std::string(100, 'v'),
        Int32(1) + entryForm("k", "v", true) + Int32(INT32_MAX),
        wide,
        deep.substr(0, deep.size() - 1),
    };
    for (const std::string& form : forms) {
        std::vector<char> bytes(form.begin(), form.end());
        WithPacket(bytes, [](PacketBuffer* packet) {
            EndianBinaryReader reader(packet);
            const AllocationMeter meter;
            EXPECT_THROW(Metadata{&reader}, GeneralException);
            EXPECT_LE(meter.Peak(), packet->Size() + Allowance);
        });
    }
}

TEST(Metadata, DepthCostsNoStack) {
    const std::string form = deepForm(Deep);
    EXPECT_TRUE(ReadAs<Metadata>(form, [&](Metadata& read) {
        const Metadata copy(read);
        EXPECT_TRUE(copy == read);
        Metadata assigned;
        assigned = copy;
        EXPECT_EQ(Written(assigned, Endianness::Big, form.size()), form);
        assigned.RemoveKey("");
    }));
}

TEST(Metadata, LosesNothingWhenMemoryEnds) {
    Metadata map;
    map["a"] = std::string(100, 'b');
    nestedOf(nestedOf(map["n"])["m"])[std::string(100, 'k')] = 1;
    const std::string form = Written(map);
    ForEachNthFailure(FaultKind::Allocate, [&] {
        try {
            Metadata copy(map);
            copy["n"] = map;
            ReadAs<Metadata>(form, [](Metadata&) {});
        } catch (const std::bad_alloc&) {
        }
    });
}

}  // namespace
}  // namespace Mivra::Test
