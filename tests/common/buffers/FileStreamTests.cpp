#include "mivra/common/buffers/FileStream.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "mivra/common/runtime/GeneralException.h"
#include "mivra/platform/System.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace Mivra::Common {
namespace {

namespace support = Mivra::Test;

class FileStreamTest : public ::testing::Test {
protected:
    std::string failure(const std::string& name, const char* mode) const {
        try {
            FileStream stream(folder / name, mode);
        } catch (const GeneralException& exception) {
            return exception.what();
        }
        return "";
    }
    std::string text(const std::string& what) const { return "FileStream::" + what; }

    /// Bytes that show where they belong.
    static std::string pattern(std::size_t size) {
        std::string bytes(size, '\0');
        for (std::size_t i = 0; i < size; ++i)
            bytes[i] = static_cast<char>(i * 7 + i / 251);
        return bytes;
    }
    static void write(FileStream& stream, const std::string& bytes) {
        stream.Write(reinterpret_cast<const unsigned char*>(bytes.data()), 0, static_cast<int>(bytes.size()));
    }
    static std::string read(FileStream& stream, std::size_t size) {
        std::string bytes(size, '?');
        bytes.resize(static_cast<std::size_t>(
            stream.Read(reinterpret_cast<unsigned char*>(bytes.data()), 0, static_cast<int>(size))));
        return bytes;
    }

    support::LogCapture log;
    support::TempFolder folder;
};

TEST_F(FileStreamTest, SaysWhyAFileCannotBeOpened) {
    support::WriteWholeFile(folder / "file", "abc");
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(failure("none", "rb"), "FileStream::open: " + folder / "none" + ": No such file or directory");
    EXPECT_EQ(failure("none", "r+b"), "FileStream::open: " + folder / "none" + ": No such file or directory");
    EXPECT_EQ(failure("", "rb"), "FileStream::open: " + folder / "" + ": Is a directory");
    EXPECT_EQ(failure("fifo", "r+b"), "FileStream::open: " + folder / "fifo" + ": Illegal seek");
    for (const char* mode : {"ab", "x", ""}) {
        EXPECT_NE(failure("file", mode).find("is none of rb, r+b, w+b"), std::string::npos);
    }
    EXPECT_NE(failure("file", nullptr), "");
    EXPECT_EQ(support::ReadWholeFile(folder / "file"), "abc");
}

TEST_F(FileStreamTest, ModesReadChangeOrBeginAnew) {
    support::WriteWholeFile(folder / "file", "abc");
    {
        FileStream stream(folder / "file", "rb");
        EXPECT_FALSE(stream.CanWrite());
        EXPECT_THROW(stream.WriteByte('x'), GeneralException);
        EXPECT_THROW(stream.SetLength(1), GeneralException);
        EXPECT_EQ(read(stream, 10), "abc");
    }
    { FileStream(folder / "file", "r+b").WriteByte('X'); }
    EXPECT_EQ(support::ReadWholeFile(folder / "file"), "Xbc");
    FileStream stream(folder / "file", "w+b");
    EXPECT_EQ(stream.GetLength(), 0);
    write(stream, "new");
    stream.SetPosition(1);
    EXPECT_EQ(read(stream, 10), "ew");
}

TEST_F(FileStreamTest, KeepsItsBytesThroughManyBlocks) {
    const std::string bytes = pattern(300'000);
    FileStream stream(folder / "file", "w+b");
    for (std::size_t at = 0; at < bytes.size(); at += 7001)
        write(stream, bytes.substr(at, 7001));
    std::string expected = bytes;
    // Back and forth across the blocks' ends, with reads between that throw blocks out.
    for (const std::size_t at : {65530u, 10u, 131070u, 65536u, 299'990u, 0u, 65534u}) {
        stream.SetPosition(static_cast<std::int64_t>(at));
        const std::string piece = pattern(20).substr(0, 12);
        write(stream, piece);
        expected.replace(at, piece.size(), piece);
        EXPECT_EQ(read(stream, 5), expected.substr(std::min(at + 12, expected.size()), 5));
    }
    stream.SetPosition(0);
    EXPECT_EQ(read(stream, 400'000), expected);
    stream.Flush();
    EXPECT_EQ(support::ReadWholeFile(folder / "file"), expected);
}

TEST_F(FileStreamTest, WritesAllThatIsDirtyInSmallPieces) {
    support::WriteWholeFile(folder / "file", "0123456789");
    const auto whole = Platform::g_system.writeAt;
    static const auto s_whole = whole;
    Platform::g_system.writeAt = [](int descriptor, const void* data, std::size_t size, off_t offset) {
        return s_whole(descriptor, data, std::min<std::size_t>(size, 2), offset);
    };
    {
        FileStream stream(folder / "file", "r+b");
        EXPECT_EQ(stream.PeekByte(), '0');  // the whole file is one block
        for (const auto& [at, bytes] : {std::pair{5, "FGH"}, {1, "B"}, {3, "DE"}}) {
            stream.SetPosition(at);
            write(stream, bytes);
        }
    }
    Platform::g_system.writeAt = whole;
    EXPECT_EQ(support::ReadWholeFile(folder / "file"), "0B2DEFGH89");
}

TEST_F(FileStreamTest, PositionsHave64Bits) {
    FileStream stream(folder / "file", "w+b");
    constexpr std::int64_t kFar = (std::int64_t{1} << 32) + 5;
    stream.SetLength(kFar);  // sparse
    stream.Seek(0, Origin::End);
    write(stream, "far");
    EXPECT_EQ(stream.GetLength(), kFar + 3);
    EXPECT_EQ(stream.SeekBits(16, Origin::End), (kFar + 1) * 8);
    EXPECT_EQ(read(stream, 2), "ar");
}

TEST_F(FileStreamTest, WhatCouldNotBeWrittenGoesOutLater) {
    const std::string bytes = pattern(100'000);
    {
        FileStream stream(folder / "file", "w+b");
        write(stream, "flushed");
        stream.Flush();
        {
            const support::FaultPlan full(support::FaultKind::Write, 1, support::FaultPlan::Span::FromThenOn);
            write(stream, "buffered");
            try {
                stream.Flush();
                ADD_FAILURE();
            } catch (const GeneralException& exception) {
                EXPECT_EQ(std::string(exception.what()),
                          "FileStream::Flush: " + folder / "file" + ": No space left on device");
            }
            EXPECT_EQ(stream.GetPosition(), 15);
            EXPECT_THROW(write(stream, bytes), GeneralException);  // more than the buffer holds
            EXPECT_EQ(stream.GetPosition(), 15);
            EXPECT_EQ(stream.GetLength(), 15);
        }
        {
            // The first of its blocks goes out, the next does not: no part of it stays.
            const support::FaultPlan full(support::FaultKind::Write, 2);
            EXPECT_THROW(write(stream, bytes + bytes), GeneralException);
            EXPECT_EQ(stream.GetLength(), 15);
            EXPECT_EQ(support::ReadWholeFile(folder / "file"), "flushedbuffered");
        }
        write(stream, bytes);
    }
    EXPECT_EQ(support::ReadWholeFile(folder / "file"), "flushedbuffered" + bytes);
    EXPECT_EQ(log.Errors(), std::vector<std::string>{});
    auto stream = std::make_unique<FileStream>(folder / "file", "r+b");
    stream->WriteByte('!');
    const support::FaultPlan full(support::FaultKind::Write, 1, support::FaultPlan::Span::FromThenOn);
    stream.reset();
    EXPECT_EQ(log.Errors(),
              std::vector<std::string>{"FileStream::Flush: " + folder / "file" +
                                       ": No space left on device: what was not written is lost"});
}

TEST_F(FileStreamTest, SurvivesEveryFailingCall) {
    using enum support::FaultKind;
    const std::string bytes = pattern(70'000);
    for (const support::FaultKind kind : {Open, Stat, Seek, Read, Write, Truncate, Allocate}) {
        std::string survived;
        support::ForEachNthFailure(kind, [&] {
            std::optional<support::FaultPause> setUp(std::in_place);
            const std::string path = folder / "file";
            support::WriteWholeFile(path, "0123456789");
            setUp.reset();
            try {
                FileStream stream(path, "r+b");
                EXPECT_EQ(read(stream, 4), "0123");
                stream.Seek(0, Origin::End);
                write(stream, bytes);
                stream.SetPosition(8);
                EXPECT_EQ(read(stream, 4), "89" + bytes.substr(0, 2));
                stream.SetLength(20);
            } catch (const GeneralException&) {
            } catch (const std::bad_alloc&) {
            }
            const support::FaultPause pause;
            survived = support::ReadWholeFile(path);
            EXPECT_EQ(survived.substr(0, 10), "0123456789");
        });
        EXPECT_EQ(survived, "0123456789" + bytes.substr(0, 10));
    }
}

}  // namespace
}  // namespace Mivra::Common
