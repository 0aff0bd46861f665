// Runs a fuzz target over every file of the folders that are named, and fails when there is none: over the
// whole, over beginnings of it and with bytes of it changed; then over inputs of random bytes. The changes
// are the same in every run.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kCuts = 40;
constexpr int kChanges = 40;
constexpr int kRandomInputs = 300;

void run(const Bytes& bytes) {
    const Bytes own(bytes);  // its end is the end of its memory
    LLVMFuzzerTestOneInput(own.data(), own.size());
}

void runVariations(const Bytes& bytes, std::mt19937& random) {
    run(bytes);
    const std::size_t step = std::max<std::size_t>(bytes.size() / kCuts, 1);
    for (std::size_t size = 0; size < bytes.size(); size += step) {
        run({bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size)});
    }
    for (int i = 0; i < kChanges && !bytes.empty(); ++i) {
        Bytes changed(bytes);
        for (int left = i % 4; left >= 0; --left) {
            changed[random() % changed.size()] = static_cast<std::uint8_t>(random());
        }
        run(changed);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::mt19937 random(1);
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            files.push_back(entry.path());
        }
        std::sort(files.begin(), files.end());
        for (const auto& path : files) {
            std::ifstream file(path, std::ios::binary);
            runVariations(Bytes{std::istreambuf_iterator<char>(file), {}}, random);
            ++replayed;
        }
    }
    for (int i = 0; i < kRandomInputs; ++i) {
        Bytes bytes(random() % 1000);
        std::generate(bytes.begin(), bytes.end(), [&] {
            return static_cast<std::uint8_t>(random() % 3 == 0 ? random() % 12 : random());
        });
        run(bytes);
    }
    std::printf("replayed %d inputs\n", replayed);
    return replayed > 0 ? 0 : 1;
}
