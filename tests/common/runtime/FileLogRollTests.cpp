#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <new>
#include <optional>
#include <thread>

#include "mivra/common/runtime/FileLog.h"
#include "tests/common/runtime/LogFixture.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/Soak.h"

namespace Mivra::Test {
namespace {

using Common::FileLog;
namespace fs = std::filesystem;

constexpr std::int64_t kMinute = 60 * kSecond;

class FileLogRollTest : public ::testing::Test {
protected:
    void open(const std::string& name = "app.log") {
        log.SetMaxLogFileSize(1);
        log.Initialize(FileLog::Trace, Wide(folder / name).c_str());
    }
    // A line, a minute after the one before.
    void line(const char* text) {
        clock.Advance(kMinute);
        log.Log(FileLog::Error, "%s", text);
    }
    std::map<std::string, std::vector<std::string>> files() {
        std::map<std::string, std::vector<std::string>> found;
        for (const auto& entry : fs::directory_iterator(folder.Path())) {
            found[entry.path().filename()] = ReadMessages(entry.path());
        }
        return found;
    }
    using Files = std::map<std::string, std::vector<std::string>>;

    FakeClock clock;
    TempFolder folder;
    OpenLog log;
};

TEST_F(FileLogRollTest, MovesTheWholeChainAndDeletesTheOldest) {
    open();
    line("a");
    line("b");
    EXPECT_EQ(files(), (Files{{"app.log", {}}, {"app.000.log", {"ERROR b"}}})) << "one by default";
    log.SetRollingHistorySize(3);
    line("c");
    line("d");
    EXPECT_EQ(files(), (Files{{"app.log", {}},
                              {"app.000.log", {"ERROR d"}},
                              {"app.001.log", {"ERROR c"}},
                              {"app.002.log", {"ERROR b"}}}));
    fs::remove(folder / "app.000.log");  // a gap moves on too
    line("e");
    EXPECT_EQ(files(), (Files{{"app.log", {}}, {"app.000.log", {"ERROR e"}}, {"app.002.log", {"ERROR c"}}}));
    log.SetRollingHistorySize(0);  // the file keeps growing
    line("f");
    line("g");
    EXPECT_EQ(files()["app.log"].size(), 2U);
}

TEST_F(FileLogRollTest, LooksAtTheSizeOnceAMinuteAtMost) {
    open();
    line("first look");
    clock.Advance(kMinute - kSecond);
    log.Log(FileLog::Error, "too early");
    clock.AdvanceWall(-100 * kMinute);
    log.Log(FileLog::Error, "clock went backwards");
    EXPECT_EQ(files()["app.log"].size(), 2u);
    clock.AdvanceWall(100 * kMinute + kSecond);
    log.Log(FileLog::Error, "now");
    EXPECT_TRUE(files()["app.log"].empty());
    EXPECT_EQ(files()["app.000.log"].size(), 3u);
}

TEST_F(FileLogRollTest, NamesRolledFiles) {
    const std::wstring base = Wide(folder.Path());
    const std::vector<std::tuple<std::string, int, std::wstring>> table = {
        {"app.log", 0, L"/app.000.log"},
        {"app.log", 42, L"/app.042.log"},
        {"app.log", 1234, L"/app.1234.log"},
        {"app", 1, L"/app.001"},
        {"a.b.log", 1, L"/a.b.001.log"},
        {"../" + fs::path(folder.Path()).filename().string() + "/x", 0,
         L"/../" + fs::path(folder.Path()).filename().wstring() + L"/x.000"},
    };
    for (const auto& [name, index, expected] : table) {
        open(name);
        EXPECT_EQ(log.RolledPath(index), base + expected) << name;
    }
}

// Somebody else has rolled or moved the file away: the log follows its path, without rolling once more.
TEST_F(FileLogRollTest, FollowsItsPathWhenAnotherProcessHasRolled) {
    open();
    log.SetMaxLogFileSize(1 << 20);
    line("a");
    fs::rename(folder / "app.log", folder / "app.000.log");
    log.Log(FileLog::Error, "within the second");
    clock.Advance(kSecond);
    log.Log(FileLog::Error, "followed");
    EXPECT_EQ(files(), (Files{{"app.log", {"ERROR followed"}},
                              {"app.000.log", {"ERROR a", "ERROR within the second"}}}));
}

// The file at the path belongs to who rolled: rolling it once more would lose its lines.
TEST_F(FileLogRollTest, OnlyReopensWhenAnotherProcessHasRolledWithinTheSecond) {
    open();
    fs::rename(folder / "app.log", folder / "app.000.log");
    FileLog other;
    other.Initialize(FileLog::Trace, Wide(folder / "app.log").c_str());
    other.Log(FileLog::Error, "b");
    log.Log(FileLog::Error, "a");  // its first look at the size
    EXPECT_EQ(files(), (Files{{"app.log", {"ERROR b"}}, {"app.000.log", {"ERROR a"}}}));
    log.Log(FileLog::Error, "c");
    EXPECT_EQ(files()["app.log"].size(), 2u);
}

// The whole life of a log with every call failing in turn: it goes on, and loses one line at most.
TEST_F(FileLogRollTest, SurvivesEveryFault) {
    using enum FaultKind;
    const auto life = [&] {
        std::optional<FaultPause> pause(std::in_place);
        const TempFolder place;
        const std::wstring path = Wide(place / "app.log");
        FileLog subject;
        subject.SetMaxLogFileSize(1);
        subject.SetRollingHistorySize(2);
        pause.reset();
        bool opened = true;
        const auto initialize = [&] {
            try {
                subject.Initialize(FileLog::Trace, path.c_str());
            } catch (const std::bad_alloc&) {
                opened = false;  // and no file is open
            }
        };
        initialize();
        for (const char* text : {"a", "a", "b"}) {
            clock.Advance(kMinute);
            subject.Log(FileLog::Error, "%s", text);
        }
        initialize();
        subject.Log(FileLog::Error, "c");
        pause.emplace();
        std::string chain;
        for (const char* name : {"app.log", "app.000.log", "app.001.log"})
            chain += ReadWholeFile(place / name);
        if (opened) {
            EXPECT_GE(std::count(chain.begin(), chain.end(), '\n'), 3) << chain;  // a, summary, b, c
        }
    };
    for (const FaultKind kind : {Open, Write, Lock, Rename, Unlink, Stat, Sync, Truncate, Allocate}) {
        SCOPED_TRACE(FaultName(kind));
        const std::uint64_t failed = ForEachNthFailure(kind, life);
        EXPECT_TRUE(failed > 0 || kind == Truncate || (kind == Allocate && !kCountsOperatorNew));
    }
}

// Processes and threads that write into one file while it rolls.
constexpr int kProcesses = 4;
constexpr int kThreads = 8;
constexpr int kRolls = 5;

std::string writerLine(int process, int thread, int number) {
    char text[64];
    std::snprintf(text, sizeof text, "p%d t%d n%d", process, thread, number);
    return text;
}

// One of the processes: its clock goes five minutes on in steps while its threads write.
void writeLog(const std::string& path, int process, int linesPerThread) {
    FakeClock clock;
    FileLog log;
    log.SetMaxLogFileSize(4096);
    log.SetRollingHistorySize(100);
    log.Initialize(FileLog::Trace, Wide(path).c_str());
    std::atomic<int> written{0};
    const int step = kThreads * linesPerThread / (kRolls + 1);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int number = 0; number < linesPerThread; ++number) {
                if (++written % step == 0) clock.Advance(kMinute);
                log.Log(FileLog::Information, "%s", writerLine(process, thread, number).c_str());
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

// So many lines a process.
TEST(FileLogProcessTest, LosesAndTearsNoLineWhileFourProcessesRoll) {
    const int lines = SoakCount(500 * kThreads, 50000) / kThreads;
    TempFolder folder;
    std::vector<pid_t> processes;
    for (int process = 0; process < kProcesses; ++process) {
        processes.push_back(::fork());
        if (processes.back() == 0) {
            writeLog(folder / "app.log", process, lines);
            ::_exit(0);
        }
    }
    for (const pid_t process : processes) {
        int status = -1;
        EXPECT_EQ(::waitpid(process, &status, 0), process);
        EXPECT_EQ(status, 0);
    }
    std::map<std::string, int> seen;
    int files = 0;
    for (const auto& entry : fs::directory_iterator(folder.Path())) {
        ++files;
        for (const std::string& line : ReadMessages(entry.path()))
            ++seen[line];
    }
    EXPECT_GT(files, kRolls);
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kProcesses * kThreads * lines));
    for (int process = 0; process < kProcesses; ++process) {
        for (int thread = 0; thread < kThreads; ++thread) {
            for (int number = 0; number < lines; ++number) {
                ASSERT_EQ(seen["INFO  " + writerLine(process, thread, number)], 1);
            }
        }
    }
}

}  // namespace
}  // namespace Mivra::Test
