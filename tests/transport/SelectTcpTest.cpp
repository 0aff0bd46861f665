// Streams: whole lives with their notifications, ids, partial sends, ends of every kind.

#include "tests/transport/TransportFixture.h"

namespace Mivra::Test {
namespace {

using Events = std::vector<std::string>;

class SelectTcp : public TransportFixture {};

TEST_F(SelectTcp, LivesOfAnAcceptedClientInOrder) {
    std::string reply = "answer";
    recorder->data = [&](NetClientContext* context, PacketBuffer*) {
        EXPECT_TRUE(send(context->ClientId(), reply));
    };
    start();
    PosixPeer peer = PosixPeer::Connect(listen());
    ASSERT_TRUE(recorder->Await("connected 2"));
    ASSERT_TRUE(peer.Send("question"));
    EXPECT_EQ(peer.Receive(6), "answer");
    ASSERT_TRUE(recorder->Await("sent 2"));
    peer.Close();
    ASSERT_TRUE(recorder->Await("released 2"));
    EXPECT_EQ(recorder->Events(),
              (Events{"connected 2", "data 2 question", "sent 2 6", "disconnecting 2", "released 2"}));
    expectErrors({"SelectTransport::workerRoutine: client 2 receive error: 0"});
}

}  // namespace
}  // namespace Mivra::Test
