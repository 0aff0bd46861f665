#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mivra/common/runtime/CritSec.h"
#include "mivra/network/NetworkStat.h"
#include "tools/mivra/StopSignal.h"

namespace Mivra::Tool {

/// Who is connected to one end of the network, and what has gone to and come from each. Any thread; its lock
/// is a leaf, and nothing of the engine's is called under it.
class ClientTable {
public:
    struct Client {
        std::string address;
        Network::NetworkStat stat;
        std::deque<int> queue;  // sizes of what is queued: a packet that was sent may be another's already
        bool joined = false;    // gets what is sent
        bool leaving = false;   // has been told to go
    };

    void Add(unsigned id, const sockaddr_in& address);
    /// False when it is not there any more.
    bool Remove(unsigned id);
    /// Marks it as one that has been told to go; its address, or nothing when it is gone or was told before.
    std::string Dismiss(unsigned id);

    void Received(unsigned id, int bytes);
    void QueueLength(int packets) { waiting = packets; }
    void Lost() { lost += 1; }
    /// A packet is about to be queued; it was not; the first one that was queued has gone, of so many bytes.
    void Queued(unsigned id, int bytes);
    void Refused(unsigned id);
    int Sent(unsigned id);

    /// Somebody waits for an entry.
    bool IsAwaited() const;
    /// Those that get what is sent now; at an entry those who wait join, and stand in `joining` too.
    void Recipients(bool entry, std::vector<unsigned>& all, std::vector<unsigned>& joining);
    std::int64_t QueuedBytes() const;
    std::uint64_t Losses() const { return lost; }

    struct Line {
        std::string address;
        Network::NetworkStat stat;
    };
    void AppendTo(std::vector<Line>& lines) const;

private:
    mutable Common::CritSec lock;
    std::map<unsigned, Client> clients MIVRA_GUARDED_BY(lock);
    std::atomic<int> waiting{-1};
    std::atomic<std::uint64_t> lost{0};
};

/// What the ends of one relay in the network have to tell: their clients, and what happens to them; and what
/// they are told: that it ends. Any thread.
class NetworkBoard {
public:
    /// The signal has to outlive the board.
    NetworkBoard(std::function<void(const std::string&)> tell, const StopSignal& signal)
        : note(std::move(tell)), stop(signal) {}

    void Add(const std::shared_ptr<const ClientTable>& table);
    /// A line for people.
    void Note(const std::string& text) const { note(text); }
    bool IsEnding() const { return stop.IsRaised(); }
    /// Of all clients there are now.
    std::vector<ClientTable::Line> Clients() const;

private:
    const std::function<void(const std::string&)> note;
    const StopSignal& stop;
    mutable Common::CritSec lock;
    std::vector<std::weak_ptr<const ClientTable>> tables MIVRA_GUARDED_BY(lock);
};

}  // namespace Mivra::Tool
