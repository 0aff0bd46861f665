// The queue against a model of it, and the rule of admission.

#include "mivra/transport/SendQueue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <numeric>
#include <random>
#include <tuple>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/transport/NetConnectionParameters.h"
#include "tests/support/FaultInjection.h"
#include "tests/transport/TransportFixture.h"

namespace Mivra::Test {
namespace {

using Transport::SendQueue;

struct Modelled {
    PacketBuffer* packet;
    int size;
    int sent = 0;
    bool done = false;
};

std::size_t gatheredBytes(SendQueue& queue, const std::deque<Modelled>& model, int most) {
    std::vector<iovec> pieces(static_cast<std::size_t>(most));
    const int count = queue.Gather(pieces.data(), most);
    int expected = 0;
    std::size_t bytes = 0;
    for (const Modelled& entry : model) {
        if (entry.done || expected == count) continue;
        const iovec& piece = pieces[static_cast<std::size_t>(expected++)];
        EXPECT_EQ(piece.iov_base, entry.packet->Buffer() + entry.sent);
        EXPECT_EQ(piece.iov_len, static_cast<std::size_t>(entry.size - entry.sent));
        bytes += piece.iov_len;
    }
    EXPECT_EQ(expected, count);
    return bytes;
}

void advance(std::deque<Modelled>& model, std::size_t bytes) {
    for (Modelled& entry : model) {
        if (entry.done) continue;
        const auto left = static_cast<std::size_t>(entry.size - entry.sent);
        const std::size_t part = std::min(left, bytes);
        entry.sent += static_cast<int>(part);
        bytes -= part;
        entry.done = part == left;
        if (!entry.done || bytes == 0) return;
    }
}

TEST(SendQueueTest, IsAsItsModel) {
    constexpr int kAllowed = 3000;
    std::mt19937 random(20);
    std::string memory(1000, 'q');
    SendQueue queue;
    queue.SetAllowedBytes(kAllowed);
    std::deque<Modelled> model;
    const auto modelBytes = [&] {
        return std::accumulate(model.begin(), model.end(), 0,
                               [](int sum, const Modelled& entry) { return sum + entry.size; });
    };
    for (int step = 0; step < 20000; ++step) {
        const int dice = static_cast<int>(random() % 8);
        if (dice < 4) {
            const int size = static_cast<int>(random() % 1000);
            auto* const packet = new PacketBuffer(memory.data(), size);
            const bool fits = model.size() < 2 || modelBytes() + size <= kAllowed;
            EXPECT_EQ(queue.Push(packet), fits ? SendQueue::Admission::Queued : SendQueue::Admission::Full);
            if (fits) model.push_back({packet, size});
            if (fits) packet->AddRef();
            packet->Release();
        } else if (dice < 6) {
            const std::size_t bytes = gatheredBytes(queue, model, 3);
            const std::size_t sent = bytes == 0 ? 0 : random() % (bytes + 1);
            advance(model, sent);
            EXPECT_EQ(queue.Advance(sent), !model.empty() && model.front().done);
        } else {
            PacketBuffer* const packet = queue.PopSent();
            EXPECT_EQ(packet, !model.empty() && model.front().done ? model.front().packet : nullptr);
            if (packet != nullptr) {
                model.pop_front();
                EXPECT_EQ(packet->Release(), 1);
                packet->Release();
            }
        }
        ASSERT_EQ(queue.QueuedBytes(), modelBytes());
        ASSERT_EQ(queue.Packets().size(), model.size());
        ASSERT_EQ(queue.IsEmpty(), model.empty());
    }
    queue.Close();
    for (const Modelled& entry : model)
        EXPECT_EQ(entry.packet->Release(), 0);
    const auto late = Common::Reference<PacketBuffer>::Adopt(new PacketBuffer(memory.data(), 1));
    EXPECT_EQ(queue.Push(late.get()), SendQueue::Admission::Closed);
}

TEST(SendQueueTest, RefusesWithoutMemory) {
    if (!kCountsOperatorNew) GTEST_SKIP() << "operator new is the sanitizer's";
    std::string memory(1, 'q');
    const auto packet = Common::Reference<PacketBuffer>::Adopt(new PacketBuffer(memory.data(), 1));
    SendQueue queue;
    const FaultPlan plan(FaultKind::Allocate, 1);
    EXPECT_EQ(queue.Push(packet.get()), SendQueue::Admission::NoMemory);
    EXPECT_EQ(queue.Push(packet.get()), SendQueue::Admission::Queued);
}

TEST(SendQueueTest, RefusesSizesThatAreNone) {
    std::string memory(4, 'q');
    const auto packet = Common::Reference<PacketBuffer>::Adopt(new PacketBuffer(memory.data(), 4));
    SendQueue queue;
    for (const int size : {-1, 5, INT32_MIN, INT32_MAX}) {
        packet->ActualSize() = size;
        EXPECT_EQ(queue.Push(packet.get()), SendQueue::Admission::BadSize) << size;
    }
}

auto fieldsOf(const NetConnectionParameters& of) {
    return std::tuple(of.notifications, of.userData, of.protocol, of.remoteAddress.sin_port,
                      of.hasLocalAddress, of.localAddress.sin_port, of.reuseAddress, of.option1,
                      of.receiveBufferSize, of.sendBufferSize, of.option2, of.disableMulticastLoop,
                      of.option3, std::string(of.hostName), std::string(of.serverName), of.sendQueueLimit);
}

// Copies hold references of their own.
TEST(NetConnectionParametersTest, CopiesItsFieldsAndKeepsTheCountOfItsNotifications) {
    const auto recorder = Recorder::Make();
    const auto other = Recorder::Make();
    {
        NetConnectionParameters first;
        EXPECT_EQ(fieldsOf(first),
                  std::tuple(nullptr, 0, 0, 0, false, 0, false, 0, 0, 0, 1, false, false, "", "", -1));
        first.notifications = recorder.get();
        recorder->AddRef();
        first.userData = 1;
        first.protocol = 2;
        first.remoteAddress = Loopback(3);
        first.hasLocalAddress = first.reuseAddress = first.disableMulticastLoop = first.option3 = true;
        first.localAddress = Loopback(4);
        first.option1 = 5;
        first.receiveBufferSize = 6;
        first.sendBufferSize = 7;
        first.option2 = 8;
        std::strcpy(first.hostName, "host");
        std::strcpy(first.serverName, "server");
        first.sendQueueLimit = 9;
        NetConnectionParameters second(first);
        EXPECT_EQ(recorder->GetRefCount(), 3);
        EXPECT_EQ(fieldsOf(second), fieldsOf(first));
        NetConnectionParameters third;
        third.notifications = other.get();
        other->AddRef();
        third = second;
        second = NetConnectionParameters();
        EXPECT_EQ(recorder->GetRefCount(), 3);
        EXPECT_EQ(other->GetRefCount(), 1);
    }
    EXPECT_EQ(recorder->GetRefCount(), 1);
}

}  // namespace
}  // namespace Mivra::Test
