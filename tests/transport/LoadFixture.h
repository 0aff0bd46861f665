#pragma once

// For tests with many packets and connections: an engine whose lives a Ledger follows, a pool to send from,
// plain peers that check every byte, and a count of descriptors. Every test ends with the engine shut down,
// all lives complete, all packets back and no descriptor more than before.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "mivra/common/buffers/DefaultPacketBufferAllocator.h"
#include "mivra/transport/select/SelectTransport.h"
#include "tests/support/Soak.h"
#include "tests/transport/Ledger.h"
#include "tests/transport/PosixPeer.h"

namespace Mivra::Test {

using Common::PacketBuffer;
using Common::Reference;
using Transport::NetClientContext;
using Transport::NetConnectionParameters;
using Transport::SelectTransport;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

/// A tenth of both under a sanitizer, but 2.
inline int LoadCount(int plain, int soak) {
    constexpr int kPart = kSanitized ? 10 : 1;
    return SoakCount(std::max(plain / kPart, 2), soak / kPart);
}

/// What packet number i of a stream holds: as many bytes as wanted, different for neighbours.
inline const char* Pattern(std::int64_t number) {
    static const std::vector<char> s_bytes = [] {
        std::vector<char> bytes(70'000);
        std::mt19937 random(7);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
        return bytes;
    }();
    return s_bytes.data() + number * 31 % 1009;
}

/// Streams of packets of one size as they come in at plain peers, compared byte by byte.
class StreamReaders {
public:
    /// From packet number `first` on; `whole` is called whenever one peer has all that is wanted.
    StreamReaders(const std::vector<PosixPeer>& peers, int packetSize, std::int64_t first = 0,
                  std::function<void()> whole = {})
        : size(packetSize),
          firstNumber(first),
          complete(std::move(whole)),
          polled(peers.size()),
          positions(peers.size()) {
        for (std::size_t i = 0; i < peers.size(); ++i)
            polled[i] = {peers[i].Descriptor(), POLLIN, 0};
    }
    /// Until every peer has so many packets, one that sends nothing for 10 s, or something else than wanted.
    void Run(std::int64_t packets) {
        const std::int64_t wanted = packets * size;
        auto left = static_cast<std::int64_t>(polled.size());
        while (left > 0 && ::poll(polled.data(), polled.size(), 10'000) > 0) {
            for (std::size_t i = 0; i < polled.size(); ++i) {
                if (polled[i].revents == 0) continue;
                if (!take(i)) return;
                if (positions[i] < wanted) continue;
                polled[i].fd = -1;
                --left;
                if (complete) complete();
            }
        }
    }
    std::int64_t Bytes() const {
        return std::accumulate(positions.begin(), positions.end(), std::int64_t{0});
    }

private:
    bool take(std::size_t i) {
        static thread_local std::vector<char> s_room(1 << 18);
        const ssize_t count = ::recv(polled[i].fd, s_room.data(), s_room.size(), MSG_DONTWAIT);
        for (ssize_t at = 0; at < count;) {
            const std::int64_t offset = positions[i] % size;
            const auto part = std::min<std::int64_t>(count - at, size - offset);
            if (std::memcmp(s_room.data() + at, Pattern(firstNumber + positions[i] / size) + offset,
                            static_cast<std::size_t>(part)) != 0) {
                ADD_FAILURE() << "peer " << i << " got something else at " << positions[i];
                return false;
            }
            at += part;
            positions[i] += part;
        }
        EXPECT_GT(count, 0) << "peer " << i << " after " << positions[i] << " bytes";
        return count > 0;
    }

    const int size;
    const std::int64_t firstNumber;
    const std::function<void()> complete;
    std::vector<pollfd> polled;
    std::vector<std::int64_t> positions;
};

class LoadFixture : public ::testing::Test {
protected:
    LoadFixture() : pool(1500, 1024, true, 40.0F) {}

    static int descriptors() {
        return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
    }
    void start(int workers = 1) {
        engine->SetAllocator(65536, 64);
        engine->SetWorkerCount(workers);
        ASSERT_TRUE(engine->Start());
    }
    int listen() {
        const int port = PosixPeer::FreePort();
        EXPECT_TRUE(engine->Listen("127.0.0.1", port, ledger.get(), nullptr));
        return port;
    }
    /// So many accepted clients; the ids are theirs in order.
    std::vector<PosixPeer> accept(int port, int count, std::vector<unsigned int>& ids) {
        std::vector<PosixPeer> peers;
        for (int i = 0; i < count; ++i) {
            ids.push_back(expectedId++);
            peers.push_back(PosixPeer::Connect(port));
            const bool come = ledger->Await([&] { return ledger->Of(ids.back()).connected; });
            EXPECT_TRUE(come) << "client " << ids.back();
            if (!come) break;
        }
        return peers;
    }
    Reference<PacketBuffer> packet(std::int64_t number, int size) {
        auto made = Reference<PacketBuffer>::Adopt(pool.LockBuffer(false));
        std::memcpy(made->Buffer(), Pattern(number), static_cast<std::size_t>(size));
        made->ActualSize() = size;
        return made;
    }
    void TearDown() override {
        engine->Shutdown();
        EXPECT_EQ(ledger->Open(), 0);
        EXPECT_EQ(ledger->Wrongs(), std::vector<std::string>{});
        EXPECT_EQ(ledger->GetRefCount(), 1);
        EXPECT_EQ(pool.FreeBufferCount(), pool.BufferCount());
        engine.reset();
        EXPECT_EQ(descriptors(), descriptorsBefore);
    }

    const int descriptorsBefore = descriptors();
    Common::DefaultPacketBufferAllocator pool;
    Reference<Ledger> ledger = Ledger::Make();
    std::unique_ptr<SelectTransport> engine = std::make_unique<SelectTransport>();
    unsigned int expectedId = 2;  // the listener is 1
};

}  // namespace Mivra::Test
