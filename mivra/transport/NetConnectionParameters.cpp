#include "mivra/transport/NetConnectionParameters.h"

#include <cstring>
#include <utility>

#include "mivra/transport/NetNotitications.h"

namespace Mivra::Transport {
namespace {

NetNotitications* referenced(NetNotitications* notifications) {
    if (notifications != nullptr) notifications->AddRef();
    return notifications;
}

}  // namespace

NetConnectionParameters::NetConnectionParameters(const NetConnectionParameters& other) {
    *this = other;
}

NetConnectionParameters& NetConnectionParameters::operator=(const NetConnectionParameters& other) {
    if (this == &other) return *this;
    NetNotitications* const former = std::exchange(notifications, referenced(other.notifications));
    userData = other.userData;
    protocol = other.protocol;
    remoteAddress = other.remoteAddress;
    hasLocalAddress = other.hasLocalAddress;
    localAddress = other.localAddress;
    reuseAddress = other.reuseAddress;
    option1 = other.option1;
    receiveBufferSize = other.receiveBufferSize;
    sendBufferSize = other.sendBufferSize;
    option2 = other.option2;
    disableMulticastLoop = other.disableMulticastLoop;
    option3 = other.option3;
    std::memcpy(hostName, other.hostName, sizeof hostName);
    std::memcpy(serverName, other.serverName, sizeof serverName);
    sendQueueLimit = other.sendQueueLimit;
    if (former != nullptr) former->Release();
    return *this;
}

NetConnectionParameters::~NetConnectionParameters() {
    if (notifications != nullptr) notifications->Release();
}

}  // namespace Mivra::Transport
