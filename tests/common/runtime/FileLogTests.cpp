#include "mivra/common/runtime/FileLog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "mivra/common/identity/Guid.h"
#include "mivra/common/runtime/DebugOutput.h"
#include "mivra/platform/System.h"
#include "tests/common/runtime/LogFixture.h"
#include "tests/support/FaultInjection.h"

namespace Mivra::Test {
namespace {

using Common::FileLog;
using Common::Guid;
using ::testing::ElementsAre;
using ::testing::EndsWith;

std::string s_debugOutput;

class FileLogTest : public ::testing::Test {
protected:
    FileLogTest() {
        s_debugOutput.clear();
        Common::SetDebugOutputHook([](std::string_view text) { s_debugOutput += text; });
    }
    ~FileLogTest() override { Common::SetDebugOutputHook(nullptr); }

    void open(FileLog::FileLogLevel level = FileLog::Trace) { log.Initialize(level, Wide(path).c_str()); }

    FakeClock clock;
    TempFolder folder;
    std::string path = folder / "app.log";
    OpenLog log;
};

TEST_F(FileLogTest, WritesTimeThreadLevelLocationAndMessage) {
    const std::int64_t now = Platform::System().wallTime();
    open();
    log.Log(FileLog::Information, "%s %d", "text", 42);
    const time_t second = now / kSecond;
    tm local{};
    ::localtime_r(&second, &local);
    char expected[128];
    const std::size_t size =
        std::strftime(expected, sizeof expected, "\xEF\xBB\xBF%Y-%m-%d %H:%M:%S.", &local);
    std::snprintf(expected + size, sizeof expected - size, "%03d [%d] INFO  text 42\r\n",
                  static_cast<int>(now % kSecond / kMillisecond), ::gettid());
    EXPECT_EQ(ReadWholeFile(path), expected);
    EXPECT_EQ(std::string(kByteOrderMark) + s_debugOutput, expected);
}

TEST_F(FileLogTest, NamesLevelsAndLocations) {
    open();
    Guid id("00112233-4455-6677-8899-aabbccddeeff");
    for (int level = 1; level <= 5; ++level) {
        log.Log(static_cast<FileLog::FileLogLevel>(level), "m");
    }
    log.Log(static_cast<FileLog::FileLogLevel>(-1), "m");
    log.Log("src\\net\\Socket", 42, FileLog::Error, "back");
    log.Log("src/net/Socket", 42, FileLog::Error, "forth");
    log.Log("C:/x\\y/Socket", 1, FileLog::Error, "the last backslash goes first");
    log.Log("Socket", 42, FileLog::Error, id, "id");
    log.Log(static_cast<const char*>(nullptr), 42, FileLog::Error, id, "no file, no location");
    EXPECT_THAT(ReadMessages(path),
                ElementsAre("ERROR m", "WARN  m", "INFO  m", "DEBUG m", "TRACE m", "      m",
                            "ERROR [Socket/42] back", "ERROR [Socket/42] forth",
                            "ERROR [y/Socket/1] the last backslash goes first",
                            "ERROR [Socket/42/00112233-4455-6677-8899-aabbccddeeff] id",
                            "ERROR no file, no location"));
}

TEST_F(FileLogTest, FoldsEqualLinesIntoASummary) {
    open();
    for (int i = 0; i < 3; ++i) {
        log.Log(FileLog::Warning, "same");
        clock.Advance(7 * kMillisecond);  // a time that differs prevents no repeat
    }
    log.Log(FileLog::Error, "other");
    log.Log(FileLog::Error, "same");
    log.Log(FileLog::Warning, "same");                               // the level is compared
    std::thread([&] { log.Log(FileLog::Warning, "same"); }).join();  // and the thread
    EXPECT_THAT(ReadMessages(path), ElementsAre("WARN  same", "WARN  previous message repeated 2 times",
                                                "ERROR other", "ERROR same", "WARN  same", "WARN  same"));
    EXPECT_NE(s_debugOutput.find("previous message repeated 2 times\r\n"), std::string::npos);
    EXPECT_EQ(std::count(s_debugOutput.begin(), s_debugOutput.end(), '\n'), 6);
}

TEST_F(FileLogTest, AFilteredLineLeavesTheRepeatsAlone) {
    open(FileLog::Information);
    log.Log(FileLog::Information, "same");
    log.Log(FileLog::Debug, "filtered");
    log.Log(FileLog::Information, "same");
    log.SetLogLevel(FileLog::Error);
    EXPECT_EQ(log.GetLogLevel(), FileLog::Error);
    log.Log(FileLog::Information, "filtered");
    log.Log(FileLog::Error, "other");
    EXPECT_THAT(ReadMessages(path),
                ElementsAre("INFO  same", "INFO  previous message repeated 1 times", "ERROR other"));
    log.SetLogLevel(FileLog::Off);
    log.Log(FileLog::Error, "off");
    EXPECT_EQ(ReadLog(path).size(), 3u);
}

TEST_F(FileLogTest, AppendsToAnExistingFileAndMarksAnEmptyOne) {
    WriteWholeFile(path, "");
    open();
    log.Log(FileLog::Error, "one");
    log.Initialize(FileLog::Off, nullptr);
    log.Log(FileLog::Error, "while off");
    open();
    log.Log(FileLog::Error, "one");  // never folded after initialization
    EXPECT_THAT(ReadMessages(path), ElementsAre("ERROR one", "ERROR one"));
}

// Without a file the repeats are counted on; the next line into a file brings them.
TEST_F(FileLogTest, WithoutAFileLinesGoToTheDebuggerAndRepeatsAreKept) {
    log.Initialize(FileLog::Information, nullptr);
    for (int i = 0; i < 4; ++i)
        log.Log(FileLog::Information, "same");
    log.Log(FileLog::Information, "other");
    EXPECT_EQ(std::count(s_debugOutput.begin(), s_debugOutput.end(), '\n'), 2);
    EXPECT_EQ(s_debugOutput.find("repeated"), std::string::npos);
    open();
    log.Log(FileLog::Error, "in the file");
    EXPECT_THAT(ReadMessages(path),
                ElementsAre("INFO  previous message repeated 3 times", "ERROR in the file"));
}

TEST_F(FileLogTest, CutsALongLineAndKeepsItsEnding) {
    open();
    const std::string text(20000, 'x');
    log.Log(FileLog::Error, "%s", text.c_str());
    const std::string whole = ReadWholeFile(path);
    EXPECT_EQ(whole.size(), 3u + 10240u);
    EXPECT_THAT(whole, EndsWith("x\r\n"));
    // Two-, three- and four-byte characters are cut off whole, wherever the end falls.
    for (const std::string character : {"\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9D\x84\x9E"}) {
        for (std::size_t shift = 0; shift < character.size(); ++shift) {
            std::string many(shift, 'y');
            while (many.size() < 11000)
                many += character;
            log.Log(FileLog::Error, "%s", many.c_str());
            EXPECT_THAT(ReadWholeFile(path), EndsWith(character + "\r\n"));
        }
    }
    log.Log(text.c_str(), 1, FileLog::Error, "the location alone is too long");
    EXPECT_THAT(ReadWholeFile(path), EndsWith("x\r\n"));
}

TEST_F(FileLogTest, TakesPathsOfAnyLanguageWhateverTheLocale) {
    ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
    log.Initialize(FileLog::Error, (Wide(folder.Path()) + L"/\u00E4\u20AC\U0001D11E.log").c_str());
    log.Log(FileLog::Error, "here");
    EXPECT_THAT(ReadMessages(folder / "\xC3\xA4\xE2\x82\xAC\xF0\x9D\x84\x9E.log"), ElementsAre("ERROR here"));
}

int openAtTheTenthTry(const char* path, int flags, mode_t mode) {
    static int calls = 0;
    if (++calls == 10) return ::open(path, flags | O_CLOEXEC, mode);
    errno = EMFILE;
    return -1;
}

TEST_F(FileLogTest, TriesTenTimesToOpenAndThenSaysSoOnStandardOutput) {
    const auto real = Platform::g_system.open;
    Platform::g_system.open = openAtTheTenthTry;
    open();
    Platform::g_system.open = real;
    log.Log(FileLog::Error, "opened at last");
    EXPECT_THAT(ReadMessages(path), ElementsAre("ERROR opened at last"));

    const FaultPlan plan(FaultKind::Open, 1, FaultPlan::Span::FromThenOn, EMFILE);
    ::testing::internal::CaptureStdout();
    const std::int64_t before = clock.Slept();
    open();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Unable to open log file " + path + ", error " + std::to_string(EMFILE) + "\n");
    EXPECT_EQ(plan.Calls(), 10u);
    EXPECT_EQ(clock.Slept() - before, 10 * kSecond);
    s_debugOutput.clear();
    log.Log(FileLog::Error, "still to the debugger");
    EXPECT_THAT(s_debugOutput, EndsWith("still to the debugger\r\n"));
}

TEST_F(FileLogTest, ErrnoStaysAsItWas) {
    open();
    const FaultPlan plan(FaultKind::Write, 1);
    errno = EDOM;
    log.Log(FileLog::Error, "line");
    EXPECT_EQ(errno, EDOM);
}

// A disk that fills up takes the first bytes of a line only.
ssize_t writeThreeBytesThenFail(int file, const void* data, std::size_t size) {
    static int calls = 0;
    if (calls++ == 0) return ::write(file, data, std::min<std::size_t>(size, 3));
    errno = ENOSPC;
    return -1;
}

TEST_F(FileLogTest, AFullDiskLeavesWholeLinesOnly) {
    open();
    log.Log(FileLog::Error, "before");
    const auto real = Platform::g_system.write;
    Platform::g_system.write = writeThreeBytesThenFail;
    log.Log(FileLog::Error, "dropped");
    Platform::g_system.write = real;
    log.Log(FileLog::Error, "after");
    EXPECT_THAT(ReadMessages(path), ElementsAre("ERROR before", "ERROR after"));
}

std::string s_lockedPath;
int s_lockedWrites = 0;

// Another descriptor of the file finds its first two bytes, and no more, locked while a line is written.
ssize_t writeLookingForTheLock(int file, const void* data, std::size_t size) {
    const int other = ::open(s_lockedPath.c_str(), O_WRONLY | O_CLOEXEC);
    struct flock range {};
    range.l_type = F_WRLCK;
    if (::fcntl(other, F_OFD_GETLK, &range) == 0 && range.l_type == F_WRLCK && range.l_start == 0 &&
        range.l_len == 2) {
        ++s_lockedWrites;
    }
    ::close(other);
    return ::write(file, data, size);
}

TEST_F(FileLogTest, WritesUnderTheLockOfTheFile) {
    s_lockedPath = path;
    const auto real = Platform::g_system.write;
    Platform::g_system.write = writeLookingForTheLock;
    open();  // the byte order mark
    for (const char* text : {"a", "a", "b"})
        log.Log(FileLog::Error, "%s", text);
    Platform::g_system.write = real;
    EXPECT_EQ(s_lockedWrites, 4);
}

TEST_F(FileLogTest, TextThatTheLibraryCannotConvertIsNotLost) {
    ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
    open();
    log.Log(FileLog::Error, "wide %ls", L"\u20AC");
    EXPECT_THAT(ReadMessages(path), ElementsAre("ERROR wide %ls"));
}

// In a process of its own: the variable counts when the channel is first used.
TEST(DebugOutputDeathTest, GoesToStandardErrorWhenTheEnvironmentSaysSo) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto logOneLine = [](const char* variable) {
        ::setenv("MIVRA_DEBUG_OUTPUT", variable, 1);
        FileLog log;
        log.Initialize(FileLog::Error, nullptr);
        log.Log(FileLog::Error, "for the debugger");
        std::exit(0);
    };
    EXPECT_EXIT(logOneLine("1"), ::testing::ExitedWithCode(0), "ERROR for the debugger");
    EXPECT_EXIT(logOneLine("0"), ::testing::ExitedWithCode(0), "^$");
}

}  // namespace
}  // namespace Mivra::Test
