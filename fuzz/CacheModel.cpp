// Samples of several sources in both kinds of the cache, which gives the longest part that may begin, and
// then what is live, with all that a packet carries.

#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>

#include "fuzz/CacheStreams.h"
#include "mivra/media/DiskCache.h"
#include "mivra/media/MemoryCache.h"

namespace {

using namespace Mivra::Fuzz;
using Mivra::Media::MediaGlobal;
using Mivra::Media::SampleCache;
using Samples = std::vector<std::string>;

void drain(SampleCache& cache, std::size_t most, Samples& samples) {
    for (SampleCache::Taken taken; most > 0; --most) {
        if (cache.TakeFirst(taken) != SampleCache::Take::Sample) break;
        samples.push_back(std::to_string(taken.source) + Describe(*taken.sample.get()));
    }
}

/// What comes before the output begins, then what arrives while it is drained.
void run(SampleCache& cache, CacheStreams& streams) {
    for (int before = streams.between(0, 255) * 6; before > 0 && !streams.input.AtEnd(); --before) {
        const auto packet = streams.Next();
        cache.Append(streams.sent.back().source, packet.get(), 0);
    }
    std::vector<std::size_t> numbers = streams.Expected(streams.sent.size());
    Require(cache.Count() == numbers.size());
    Samples got;
    do {
        numbers.push_back(streams.sent.size());
        const auto packet = streams.Next();
        Require(cache.AppendLive(streams.sent.back().source, packet.get(), 0));
        drain(cache, static_cast<std::size_t>(streams.between(0, 6)), got);
    } while (!streams.input.AtEnd());
    drain(cache, SIZE_MAX, got);
    Samples expected;
    for (const std::size_t number : numbers)
        expected.push_back(std::to_string(streams.sent[number].source) + streams.sent[number].description);
    Require(got == expected);
    Require(cache.TakeProblem().empty());
}

const std::string& folder() {
    static const struct Place {
        Place() { Require(::mkdtemp(name.data()) != nullptr); }
        ~Place() { std::filesystem::remove_all(name); }
        std::string name = "/tmp/mivra-fuzz-XXXXXX";
    } s_place;
    return s_place.name;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    MediaGlobal::Initialize(0.2F);
    const std::string place = folder() + "/";
    for (const bool onDisk : {false, true}) {
        OperationSource input(data, size);
        CacheStreams streams(input);
        std::unique_ptr<SampleCache> cache;
        if (onDisk) {
            cache = std::make_unique<Mivra::Media::DiskCache>(streams.duration, streams.sources, place);
        } else {
            cache = std::make_unique<Mivra::Media::MemoryCache>(streams.duration, streams.sources);
        }
        run(*cache, streams);
    }
    Require(std::filesystem::is_empty(place));
    return 0;
}
