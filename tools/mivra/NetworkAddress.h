#pragma once

#include <netinet/in.h>

#include <string>

namespace Mivra::Tool {

/// Where an input or output stands in the network: tcp://HOST:PORT (to connect to), tcp-listen://HOST:PORT
/// (to be connected to) or udp://HOST:PORT, of an input the address that datagrams come to, of an output the
/// one that they go to; of a group ?interface=ADDRESS names the interface. ?timeout=SECONDS is how long an
/// input, and nothing else, may bring nothing. IPv4 only. A value.
struct NetworkAddress {
    enum class Kind { Tcp, TcpListen, Udp };
    enum class Use { Read, Write };

    static constexpr int kDefaultTimeoutSeconds = 10;

    /// Whether a name on the command line means the network at all: it has a scheme. Files have none.
    static bool IsOne(const std::string& name);
    /// ProblemError (Usage) that says what is wrong with it.
    static NetworkAddress Parse(const std::string& name, Use use);

    /// The address of the host, which may take a while. ProblemError (CannotOpen) when there is none.
    sockaddr_in Resolve() const;
    bool IsGroup(const sockaddr_in& resolved) const;
    /// Only one of the two can be opened, or both would disturb each other.
    bool Excludes(const NetworkAddress& other) const {
        return kind != Kind::Tcp && kind == other.kind && host == other.host && port == other.port;
    }

    std::string text;
    Kind kind = Kind::Tcp;
    std::string host;
    int port = 0;
    bool hasInterface = false;
    in_addr interfaceAddress{};
    int timeoutSeconds = kDefaultTimeoutSeconds;
};

/// "127.0.0.1:9000".
std::string addressText(const sockaddr_in& address);

}  // namespace Mivra::Tool
