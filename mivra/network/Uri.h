#pragma once

#include <string>

#include "mivra/common/runtime/Export.h"

namespace Mivra::Network {

/// A URI and its parts (RFC 3986, 3), as written: nothing is decoded or normalized. Text without "://" is
/// a plain path, taken whole, so names of files and "-" survive. A value; copies are independent.
class MIVRA_API Uri {
public:
    Uri() = default;
    Uri(const std::string& text);

    /// The text it was made from.
    const std::string& ToString() const noexcept { return text; }

    /// Lower case; empty for a plain path.
    const std::string& Scheme() const noexcept { return scheme; }
    /// Without the brackets of an IPv6 address.
    const std::string& Host() const noexcept { return host; }
    /// 0 when there is none, or none between 0 and 65535.
    int Port() const noexcept { return port; }
    /// From its "/" on; for a plain path the whole text.
    const std::string& Path() const noexcept { return path; }
    /// Without its "?"; a fragment belongs to no part.
    const std::string& Query() const noexcept { return query; }
    /// What stands before "@".
    const std::string& UserInfo() const noexcept { return userInfo; }

    bool operator==(const Uri& other) const noexcept { return text == other.text; }

private:
    void parseAuthority(const std::string& authority);

    std::string text;
    std::string scheme;
    std::string userInfo;
    std::string host;
    int port = 0;
    std::string path;
    std::string query;
};

}  // namespace Mivra::Network
