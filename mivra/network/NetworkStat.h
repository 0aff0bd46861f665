#pragma once

#include <cstdint>
#include <string>

#include "mivra/common/runtime/Export.h"

namespace Mivra::Network {

/// What a network source or sink counts of one connection, and how it is printed. A value; not locked.
class MIVRA_API NetworkStat {
public:
    /// Start and last activity: seconds since 1970-01-01 UTC.
    std::int64_t& Started() { return started; }
    std::int64_t& LastActivity() { return lastActivity; }
    /// Bytes.
    std::uint64_t& TotalReceived() { return totalReceived; }
    std::uint64_t& TotalSent() { return totalSent; }
    /// Bits per second.
    std::int32_t& AverageSendSpeed() { return averageSendSpeed; }
    /// Packets that wait; below 0: there is no such queue.
    std::int32_t& ReceiveQueueLength() { return receiveQueueLength; }
    /// Bytes and packets that wait to be sent.
    std::int32_t& SendQueueSize() { return sendQueueSize; }
    std::int32_t& SendQueueLength() { return sendQueueLength; }
    std::int32_t& StreamErrors() { return streamErrors; }
    /// From request to reply, in units of 100 ns; 0: unknown.
    std::int64_t& Ping() { return ping; }
    /// Playback speed; 1.0 is real time.
    double& Speed() { return speed; }

    /// One line, without its ending.
    std::string ToString() const;

private:
    std::int64_t started = 0;
    std::int64_t lastActivity = 0;
    std::uint64_t totalReceived = 0;
    std::uint64_t totalSent = 0;
    std::int32_t averageSendSpeed = 0;
    std::int32_t receiveQueueLength = 0;
    std::int32_t sendQueueSize = 0;
    std::int32_t sendQueueLength = 0;
    std::int32_t streamErrors = 0;
    std::int64_t ping = 0;
    double speed = 0;
};

}  // namespace Mivra::Network
