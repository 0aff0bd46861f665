// Samples in a disk cache whose files somebody damages before they are read back: what was live must come out
// as it went in, what was buffered may be missing but never out of order, of another size or of no stream.

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz/OperationSource.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/media/DiskCache.h"
#include "mivra/media/HeldPacket.h"

namespace {

using namespace Mivra::Media;
using Mivra::Common::PacketBuffer;
using Mivra::Common::Reference;

constexpr int kStreams = 2;

std::string makeFolder() {
    char name[] = "/tmp/mivra-fuzz-XXXXXX";
    Require(::mkdtemp(name) != nullptr);
    return std::string(name) + '/';
}

class CacheRun {
public:
    explicit CacheRun(OperationSource& from)
        : source(from), cache(10'000'000, {{{{1, 1000}, {1, 1000}}, source.Flag() ? 0 : -1}}, folder) {}
    ~CacheRun() { std::filesystem::remove_all(folder); }

    void Run() {
        const int before = source.Small() % 64;
        for (int i = 0; i < before; ++i)
            cache.Append(0, next().get(), 0);
        const std::size_t firstLive = sizes.size();
        const int live = source.Small() % 8;
        for (int i = 0; i < live; ++i)
            Require(cache.AppendLive(0, next().get(), 0));
        for (int damages = source.Small() % 8; damages > 0; --damages)
            damage();
        std::size_t liveSeen = 0;
        std::int64_t last = -1;
        for (SampleCache::Taken taken; cache.TakeFirst(taken) == SampleCache::Take::Sample;) {
            PacketBuffer& sample = *taken.sample.get();
            Require(sample.StreamIndex() >= 0 && sample.StreamIndex() < kStreams);
            Require(sample.FilePosition() > last &&
                    static_cast<std::size_t>(sample.FilePosition()) < sizes.size());
            last = sample.FilePosition();
            Require(sample.ActualSize() == sizes[static_cast<std::size_t>(last)]);
            if (static_cast<std::size_t>(last) >= firstLive) {
                ++liveSeen;
                Require(sample.ActualSize() == 0 || sample[0] == static_cast<char>(last));
            }
            // Attributes that were kept apart are still there.
            Require(sample.POIs().empty() || sample.POIs().begin()->second == last);
        }
        Require(liveSeen == sizes.size() - firstLive && cache.Count() == 0);
        cache.TakeProblem();
    }

private:
    Reference<PacketBuffer> next() {
        const int form = source.Small();
        // Large ones go straight to the file, and with them what has gathered before.
        const int size = (form & 7) == 7 ? 64 << 10 : (form & 7) * 300;
        auto packet = OwnedPacket::Make(size);
        packet->ActualSize() = size;
        std::memset(packet->GetPointer(), static_cast<char>(sizes.size()), static_cast<std::size_t>(size));
        packet->StreamIndex() = (form >> 3) % kStreams;
        packet->KeyFrame() = (form & 16) != 0;
        time += source.Small() % 128;
        packet->Pts() = time;
        packet->FilePosition() = static_cast<std::int64_t>(sizes.size());
        if ((form & 32) != 0) packet->POIs()[1] = packet->FilePosition();
        if ((form & 64) != 0) packet->SourceId() = "source";
        sizes.push_back(size);
        return packet;
    }

    void damage() {
        std::vector<std::string> files;
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            if (entry.path().extension() == ".cache") files.push_back(entry.path());
        if (files.empty()) return;
        const std::string& file = files[static_cast<std::size_t>(source.Small()) % files.size()];
        const auto offset = static_cast<off_t>(std::abs(source.Number()));
        if (source.Small() % 8 == 0) {
            Require((source.Flag() ? ::truncate(file.c_str(), offset) : ::unlink(file.c_str())) == 0);
            return;
        }
        const int descriptor = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
        const std::vector<unsigned char> bytes = source.Bytes(source.Small());
        Require(descriptor >= 0);
        Require(::pwrite(descriptor, bytes.data(), bytes.size(), offset) >= 0);
        ::close(descriptor);
    }

    OperationSource& source;
    const std::string folder = makeFolder();
    DiskCache cache;
    std::int64_t time = 0;
    std::vector<int> sizes;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    MediaGlobal::Initialize(6000, 10, 70'000, 4, 100'000, 1);
    OperationSource source(data, size);
    CacheRun run(source);
    run.Run();
    return 0;
}
