// Both kinds of the cache, without a session around them.

#include "mivra/media/SampleCache.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "mivra/media/DiskCache.h"
#include "mivra/media/HeldPacket.h"
#include "mivra/media/MemoryCache.h"
#include "tests/media/SessionFixture.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/TempFolder.h"

namespace Mivra::Test {
namespace {

using Media::SampleCache;

enum class Kind { Memory, Disk };

class CacheTest : public MediaTest {
protected:
    /// Some seconds of one source with video, of frames of 100 ms with the number as their time and 256 KiB,
    /// a key frame every ten.
    std::unique_ptr<SampleCache> MakeFilms(Kind kind = Kind::Disk, std::int64_t seconds = 10) {
        const std::vector<SampleCache::Source> sources = {{{Common::Rational(1, 10)}, 0}};
        if (kind == Kind::Memory) return std::make_unique<Media::MemoryCache>(seconds * 10'000'000, sources);
        return std::make_unique<Media::DiskCache>(seconds * 10'000'000, sources, folder);
    }
    static void SendFrames(SampleCache& cache, int from, int to, bool live = false) {
        for (int i = from; i < to; ++i) {
            const auto frame = Media::OwnedPacket::Make(256 << 10);
            frame->ActualSize() = i % 2 == 0 ? 256 << 10 : 1000;
            frame->Pts() = i;
            frame->KeyFrame() = i % 10 == 0;
            if (i % 25 == 0) frame->ExtraData()["number"] = i;
            if (live) {
                EXPECT_TRUE(cache.AppendLive(0, frame.get(), 0));
            } else {
                cache.Append(0, frame.get(), 0);
            }
        }
    }
    static std::vector<std::int64_t> Frames(std::int64_t from, std::int64_t to) {
        std::vector<std::int64_t> frames;
        for (; from < to; ++from)
            frames.push_back(from);
        return frames;
    }
    static std::vector<std::int64_t> DrainTimes(SampleCache& cache) {
        std::vector<std::int64_t> times;
        for (SampleCache::Taken taken; cache.TakeFirst(taken) == SampleCache::Take::Sample;)
            times.push_back(taken.sample->Pts());
        return times;
    }
    std::vector<std::string> Files(const std::string& ending) const {
        std::vector<std::string> files;
        if (!std::filesystem::exists(folder)) return files;
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            if (entry.path().string().ends_with(ending)) files.push_back(entry.path());
        std::sort(files.begin(), files.end());
        return files;
    }

    TempFolder temporary;
    const std::string folder = temporary / "share/Mivrasoft/buffer/";
};

// What a cache gives back is the fuzz targets' to tell.
TEST_F(CacheTest, PoolsThatRefuseCostNothing) {
    const auto cache = MakeFilms();
    SendFrames(*cache, 0, 20);
    std::vector<Reference<PacketBuffer>> lent;
    for (const int size : {256 << 10, 1000}) {
        while (PacketBuffer* const buffer = Media::MediaGlobal::LockBuffer(size))
            lent.push_back(Reference<PacketBuffer>::Adopt(buffer));
    }
    const std::string text = "MediaSession::writeBuffer: buffer exhaustion";
    SampleCache::Taken taken;
    {
        const FaultPlan nothing(FaultKind::Allocate, 1, FaultPlan::Span::FromThenOn);
        EXPECT_EQ(cache->TakeFirst(taken), SampleCache::Take::NoMemory);
    }
    EXPECT_EQ(log.Count(text), 2) << "the pools refuse, then all memory";
    // With memory of its own for what the pools do not have, everything comes after all.
    EXPECT_EQ(DrainTimes(*cache), Frames(0, 20));
    EXPECT_EQ(log.Count(text), 2) << "once for all refusals";
    EXPECT_EQ(cache->TakeProblem(), "");
    expectedErrors = log.Errors();  // the pools' own
}

// Every call of a kind fails once: what is live comes whole, what was buffered begins with a key frame after
// every gap, and nothing stays behind.
using CacheFault = std::pair<Kind, FaultKind>;
class CacheFaultTest : public CacheTest, public testing::WithParamInterface<CacheFault> {
protected:
    /// Whether there was a problem.
    bool LiveIsWhole(Kind kind) {
        const auto cache = MakeFilms(kind, 4);
        SendFrames(*cache, 0, 70);
        {
            const FaultPause pause;
            SendFrames(*cache, 70, 80, true);
        }
        std::vector<std::int64_t> got;
        for (SampleCache::Taken taken; got.size() < 200;) {
            const auto result = cache->TakeFirst(taken);
            if (result == SampleCache::Take::Empty) break;
            if (result == SampleCache::Take::Sample) got.push_back(taken.sample->Pts());
        }
        const FaultPause pause;
        EXPECT_TRUE(got.size() >= 10 && std::equal(got.end() - 10, got.end(), Frames(70, 80).begin()));
        for (std::size_t i = 0; i < got.size(); ++i)
            EXPECT_TRUE(got[i] % 10 == 0 || (i > 0 && got[i] == got[i - 1] + 1)) << got[i];
        const bool problem = !cache->TakeProblem().empty();
        EXPECT_TRUE(problem || got == Frames(30, 80));
        return problem;
    }
};

TEST_P(CacheFaultTest, CostsOnlyWhatIsBuffered) {
    const auto [kind, fault] = GetParam();
    int problems = 0;
    const std::uint64_t failed = ForEachNthFailure(fault, [&, kind = kind] {
        try {
            problems += LiveIsWhole(kind) ? 1 : 0;
        } catch (const std::bad_alloc&) {  // while it was made
        }
        const FaultPause pause;
        { const Media::DiskCache next(1, {}, folder); }  // removes what could not be deleted
        EXPECT_TRUE(Files("").empty());
    });
    EXPECT_GT(failed, 0U);
    // What the memory kind itself takes comes from operator new, which not every build lets fail.
    const bool outOfReach = kind == Kind::Memory && !kCountsOperatorNew;
    const bool harmless = fault == FaultKind::Unlink || fault == FaultKind::Stat ||
                          fault == FaultKind::Lock || fault == FaultKind::MakeDirectory || outOfReach;
    EXPECT_EQ(problems > 0, !harmless);
    expectedErrors = log.Errors();
}

INSTANTIATE_TEST_SUITE_P(
    All, CacheFaultTest,
    testing::Values(CacheFault(Kind::Memory, FaultKind::Allocate),
                    CacheFault(Kind::Disk, FaultKind::Allocate), CacheFault(Kind::Disk, FaultKind::Open),
                    CacheFault(Kind::Disk, FaultKind::Write), CacheFault(Kind::Disk, FaultKind::Read),
                    CacheFault(Kind::Disk, FaultKind::Lock), CacheFault(Kind::Disk, FaultKind::Stat),
                    CacheFault(Kind::Disk, FaultKind::Unlink),
                    CacheFault(Kind::Disk, FaultKind::MakeDirectory)),
    [](const auto& test) {
        return std::string(test.param.first == Kind::Memory ? "Memory" : "Disk") +
               FaultName(test.param.second);
    });

class DiskCacheTest : public CacheTest {};

TEST_F(DiskCacheTest, WritesAFewFilesAndDeletesThemWhenTheyAreOutdatedOrRead) {
    const auto cache = MakeFilms();
    struct stat status {};
    ASSERT_EQ(::stat(folder.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    ASSERT_EQ(Files(".lock").size(), 1U);
    const std::string name = Files(".lock").front().substr(0, folder.size() + 36);
    SendFrames(*cache, 0, 170);
    // 128 KiB on average: a file ends at 4 MiB or after it, at a key frame: with its 40th frame.
    EXPECT_EQ(Files(".cache"), (std::vector<std::string>{name + "-2.cache", name + "-3.cache",
                                                         name + "-4.cache", name + "-5.cache"}));
    ASSERT_EQ(::stat((name + "-2.cache").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    SampleCache::Taken taken;
    for (int i = 70; i < 80; ++i)
        ASSERT_EQ(cache->TakeFirst(taken), SampleCache::Take::Sample);
    EXPECT_EQ(Files(".cache").front(), name + "-3.cache");
    EXPECT_EQ(DrainTimes(*cache), Frames(80, 170));
    EXPECT_EQ(Files(".cache").size(), 1U);  // the one that is open for writing
}

struct Damage {
    const char* name;
    std::function<void(const std::string& file, const std::string& next)> act;
    std::string told;
    int first = 40;  // frame that comes out: the second file begins with the 40th
};

const Damage kDamages[] = {
    {"Deleted", [](const auto& file, const auto&) { ::unlink(file.c_str()); }, "No such file or directory"},
    {"Truncated", [](const auto& file, const auto&) { EXPECT_EQ(::truncate(file.c_str(), 300'000), 0); },
     "it is shorter than it was"},
    {"Emptied", [](const auto& file, const auto&) { WriteWholeFile(file, ""); }, "it is shorter than it was"},
    {"Overwritten", [](const auto& file, const auto&) { WriteWholeFile(file, std::string(8 << 20, '\x7F')); },
     "it is damaged"},
    {"Replaced", [](const auto& file, const auto& next) { WriteWholeFile(file, ReadWholeFile(next)); },
     "it is another"},
    {"WithAHole",
     [](const auto& file, const auto&) {
         std::string body = ReadWholeFile(file);
         body.replace(150'000, 8192, 8192, '\x7F');
         WriteWholeFile(file, body);
     },
     "a sample in it is damaged", 10},
    {"AFolder",
     [](const auto& file, const auto&) {
         ::unlink(file.c_str());
         ::mkdir(file.c_str(), 0700);
     },
     "Is a directory"},
};

TEST_F(DiskCacheTest, GoesOnBehindAFileThatSomebodyDamaged) {
    for (const Damage& damage : kDamages) {
        SCOPED_TRACE(damage.name);
        {
            const auto cache = MakeFilms();
            SendFrames(*cache, 0, 100);
            SendFrames(*cache, 100, 105, true);
            const std::vector<std::string> files = Files(".cache");
            ASSERT_EQ(files.size(), 3U);
            damage.act(files[0], files[1]);
            const std::vector<std::int64_t> expected = Frames(damage.first, 105);
            const std::vector<std::int64_t> got = DrainTimes(*cache);
            ASSERT_TRUE(got.size() >= expected.size() && got.size() < 105);
            EXPECT_TRUE(std::equal(expected.rbegin(), expected.rend(), got.rbegin()));
            EXPECT_TRUE(cache->TakeProblem().ends_with("-1.cache: " + damage.told));
        }
        std::filesystem::remove_all(folder);
    }
    EXPECT_EQ(log.Count("writeBuffer: Keyframe file name "), 1);
    expectedErrors = log.Errors();
}

TEST_F(DiskCacheTest, DropsItsHeadWhileTheDiskIsFull) {
    const auto cache = MakeFilms();
    SendFrames(*cache, 0, 95);
    {
        FaultPlan full(FaultKind::Write, 3, FaultPlan::Span::Once, ENOSPC);
        SendFrames(*cache, 95, 110);
        EXPECT_TRUE(full.Reached());
    }
    EXPECT_EQ(cache->TakeProblem(), "Buffering error: the disk is full, less is buffered");
    EXPECT_EQ(cache->Count(), 70U);  // without the first file
    {
        FaultPlan full(FaultKind::Open, 1, FaultPlan::Span::Once, ENOSPC);
        SendFrames(*cache, 110, 125);
        EXPECT_TRUE(full.Reached());
    }
    EXPECT_EQ(DrainTimes(*cache), Frames(80, 125));  // nor the second
    EXPECT_EQ(cache->TakeProblem(), "");
    EXPECT_EQ(log.Count("processSourceSample: the disk is full, dropping "), 2);
}

TEST_F(DiskCacheTest, MakesItsFolderAnewWhenSomebodyRemovedIt) {
    const auto cache = MakeFilms();
    SendFrames(*cache, 0, 70);
    std::filesystem::remove_all(folder);
    SendFrames(*cache, 70, 135);  // with the third file, which begins with 80
    EXPECT_EQ(Files(".lock").size(), 1U);
    EXPECT_EQ(DrainTimes(*cache), Frames(80, 135));
    EXPECT_TRUE(cache->TakeProblem().ends_with("-2.cache: No such file or directory"));
    expectedErrors = log.Errors();
}

TEST_F(DiskCacheTest, RemovesWhatADeadSessionLeftAndNothingElse) {
    const auto living = MakeFilms();
    SendFrames(*living, 0, 60);
    const std::vector<std::string> kept = Files("");
    WriteWholeFile(folder + "notes.lock", "mine");
    WriteWholeFile(folder + "01234567-89ab-cdef-0123-456789abcdef-7.cache", "an orphan");
    const pid_t child = ::fork();
    if (child == 0) {
        const auto dying = MakeFilms();
        SendFrames(*dying, 0, 60);
        ::kill(::getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(Files(".cache").size(), 4U);  // the orphan went, two and two came
    { const auto next = MakeFilms(); }
    std::vector<std::string> expected = kept;
    expected.push_back(folder + "notes.lock");
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(Files(""), expected);
    EXPECT_EQ(DrainTimes(*living), Frames(0, 60));
    EXPECT_EQ(log.Count("removing the buffer of a session that died"), 1);
}

}  // namespace
}  // namespace Mivra::Test
