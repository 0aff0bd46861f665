#include "mivra/transport/NetNotitications.h"

namespace Mivra::Transport {

NetNotitications::NetNotitications() = default;
NetNotitications::~NetNotitications() = default;

bool NetNotitications::onFinalRelease() {
    return false;
}

}  // namespace Mivra::Transport
