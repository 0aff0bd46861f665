// The parts of the relay that work without a film: times, budget, pace.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <random>
#include <thread>

#include "mivra/common/runtime/Reference.h"
#include "tools/mivra/ContinuousTime.h"
#include "tools/mivra/FfmpegSupport.h"
#include "tools/mivra/PacketBudget.h"
#include "tools/mivra/RecordNames.h"
#include "tools/mivra/SampleClock.h"
#include "tools/mivra/SourcePace.h"
#include "tools/mivra/TransportPacker.h"

namespace Mivra::Tool {
namespace {

using Common::PacketBuffer;
using Common::Reference;

/// Long enough for a thread to do what it must not.
void pause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

TEST(Rescale, IsWhatFfmpegComputes) {
    const FfmpegUse ffmpeg;
    ASSERT_TRUE(ffmpeg.IsLoaded());
    const AVRational bases[] = {{1, 1000},     {1, 90000}, {1, 48000},      {1, 44100},   {1001, 30000},
                                {1, 10000000}, {1, 12800}, {1, 1000000000}, {INT_MAX, 1}, {1, INT_MAX}};
    std::mt19937_64 random(7);
    for (const AVRational from : bases) {
        for (const AVRational to : bases) {
            for (const std::int64_t value :
                 {std::int64_t{0}, std::int64_t{1}, std::int64_t{-1}, INT64_MAX, INT64_MIN + 1,
                  static_cast<std::int64_t>(random() >> 20), -static_cast<std::int64_t>(random() >> 30)}) {
                EXPECT_EQ(rescale(value, from, to), FFmpeg::FfmpegProxy::av_rescale_q(value, from, to))
                    << value << " " << from.num << "/" << from.den << " " << to.num << "/" << to.den;
            }
            EXPECT_EQ(rescale(kUnsetTime, from, to), kUnsetTime);
        }
    }
}

TEST(Rescale, PacketTimesComeBackExactly) {
    std::mt19937_64 random(11);
    for (const AVRational base :
         {AVRational{1, 1000}, {1, 90000}, {1, 48000}, {1, 600}, {1, 4999999}, {1001, 24000}}) {
        for (int i = 0; i < 1000; ++i) {
            const auto time = static_cast<std::int64_t>(random() >> 32);
            EXPECT_EQ(rescale(rescale(time, base, kPacketTimeBase), kPacketTimeBase, base), time);
        }
    }
}

// Times of a Matroska file with frames of 1024 samples at 44100 Hz, and what `ffmpeg -c copy` makes of them
// in an MP4: the clock follows the samples, and at 69 ms, where less is said than was meant, falls back as
// far as 69.5 ms. A jump is taken as it is.
TEST(SampleClock, CountsSamplesWithinTheInputsRounding) {
    SampleClock clock;
    const AVRational from{1, 1000};
    const AVRational to{1, 44100};
    const std::pair<std::int64_t, std::int64_t> table[] = {
        {0, 0},      {23, 1024},  {46, 2048},  {69, 3065},  {93, 4089},
        {116, 5113}, {139, 6137}, {162, 7161}, {186, 8185}, {1000, 44100}};
    for (const auto& [input, output] : table) {
        EXPECT_EQ(clock.Convert(input, from, to, 44100, 1024), output) << input;
    }
    EXPECT_EQ(clock.Convert(kUnsetTime, from, to, 44100, 1024), kUnsetTime);
    EXPECT_EQ(SampleClock().Convert(44, to, from, 44100, 1024), 1);
}

// Random rounds and jumps of two streams: no stream ever goes back, and no jump leaves a gap behind all of
// them.
TEST(ContinuousTime, GoesOnWhateverTheMediaDoes) {
    std::mt19937 random(3);
    for (int run = 0; run < 200; ++run) {
        const std::int64_t steps[] = {400000 + run % 5, 213333};
        ContinuousTime time(2);
        std::int64_t ends[] = {INT64_MIN, INT64_MIN};
        for (int part = 0; part < 6; ++part) {
            const bool again = part > 0 && random() % 2 == 0;
            const std::int64_t begins[] = {static_cast<std::int64_t>(random() % 100) * 10000000, 0};
            const int packets = 1 + static_cast<int>(random() % 50);
            const std::int64_t before = time.End();
            part == 0 || !again ? time.Jump() : time.Repeat();
            for (int i = 0; i < packets; ++i) {
                for (const int stream : {0, 1}) {
                    const std::int64_t step = steps[stream];
                    const std::int64_t dts = begins[0] + i * step - (stream == 1 ? 213333 : 0);
                    const std::int64_t at =
                        dts + time.Pass(stream, kUnsetTime, dts, random() % 3 == 0 ? 0 : step);
                    ASSERT_GE(at, ends[stream]);
                    if (i == 0 && stream == 0 && part > 0 && !again) {
                        ASSERT_EQ(at, before);
                    }
                    ends[stream] = i == 0 ? at : at + step;
                }
            }
        }
    }
    ContinuousTime wild(1);  // times of a damaged file
    for (const std::int64_t dts : {INT64_MAX, INT64_MIN + 1, INT64_MAX}) {
        wild.Pass(0, dts, dts, INT64_MAX);
        wild.Repeat();
    }
}

TEST(RecordNames, AreNewEveryTimeAndNobodyElses) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    const std::time_t time = 1700000000;  // 2023-11-14 22:13:20
    RecordNames names("/x/cam-%Y%m%d-%H%M%S%%.ts", {"/x/cam-20231114-221320%-3.ts"}, "");
    EXPECT_FALSE(names.Check().has_value());
    EXPECT_EQ(names.Next(time), "/x/cam-20231114-221320%.ts");
    EXPECT_EQ(names.Next(time), "/x/cam-20231114-221320%-2.ts");
    EXPECT_EQ(names.Next(time), "/x/cam-20231114-221320%-4.ts");
    for (const char* const wrong : {"a%", "a%q.ts", "-", "a.avi", "%Y", "/x/in.ts"}) {
        EXPECT_TRUE(RecordNames(wrong, {"/x/in.ts"}, "").Check().has_value()) << wrong;
    }
}

TEST(PacketBudget, NeverLendsMoreAndGetsAllBack) {
    constexpr std::int64_t kBytes = 1 << 20;
    PacketBudget budget(2, kBytes);
    std::atomic<int> taken{0};
    const auto take = [&](int index) {
        std::mt19937 random(static_cast<unsigned>(index));
        std::vector<Reference<PacketBuffer>> flight;
        for (int i = 0; i < 4000; ++i) {
            const int size = 1 << random() % 19;  // up to 256 KiB, which only the reserve has
            flight.push_back(Reference<PacketBuffer>::Adopt(budget.Lane(index).Take(size)));
            ASSERT_TRUE(flight.back());
            ASSERT_GE(flight.back()->Size(), size);
            ++taken;
            // One thread holds both ends here: keep few enough that a wait for the next one ends.
            if (flight.size() > 2 || size > 4096) {
                flight.clear();
            }
        }
    };
    std::thread other(take, 1);
    take(0);
    other.join();
    EXPECT_EQ(taken, 8000);
    EXPECT_EQ(budget.BytesOut(), 0);
    EXPECT_LE(budget.PeakBytesOut(), kBytes);
}

// Sources that nobody gives anything back to.
TEST(PacketBudget, HoldsSourcesBackAndLetsThemGo) {
    for (const int size : {100, 5000, 70000, 200000, 900000, 3 << 20, 8 << 20}) {
        PacketBudget budget(3);
        std::vector<Reference<PacketBuffer>> flights[3];
        std::vector<std::thread> sources;
        for (int lane = 0; lane < 3; ++lane) {
            sources.emplace_back([&, lane] {
                while (PacketBuffer* const buffer = budget.Lane(lane).Take(size)) {
                    flights[lane].push_back(Reference<PacketBuffer>::Adopt(buffer));
                }
            });
        }
        for (std::int64_t before = 0; before == 0 || before != budget.BytesOut();) {
            before = budget.BytesOut();
            pause();
        }
        for (int lane = 0; lane < 3; ++lane) {
            budget.Lane(lane).Close();
        }
        for (std::thread& source : sources) {
            source.join();
        }
        EXPECT_LE(budget.PeakBytesOut(), PacketBudget::kDefaultBytes) << size;
        for (auto& flight : flights) {
            flight.clear();
        }
        EXPECT_EQ(budget.BytesOut(), 0);
    }
}

TEST(PacketBudget, APacketLargerThanTheReserveTravelsAlone) {
    PacketBudget budget(2, 1 << 20);
    auto small = Reference<PacketBuffer>::Adopt(budget.Lane(0).Take(100));
    Reference<PacketBuffer> large;
    std::atomic<int> taken{0};
    std::thread other([&] {
        large = Reference<PacketBuffer>::Adopt(budget.Lane(1).Take(3 << 20));
        ++taken;
    });
    pause();
    EXPECT_EQ(taken, 0);
    small = {};
    other.join();
    ASSERT_TRUE(large);
    std::thread next([&] {
        small = Reference<PacketBuffer>::Adopt(budget.Lane(0).Take(100));
        ++taken;
    });
    pause();
    EXPECT_EQ(taken, 1);
    large = {};
    next.join();
    EXPECT_TRUE(small);
    // The reserve is small again.
    EXPECT_LE(Reference<PacketBuffer>::Adopt(budget.Lane(1).Take(200000))->Size(), 1 << 18);
}

TEST(PacketBudget, AMuxerKeepsAtMostHalfOfAPool) {
    PacketBudget budget(1);
    const auto buffer = Reference<PacketBuffer>::Adopt(budget.Lane(0).Take(200000));
    auto* const pool = dynamic_cast<RelayPool*>(buffer->Allocator());
    ASSERT_NE(pool, nullptr);
    int held = 0;
    while (pool->TryHold()) {
        ++held;
    }
    EXPECT_EQ(held, pool->BufferCount() / 2);
    pool->Unhold();
    EXPECT_TRUE(pool->TryHold());
    while (held-- > 0) {
        pool->Unhold();
    }
    const auto large = Reference<PacketBuffer>::Adopt(budget.Lane(0).Take(3 << 20));
    EXPECT_FALSE(dynamic_cast<RelayPool*>(large->Allocator())->TryHold());
}

TEST(SourcePace, NoSourceRunsFurtherAheadThanTheWindow) {
    constexpr std::int64_t kWindow = 100;
    SourcePace pace(2, kWindow);
    std::atomic<bool> stopping{false};
    std::atomic<std::int64_t> at[2] = {-1000000, -1000000};
    const auto run = [&](int self, int step) {
        for (std::int64_t dts = 0; dts < 20000; dts += step) {
            at[self] = dts;
            pace.Advance(self, dts, stopping);
            ASSERT_GE(at[1 - self], dts - kWindow);
        }
        at[self] = INT64_MAX;
        pace.Finish(self);
    };
    std::thread other(run, 1, 7);
    run(0, 3);
    other.join();
    // One that waits for a source which never moves goes on when it is told to stop.
    SourcePace stuck(2, kWindow);
    std::thread waiting([&] { stuck.Advance(0, 1000, stopping); });
    stopping = true;
    stuck.Wake();
    waiting.join();
}

// Sound has an entry in each of its packets: a piece is cut at one only when somebody waits for it.
TEST(TransportPacker, FillsPiecesUnlessAnEntryIsWanted) {
    const auto packetOf = [](std::vector<std::uint8_t> bytes) {
        bytes.resize(TransportPacker::kPacketBytes, 0xFF);
        return bytes;
    };
    const auto pat = packetOf({0x47, 0x40, 0x00, 0x10, 0x00, 0x00, 0xB0, 0x0D, 0x00, 0x01, 0xC1, 0x00, 0x00,
                               0x00, 0x01, 0xF0, 0x00});
    const auto pmt = packetOf({0x47, 0x50, 0x00, 0x10, 0x00, 0x02, 0xB0, 0x12, 0x00, 0x01, 0xC1,
                               0x00, 0x00, 0xE1, 0x00, 0xF0, 0x00, 0x0F, 0xE1, 0x00, 0xF0, 0x00});
    const auto sound = packetOf({0x47, 0x41, 0x00, 0x30, 0x01, 0x40});
    bool wanted = false;
    std::vector<std::pair<int, bool>> pieces;
    TransportPacker packer([&] { return wanted; },
                           [&](Common::PacketBuffer& piece, bool entry) {
                               pieces.emplace_back(piece.ActualSize() / TransportPacker::kPacketBytes, entry);
                               wanted = wanted && !entry;
                           });
    const auto add = [&](const std::vector<std::uint8_t>& packet, int times) {
        for (int i = 0; i < times; ++i)
            EXPECT_TRUE(packer.Add(packet.data(), TransportPacker::kPacketBytes));
    };
    add(pat, 1);
    add(pmt, 1);
    add(sound, 13);
    EXPECT_TRUE(packer.HasStarted());
    wanted = true;
    add(sound, 7);
    EXPECT_FALSE(packer.HasStarted());
    EXPECT_EQ(pieces, (std::vector<std::pair<int, bool>>{{7, false}, {7, false}, {1, false}, {7, true}}));
}

}  // namespace
}  // namespace Mivra::Tool
