#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdint>

namespace Mivra::Transport {

/// Packets for one address as the messages of one call. Where the system can cut a message into datagrams
/// (UDP_SEGMENT), packets of one length, of which the last may be shorter, go as one message: each is a
/// datagram of its own all the same, but passes the stack with the others.
class DatagramBatch {
public:
    static constexpr int Capacity = 64;

    explicit DatagramBatch(const sockaddr_in& address) : peer(address) {}
    DatagramBatch(const DatagramBatch&) = delete;
    DatagramBatch& operator=(const DatagramBatch&) = delete;

    /// Points to the pieces, at most Capacity, one for each packet.
    void Fill(iovec* pieces, int count, bool segment);

    mmsghdr* Messages() { return messages; }
    int Count() const { return messageCount; }
    /// Whether a message stands for several packets.
    bool IsSegmented() const { return segmented; }
    /// How many packets the first messages stand for.
    int PacketsOf(int sentMessages) const;

private:
    struct Control {
        alignas(cmsghdr) unsigned char data[CMSG_SPACE(sizeof(std::uint16_t))];
    };

    static int runOf(const iovec* pieces, int count);
    void setSegment(msghdr& message, Control& control, std::size_t size);

    sockaddr_in peer;
    mmsghdr messages[Capacity];
    Control controls[Capacity];
    int messageCount = 0;
    bool segmented = false;
};

}  // namespace Mivra::Transport
