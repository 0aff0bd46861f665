#include "tools/mivra/NetworkBoard.h"

#include <algorithm>
#include <ctime>
#include <limits>

#include "tools/mivra/NetworkAddress.h"

namespace Mivra::Tool {
namespace {

using Common::AutoLock;

std::int32_t clamped(std::int64_t value) {
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(value, 0, std::numeric_limits<std::int32_t>::max()));
}

}  // namespace

void ClientTable::Add(unsigned id, const sockaddr_in& address) {
    Client client;
    client.address = addressText(address);
    client.stat.Started() = client.stat.LastActivity() = std::time(nullptr);
    AutoLock hold(lock);
    clients[id] = std::move(client);
}

bool ClientTable::Remove(unsigned id) {
    AutoLock hold(lock);
    return clients.erase(id) != 0;
}

std::string ClientTable::Dismiss(unsigned id) {
    AutoLock hold(lock);
    const auto found = clients.find(id);
    if (found == clients.end() || found->second.leaving) {
        return "";
    }
    found->second.leaving = true;
    return found->second.address;
}

void ClientTable::Received(unsigned id, int bytes) {
    AutoLock hold(lock);
    if (const auto found = clients.find(id); found != clients.end()) {
        found->second.stat.TotalReceived() += static_cast<std::uint64_t>(bytes);
        found->second.stat.LastActivity() = std::time(nullptr);
    }
}

void ClientTable::Queued(unsigned id, int bytes) {
    AutoLock hold(lock);
    if (const auto found = clients.find(id); found != clients.end()) {
        found->second.queue.push_back(bytes);
        found->second.stat.SendQueueSize() += bytes;
        found->second.stat.SendQueueLength() += 1;
    }
}

void ClientTable::Refused(unsigned id) {
    AutoLock hold(lock);
    if (const auto found = clients.find(id); found != clients.end()) {
        found->second.stat.SendQueueSize() -= found->second.queue.back();
        found->second.queue.pop_back();
        found->second.stat.SendQueueLength() -= 1;
        found->second.stat.StreamErrors() += 1;
    }
}

int ClientTable::Sent(unsigned id) {
    AutoLock hold(lock);
    const auto found = clients.find(id);
    if (found == clients.end() || found->second.queue.empty()) {
        return 0;
    }
    const int bytes = found->second.queue.front();
    found->second.queue.pop_front();
    Network::NetworkStat& stat = found->second.stat;
    stat.SendQueueSize() -= bytes;
    stat.SendQueueLength() -= 1;
    stat.TotalSent() += static_cast<std::uint64_t>(bytes);
    stat.LastActivity() = std::time(nullptr);
    return bytes;
}

bool ClientTable::IsAwaited() const {
    AutoLock hold(lock);
    return std::any_of(clients.begin(), clients.end(),
                       [](const auto& one) { return !one.second.joined && !one.second.leaving; });
}

void ClientTable::Recipients(bool entry, std::vector<unsigned>& all, std::vector<unsigned>& joining) {
    all.clear();
    joining.clear();
    AutoLock hold(lock);
    for (auto& [id, client] : clients) {
        if (client.leaving || (!client.joined && !entry)) {
            continue;
        }
        if (!client.joined) {
            client.joined = true;
            joining.push_back(id);
        }
        all.push_back(id);
    }
}

std::int64_t ClientTable::QueuedBytes() const {
    std::int64_t bytes = 0;
    AutoLock hold(lock);
    for (const auto& [id, client] : clients) {
        Network::NetworkStat stat = client.stat;
        bytes += client.leaving ? 0 : stat.SendQueueSize();
    }
    return bytes;
}

void ClientTable::AppendTo(std::vector<Line>& lines) const {
    const std::int64_t now = std::time(nullptr);
    AutoLock hold(lock);
    for (const auto& [id, client] : clients) {
        Line line{client.address, client.stat};
        const std::int64_t seconds = std::max<std::int64_t>(now - line.stat.Started(), 1);
        line.stat.AverageSendSpeed() =
            clamped(static_cast<std::int64_t>(line.stat.TotalSent()) * 8 / seconds);
        line.stat.ReceiveQueueLength() = waiting;
        line.stat.StreamErrors() += clamped(static_cast<std::int64_t>(lost.load()));
        lines.push_back(std::move(line));
    }
}

void NetworkBoard::Add(const std::shared_ptr<const ClientTable>& table) {
    AutoLock hold(lock);
    std::erase_if(tables, [](const auto& one) { return one.expired(); });
    tables.push_back(table);
}

std::vector<ClientTable::Line> NetworkBoard::Clients() const {
    std::vector<std::shared_ptr<const ClientTable>> all;
    {
        AutoLock hold(lock);
        for (const auto& table : tables) {
            all.push_back(table.lock());
        }
    }
    std::vector<ClientTable::Line> lines;
    for (const auto& table : all) {
        if (table != nullptr) {
            table->AppendTo(lines);
        }
    }
    return lines;
}

}  // namespace Mivra::Tool
