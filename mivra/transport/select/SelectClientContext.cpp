#include "mivra/transport/select/SelectClientContext.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "mivra/common/runtime/WakeEvent.h"
#include "mivra/platform/System.h"
#include "mivra/transport/NetNotitications.h"

namespace Mivra::Transport {

bool SelectSet::Contains(int socket) const {
    return std::find(sockets.begin(), sockets.begin() + count, socket) != sockets.begin() + count;
}

void SelectSet::Add(int socket) {
    if (count < Capacity && !Contains(socket)) sockets[static_cast<std::size_t>(count++)] = socket;
}

SelectClientContext::SelectClientContext() = default;

SelectClientContext::~SelectClientContext() {
    for (NetNotitications* retired : retiredNotifications) {
        if (retired != nullptr) retired->Release();
    }
}

unsigned SelectClientContext::look(int descriptor) {
    if (descriptor >= FD_SETSIZE) return lookBeyondSets(descriptor);
    for (SelectSet* set : {&readSet, &writeSet, &exceptSet})
        set->Add(descriptor);
    fd_set read;
    FD_ZERO(&read);
    FD_SET(descriptor, &read);
    fd_set write = read;
    fd_set except = read;
    timeval noWait{};
    errno = 0;
    if (Platform::System().selectSockets(descriptor + 1, &read, &write, &except, &noWait) == -1) {
        return errno == EINTR ? 0U : unsigned{Failed};
    }
    return (FD_ISSET(descriptor, &except) ? Excepted : 0U) | (FD_ISSET(descriptor, &read) ? Readable : 0U) |
           (FD_ISSET(descriptor, &write) ? Writable : 0U);
}

unsigned SelectClientContext::lookBeyondSets(int descriptor) const {
    pollfd one{.fd = descriptor, .events = POLLIN | POLLOUT | POLLPRI, .revents = 0};
    errno = 0;
    if (Platform::System().pollSockets(&one, 1, 0) == -1) return errno == EINTR ? 0U : unsigned{Failed};
    if ((one.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return Failed;
    }
    return ((one.revents & POLLPRI) != 0 ? Excepted : 0U) |
           ((one.revents & (POLLIN | POLLHUP | POLLERR)) != 0 ? Readable : 0U) |
           ((one.revents & (POLLOUT | POLLERR)) != 0 ? Writable : 0U);
}

void SelectClientContext::giveTurn() MIVRA_NO_THREAD_SAFETY_ANALYSIS {
    turn.Unlock();
    freed->Notify();
}

bool SelectClientContext::retireNotifications() {
    if (notifications == nullptr && notificationsOverride == nullptr) return false;
    retiredNotifications = {std::exchange(notifications, nullptr),
                            std::exchange(notificationsOverride, nullptr)};
    return true;
}

}  // namespace Mivra::Transport
