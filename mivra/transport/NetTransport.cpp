#include "mivra/transport/NetTransport.h"

#include <arpa/inet.h>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/transport/NetNotitications.h"

namespace Mivra::Transport {

NetTransport::~NetTransport() = default;

bool NetTransport::Connect(const char* address, int port, NetNotitications* notifications) {
    NetConnectionParameters parameters;
    parameters.protocol = IPPROTO_TCP;
    parameters.notifications = notifications;
    if (notifications != nullptr) notifications->AddRef();
    parameters.remoteAddress.sin_family = AF_INET;
    parameters.remoteAddress.sin_port = htons(static_cast<std::uint16_t>(port));
    if (address == nullptr || port < 0 || port > UINT16_MAX ||
        ::inet_pton(AF_INET, address, &parameters.remoteAddress.sin_addr) != 1) {
        Common::LogLine(Common::FileLog::Error, "NetTransport::Connect: %s, port %d is no IPv4 address",
                        address == nullptr ? "null" : address, port);
        return false;
    }
    return Connect(parameters);
}

}  // namespace Mivra::Transport
