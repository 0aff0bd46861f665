#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "mivra/common/runtime/Export.h"

namespace Mivra::Transport {

class NetNotitications;

/// How a connection is made and who hears of it: a plain record, given by reference and copied. Who assigns
/// `notifications` calls AddRef; the copy, the assignment and the destructor of the record keep the count.
struct MIVRA_API NetConnectionParameters {
    NetConnectionParameters() = default;
    NetConnectionParameters(const NetConnectionParameters& other);
    NetConnectionParameters& operator=(const NetConnectionParameters& other);
    ~NetConnectionParameters();

    /// Receiver of the connection's events, or null.
    NetNotitications* notifications = nullptr;
    /// Copied, not interpreted; so are the options, hostName and serverName.
    std::int32_t userData = 0;
    /// IP protocol number: 6 TCP, 17 UDP.
    std::int32_t protocol = 0;
    /// TCP: the peer. UDP: where datagrams go, or the multicast group.
    sockaddr_in remoteAddress{};
    bool hasLocalAddress = false;
    /// The address to bind, needed for UDP; its IPv4 address is the multicast interface.
    sockaddr_in localAddress{};
    /// SO_REUSEADDR on a UDP socket.
    bool reuseAddress = false;
    std::int32_t option1 = 0;
    /// SO_RCVBUF and SO_SNDBUF in bytes, when above 0.
    std::int32_t receiveBufferSize = 0;
    std::int32_t sendBufferSize = 0;
    std::int32_t option2 = 1;
    /// Own datagrams to a joined group do not come back.
    bool disableMulticastLoop = false;
    bool option3 = false;
    /// Zero-terminated.
    char hostName[1024] = {};
    char serverName[100] = {};
    /// Bytes that may wait to be sent, see NetClientContext; below 0: the default.
    std::int32_t sendQueueLimit = -1;
};

}  // namespace Mivra::Transport
