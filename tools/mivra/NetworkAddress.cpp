#include "tools/mivra/NetworkAddress.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

#include "mivra/network/Uri.h"
#include "mivra/transport/select/SelectTransport.h"
#include "tools/mivra/ProblemError.h"

namespace Mivra::Tool {
namespace {

constexpr int kMostPort = 65535;
constexpr int kMostTimeout = 86400;

[[noreturn]] void refuse(const std::string& what, const std::string& name, const std::string& remedy) {
    throw ProblemError(ExitCode::Usage, {what, name, remedy});
}

/// The number that the text is, when it is one from low to high; else -1.
int wholeNumber(const std::string& text, int low, int high) {
    int value = -1;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && rest == end && value >= low && value <= high ? value : -1;
}

NetworkAddress::Kind kindOf(const std::string& scheme, const std::string& name) {
    if (scheme == "tcp") {
        return NetworkAddress::Kind::Tcp;
    }
    if (scheme == "tcp-listen") {
        return NetworkAddress::Kind::TcpListen;
    }
    if (scheme == "udp") {
        return NetworkAddress::Kind::Udp;
    }
    refuse("unknown kind of address", name, "use tcp://, tcp-listen:// or udp://");
}

std::string authorityOf(const std::string& name) {
    const std::size_t begin = name.find("://") + 3;
    return name.substr(begin, name.find_first_of("/?#", begin) - begin);
}

/// What stands behind the last colon of HOST:PORT; the library's Uri does not tell 0 from none.
std::string portText(const std::string& authority) {
    const std::size_t colon = authority.rfind(':');
    return authority.substr(colon == authority.npos ? authority.size() : colon + 1);
}

void takeOption(NetworkAddress& address, const std::string& option, NetworkAddress::Use use) {
    const std::size_t equals = std::min(option.find('='), option.size());
    const std::string key = option.substr(0, equals);
    const std::string value = option.substr(std::min(equals + 1, option.size()));
    if (key == "interface" && address.kind == NetworkAddress::Kind::Udp) {
        if (::inet_pton(AF_INET, value.c_str(), &address.interfaceAddress) != 1) {
            refuse("the interface is no IPv4 address", address.text, "write ?interface=127.0.0.1, say");
        }
        address.hasInterface = true;
    } else if (key == "timeout" && use == NetworkAddress::Use::Read) {
        address.timeoutSeconds = wholeNumber(value, 1, kMostTimeout);
        if (address.timeoutSeconds < 0) {
            refuse("the time-out is no whole number of seconds", address.text, "write ?timeout=30, say");
        }
    } else {
        refuse("the address has an unknown option", address.text,
               "?interface=ADDRESS (of udp://) and ?timeout=SECONDS (of inputs) are known");
    }
}

void takeOptions(NetworkAddress& address, const std::string& query, NetworkAddress::Use use) {
    for (std::size_t begin = 0; begin < query.size();) {
        const std::size_t end = std::min(query.find('&', begin), query.size());
        takeOption(address, query.substr(begin, end - begin), use);
        begin = end + 1;
    }
}

}  // namespace

bool NetworkAddress::IsOne(const std::string& name) {
    return !Network::Uri(name).Scheme().empty();
}

NetworkAddress NetworkAddress::Parse(const std::string& name, Use use) {
    const Network::Uri uri(name);
    NetworkAddress address;
    address.text = name;
    address.kind = kindOf(uri.Scheme(), name);
    const std::string form = uri.Scheme() + "://HOST:PORT";
    if (!uri.UserInfo().empty() || uri.Path().size() > 1 || name.find('#') != name.npos) {
        refuse("the address has more than a host and a port", name, "write " + form);
    }
    const std::string authority = authorityOf(name);
    if (authority.find(':') != authority.rfind(':')) {
        refuse("addresses of IPv6 are not supported", name, "use an IPv4 address or a name");
    }
    if (uri.Host().empty()) {
        refuse("the address has no host", name, "write " + form);
    }
    const std::string digits = portText(authority);
    if (digits.empty()) {
        refuse("the address has no port", name, "write " + form);
    }
    address.host = uri.Host();
    address.port = wholeNumber(digits, 1, kMostPort);
    if (address.port < 0) {
        refuse("the port is no number from 1 to 65535", name, "write " + form);
    }
    takeOptions(address, uri.Query(), use);
    return address;
}

sockaddr_in NetworkAddress::Resolve() const {
    sockaddr_in resolved{};
    resolved.sin_family = AF_INET;
    resolved.sin_port = htons(static_cast<std::uint16_t>(port));
    const std::string dotted = Transport::SelectTransport::Resolve(host);
    if (::inet_pton(AF_INET, dotted.c_str(), &resolved.sin_addr) != 1) {
        throw ProblemError(ExitCode::CannotOpen,
                           {"the host has no IPv4 address", text, "check the name, or write an address"});
    }
    if (hasInterface && !IsGroup(resolved)) {
        refuse("an interface is for multicast groups only", text, "leave ?interface away");
    }
    return resolved;
}

bool NetworkAddress::IsGroup(const sockaddr_in& resolved) const {
    return kind == Kind::Udp && IN_MULTICAST(ntohl(resolved.sin_addr.s_addr));
}

std::string addressText(const sockaddr_in& address) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
    return std::string(text).append(":").append(std::to_string(ntohs(address.sin_port)));
}

}  // namespace Mivra::Tool
