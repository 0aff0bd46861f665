#include "mivra/media/SampleCache.h"

#include <array>
#include <cstring>

#include "mivra/media/MemoryCache.h"
#include "tests/media/CacheStreams.h"
#include "tests/media/SessionFixture.h"
#include "tests/support/FaultInjection.h"

namespace Mivra::Test {
namespace {

using Media::SampleCache;

class SampleCacheTest : public MediaTest {
protected:
    static std::unique_ptr<SampleCache> MakeCache(const CacheStreams& streams) {
        return std::make_unique<Media::MemoryCache>(streams.duration, streams.sources);
    }
    static std::vector<std::string> Drain(SampleCache& cache, std::size_t most = SIZE_MAX) {
        std::vector<std::string> samples;
        for (SampleCache::Taken taken; samples.size() < most;) {
            if (cache.TakeFirst(taken) != SampleCache::Take::Sample) break;
            samples.push_back(std::to_string(taken.source) + Describe(*taken.sample.get()));
        }
        return samples;
    }
};

TEST_F(SampleCacheTest, GivesTheLongestPartAndThenWhatIsLive) {
    const int triggers = Cycles(60, 1000);
    for (int seed = 0; seed < triggers; ++seed) {
        CacheStreams streams(static_cast<unsigned>(seed));
        const auto cache = MakeCache(streams);
        const int before = streams.between(0, 1500);
        for (int i = 0; i < before; ++i) {
            const auto packet = streams.Next();
            cache->Append(streams.sent.back().source, packet.get(), 0);
        }
        std::vector<std::size_t> numbers = streams.Expected(streams.sent.size());
        ASSERT_EQ(cache->Count(), numbers.size()) << seed;
        std::vector<std::string> got;
        for (int live = streams.between(1, 200); live > 0; --live) {  // while it is drained, more arrives
            numbers.push_back(streams.sent.size());
            const auto packet = streams.Next();
            EXPECT_TRUE(cache->AppendLive(streams.sent.back().source, packet.get(), 0));
            const auto some = Drain(*cache, static_cast<std::size_t>(streams.between(0, 6)));
            got.insert(got.end(), some.begin(), some.end());
        }
        const auto rest = Drain(*cache);
        got.insert(got.end(), rest.begin(), rest.end());
        std::vector<std::string> expected;
        for (const std::size_t number : numbers)
            expected.push_back(std::to_string(streams.sent[number].source) +
                               streams.sent[number].description);
        ASSERT_EQ(got, expected) << seed;
        EXPECT_EQ(cache->TakeProblem(), "");
    }
}

}  // namespace
}  // namespace Mivra::Test
