// Start codes and emulation prevention: every path that this processor has, against loops that follow the
// standard byte by byte.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "mivra/codecs/h264/AnnexB.h"
#include "mivra/codecs/h264/ByteKernels.h"
#include "mivra/codecs/h264/EmulationPrevention.h"
#include "tests/support/NalReference.h"

namespace {

using namespace Mivra::Codecs::H264;
using Bytes = Mivra::Test::NalBytes;

/// Memory between two pages that nobody may touch; what is placed ends at the second, or begins behind the
/// first.
class GuardedMemory {
public:
    static constexpr std::size_t Page = 4096;

    GuardedMemory()
        : pages(static_cast<unsigned char*>(
              mmap(nullptr, 4 * Page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
        mprotect(pages + Page, 2 * Page, PROT_READ | PROT_WRITE);
    }
    ~GuardedMemory() { munmap(pages, 4 * Page); }
    GuardedMemory(const GuardedMemory&) = delete;
    GuardedMemory& operator=(const GuardedMemory&) = delete;

    unsigned char* Place(std::size_t size, bool atEnd) {
        return atEnd ? pages + 3 * Page - size : pages + Page;
    }
    unsigned char* Place(const Bytes& bytes, bool atEnd) {
        return std::copy(bytes.begin(), bytes.end(), Place(bytes.size(), atEnd)) - bytes.size();
    }

private:
    unsigned char* pages;
};

/// Holds one path to the references, with input and output at both ends of memory.
class PathCheck {
public:
    void operator()(const ByteKernels& path, const Bytes& in) {
        SCOPED_TRACE(std::string(path.name) + ", " + std::to_string(in.size()) + " bytes");
        const Bytes removed = Mivra::Test::ReferenceRemoved(in);
        const Bytes inserted = Mivra::Test::ReferenceInserted(in);
        for (const bool atEnd : {false, true}) {
            const unsigned char* begin = input.Place(in, atEnd);
            const unsigned char* end = begin + in.size();
            ASSERT_EQ(static_cast<std::size_t>(path.findPrefix(begin, end) - begin),
                      Mivra::Test::ReferencePrefix(in));
            unsigned char* out = output.Place(in.size(), atEnd);
            ASSERT_EQ(static_cast<std::size_t>(path.copyToPrefix(begin, end, out) - begin),
                      Mivra::Test::ReferencePrefix(in));
            ASSERT_TRUE(std::equal(begin, begin + Mivra::Test::ReferencePrefix(in), out));
            ASSERT_EQ(path.removePrevention(begin, end, out), removed.size());
            ASSERT_TRUE(std::equal(removed.begin(), removed.end(), out));
            ASSERT_EQ(path.preventedSize(begin, end), inserted.size());
            out = output.Place(inserted.size(), atEnd);
            ASSERT_EQ(path.insertPrevention(begin, end, out), inserted.size());
            ASSERT_TRUE(std::equal(inserted.begin(), inserted.end(), out));
        }
    }

private:
    GuardedMemory input;
    GuardedMemory output;
};

class BytesTest : public testing::Test {
protected:
    void CheckEveryPath(const Bytes& in) {
        for (const ByteKernels* path : usableByteKernels()) {
            check(*path, in);
        }
    }
    PathCheck check;
};

// Every place of every third byte relative to the registers, up to behind the longest stride.
TEST_F(BytesTest, FindsThirdBytesAtEveryPlace) {
    for (const std::size_t size : {3U, 7U, 20U, 67U, 130U, 300U}) {
        for (std::size_t at = 0; at + 3 <= size; ++at) {
            for (const unsigned char third : {0, 1, 3, 4}) {
                Bytes in(size, 0xFF);
                in[at] = in[at + 1] = 0;
                in[at + 2] = third;
                CheckEveryPath(in);
            }
        }
    }
}

// From mostly zeros to mostly other bytes, every length around the widths of registers and strides.
TEST_F(BytesTest, AgreesWithTheStandardOnRandomBytes) {
    std::mt19937 random(264);
    for (std::size_t size = 0; size <= 420; ++size) {
        for (const unsigned zerosIn16 : {0U, 2U, 8U, 14U, 16U}) {
            Bytes in(size);
            for (unsigned char& byte : in) {
                const bool zero = random() % 16 < zerosIn16;
                byte = static_cast<unsigned char>(zero ? 0 : random() % 8 == 0 ? random() : random() % 5);
            }
            CheckEveryPath(in);
        }
    }
}

TEST_F(BytesTest, AgreesWithTheStandardOnRepeatedPatterns) {
    const Bytes patterns[] = {{0, 0, 3}, {0, 0, 1}, {0, 0, 3, 3},   {0, 0, 0, 3},
                              {0, 1},    {0, 0, 4}, {3, 0, 0, 0, 1}};
    for (const Bytes& pattern : patterns) {
        for (std::size_t phase = 0; phase < pattern.size(); ++phase) {
            Bytes in;
            for (std::size_t i = 0; i < 333; ++i) {
                in.push_back(pattern[(phase + i) % pattern.size()]);
            }
            CheckEveryPath(in);
        }
    }
}

TEST(AnnexB, FindsStartCodes) {
    const struct {
        Bytes data;
        std::size_t offset;
        std::size_t length;  // 0: none
    } cases[] = {
        {{}, 0, 0},
        {{0, 0}, 0, 0},
        {{0, 0, 1}, 0, 3},
        {{0, 0, 0, 1}, 0, 4},
        {{0, 0, 0, 0, 0, 1, 9}, 2, 4},  // leading_zero_8bits
        {{9, 0, 0, 1, 0, 0, 0, 1}, 1, 3},
        {{0, 0, 3, 0, 0, 2, 0, 1}, 0, 0},
    };
    for (const auto& one : cases) {
        const auto found = findStartCode(one.data);
        ASSERT_EQ(found.has_value(), one.length != 0);
        EXPECT_EQ(found.value_or(StartCode{}).offset, one.offset);
        EXPECT_EQ(found.value_or(StartCode{}).length, one.length);
    }
}

TEST(AnnexB, TakesUnitsOff) {
    const struct {
        Bytes stream;
        std::vector<Bytes> units;
    } cases[] = {
        {{}, {}},
        {{0x67, 0x42}, {}},                                                 // no start code
        {{0, 0, 1}, {}},                                                    // nothing behind it
        {{0, 0, 0, 1, 0x67, 0, 0, 1, 0x68}, {{0x67}, {0x68}}},              // both lengths
        {{7, 7, 0, 0, 1, 0x67}, {{0x67}}},                                  // bytes in front
        {{0, 0, 1, 0, 0, 1, 0, 0, 0, 1, 0x67}, {{0x67}}},                   // empty units
        {{0, 0, 1, 0x67, 0, 0, 0, 0, 0, 1, 0x68, 0, 0}, {{0x67}, {0x68}}},  // trailing_zero_8bits
        {{0, 0, 1, 0x67, 0, 0, 3, 0, 0, 1}, {{0x67, 0, 0, 3}}},  // a prevention byte at the end stays
        {{0, 0, 1, 0, 0, 5, 0, 0, 2}, {{0, 0, 5, 0, 0, 2}}},
    };
    for (const auto& one : cases) {
        std::vector<Bytes> found;
        AnnexBUnits units(one.stream);
        while (const auto unit = units.Next()) {
            found.emplace_back(unit->begin(), unit->end());
        }
        EXPECT_EQ(found, one.units);
    }
}

TEST(EmulationPrevention, FollowsTheStandard) {
    const struct {
        Bytes payload;
        Bytes unit;
        Bytes back;  // where it is not the payload
    } cases[] = {
        {{}, {}, {}},
        {{0x65, 0, 0, 4}, {0x65, 0, 0, 4}, {}},
        {{0, 0, 0, 0, 0, 1}, {0, 0, 3, 0, 0, 3, 0, 1}, {}},
        {{0, 0, 1, 0, 0, 2, 0, 0, 3}, {0, 0, 3, 1, 0, 0, 3, 2, 0, 0, 3, 3}, {}},
        {{0x80, 0, 0, 0, 0}, {0x80, 0, 0, 3, 0, 0, 3}, {}},  // cabac_zero_words
        // A unit never ends in zero. No payload of the standard ends in one zero alone, so the removal, which
        // goes by the standard too, does not take these back.
        {{0x80, 0}, {0x80, 0, 3}, {0x80, 0, 3}},
        {{0, 0, 0}, {0, 0, 3, 0, 3}, {0, 0, 0, 3}},
    };
    for (const auto& one : cases) {
        Bytes unit(emulationPreventedSize(one.payload));
        EXPECT_EQ(applyEmulationPrevention(one.payload, unit.data()), unit.size());
        EXPECT_EQ(unit, one.unit);
        Bytes back(unit.size());
        back.resize(removeEmulationPrevention(unit, back.data()));
        EXPECT_EQ(back, one.back.empty() ? one.payload : one.back);
    }
}

}  // namespace
