#include "mivra/media/SampleQueue.h"

#include "tests/media/Fakes.h"

namespace Mivra::Test {
namespace {

using Media::SampleQueue;

class SampleQueueTest : public MediaTest {};

TEST_F(SampleQueueTest, KeepsTheOrderWhileItGrowsAroundItsEnd) {
    SampleQueue queue;
    const auto sample = Reference<PacketBuffer>::Adopt(Media::MediaGlobal::LockBuffer(1));
    const auto name = [](std::size_t number) { return reinterpret_cast<Media::IMediaSource*>(number * 8); };
    EXPECT_EQ(queue.Append(name(1), sample.get()), SampleQueue::Appended::Closed);
    queue.Open();
    std::size_t in = 0;
    std::size_t out = 0;
    for (int round = 1; round <= 60; ++round) {  // three in, two out: past 64 with the front in mid-ring
        for (int i = 0; i < 3; ++i) {
            ++in;
            EXPECT_EQ(queue.Append(name(in), sample.get()),
                      in - out == 1 ? SampleQueue::Appended::First : SampleQueue::Appended::Behind);
        }
        for (int i = 0; i < 2; ++i) {
            SampleQueue::Item item;
            ASSERT_TRUE(queue.Take(item));
            EXPECT_EQ(item.sender, name(++out));
        }
    }
    EXPECT_EQ(sample->AddRef(), 62);  // the test's own two and the queue's sixty
    sample->Release();
    EXPECT_EQ(queue.Close(), 60);
    EXPECT_TRUE(queue.Empty());
    EXPECT_EQ(queue.Append(name(1), sample.get()), SampleQueue::Appended::Closed);
    EXPECT_EQ(sample->AddRef(), 2);
    sample->Release();
}

}  // namespace
}  // namespace Mivra::Test
