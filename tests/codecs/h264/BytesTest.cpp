// Start codes and emulation prevention: every path that this processor has, against loops that follow the
// standard byte by byte.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "mivra/codecs/h264/ByteKernels.h"
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

class BytesTest : public testing::Test {
protected:
    /// Holds each path to the references, with input and output at both ends of memory.
    void CheckEveryPath(const Bytes& in) {
        for (const ByteKernels* path : usableByteKernels()) {
            SCOPED_TRACE(std::string(path->name) + ", " + std::to_string(in.size()) + " bytes");
            checkPath(*path, in, false);
            checkPath(*path, in, true);
        }
    }

private:
    void checkPath(const ByteKernels& path, const Bytes& in, bool atEnd) {
        const std::size_t prefix = Mivra::Test::ReferencePrefix(in);
        const Bytes removed = Mivra::Test::ReferenceRemoved(in);
        const Bytes inserted = Mivra::Test::ReferenceInserted(in);
        const unsigned char* begin = input.Place(in, atEnd);
        const unsigned char* end = begin + in.size();
        ASSERT_EQ(path.findPrefix(begin, end), begin + prefix);
        unsigned char* out = output.Place(in.size(), atEnd);
        ASSERT_EQ(path.copyToPrefix(begin, end, out), begin + prefix);
        ASSERT_TRUE(std::equal(begin, begin + prefix, out));
        ASSERT_EQ(path.removePrevention(begin, end, out), removed.size());
        ASSERT_TRUE(std::equal(removed.begin(), removed.end(), out));
        ASSERT_EQ(path.preventedSize(begin, end), inserted.size());
        out = output.Place(inserted.size(), atEnd);
        ASSERT_EQ(path.insertPrevention(begin, end, out), inserted.size());
        ASSERT_TRUE(std::equal(inserted.begin(), inserted.end(), out));
    }

    GuardedMemory input;
    GuardedMemory output;
};

// From none to mostly zeros, every length around the widths of registers and strides, and in each two zeros
// with what may follow them.
TEST_F(BytesTest, AgreesWithTheStandardOnRandomBytes) {
    std::mt19937 random(264);
    for (std::size_t size = 0; size <= 420; ++size) {
        for (const unsigned zerosIn16 : {0U, 0U, 2U, 8U, 14U, 16U}) {
            Bytes in(size);
            for (unsigned char& byte : in) {
                const bool zero = random() % 16 < zerosIn16;
                byte = static_cast<unsigned char>(zero                ? 0
                                                  : random() % 8 == 0 ? random() | 1
                                                                      : 1 + random() % 5);
            }
            if (size >= 3) {
                const std::size_t at = random() % (size - 2);
                in[at] = in[at + 1] = 0;
                in[at + 2] = static_cast<unsigned char>(random() % 5);
            }
            CheckEveryPath(in);
        }
    }
}

}  // namespace
