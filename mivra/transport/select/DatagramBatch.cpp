#include "mivra/transport/select/DatagramBatch.h"

#include <netinet/udp.h>

#include <cstring>

#if !defined(UDP_SEGMENT)
#define UDP_SEGMENT 103
#endif

namespace Mivra::Transport {
namespace {

// A message is an IPv4 packet of 65535 bytes at most, with headers of 20 and 8 bytes.
constexpr std::size_t kMessageSize = 65535 - 20 - 8;

}  // namespace

void DatagramBatch::Fill(iovec* pieces, int count, bool segment) {
    messageCount = 0;
    segmented = false;
    for (int i = 0; i < count;) {
        const int run = segment ? runOf(pieces + i, count - i) : 1;
        msghdr& message = messages[messageCount].msg_hdr;
        message = {};
        message.msg_name = &peer;
        message.msg_namelen = sizeof peer;
        message.msg_iov = pieces + i;
        message.msg_iovlen = static_cast<std::size_t>(run);
        if (run > 1) setSegment(message, controls[messageCount], pieces[i].iov_len);
        ++messageCount;
        i += run;
    }
}

/// How many of the packets can go as one message.
int DatagramBatch::runOf(const iovec* pieces, int count) {
    const std::size_t size = pieces[0].iov_len;
    if (size == 0) return 1;
    std::size_t bytes = size;
    int run = 1;
    while (run < count && pieces[run - 1].iov_len == size && pieces[run].iov_len != 0 &&
           pieces[run].iov_len <= size && bytes + pieces[run].iov_len <= kMessageSize) {
        bytes += pieces[run++].iov_len;
    }
    return run;
}

void DatagramBatch::setSegment(msghdr& message, Control& control, std::size_t size) {
    segmented = true;
    control = {};
    message.msg_control = control.data;
    message.msg_controllen = sizeof control.data;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_UDP;
    header->cmsg_type = UDP_SEGMENT;
    header->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
    const auto segment = static_cast<std::uint16_t>(size);
    std::memcpy(CMSG_DATA(header), &segment, sizeof segment);
}

int DatagramBatch::PacketsOf(int sentMessages) const {
    std::size_t packets = 0;
    for (int i = 0; i < sentMessages; ++i)
        packets += messages[i].msg_hdr.msg_iovlen;
    return static_cast<int>(packets);
}

}  // namespace Mivra::Transport
