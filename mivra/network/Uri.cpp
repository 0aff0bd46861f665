#include "mivra/network/Uri.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace Mivra::Network {
namespace {

constexpr std::string_view kSchemeEnd = "://";
constexpr int kMaxPort = 65535;

// ASCII only: the process's locale has no say here.
bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

char toLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool isScheme(std::string_view text) {
    return !text.empty() && isLetter(text.front()) && std::all_of(text.begin(), text.end(), [](char c) {
        return isLetter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
    });
}

int parsePort(std::string_view text) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && value >= 0 && value <= kMaxPort ? value : 0;
}

}  // namespace

Uri::Uri(const std::string& uri) : text(uri) {
    const std::size_t schemeEnd = text.find(kSchemeEnd);
    if (schemeEnd == std::string::npos || !isScheme(std::string_view(text).substr(0, schemeEnd))) {
        path = text;
        return;
    }
    scheme = text.substr(0, schemeEnd);
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), toLower);

    const std::string rest = text.substr(schemeEnd + kSchemeEnd.size());
    const std::string hierarchy = rest.substr(0, rest.find('#'));
    const std::size_t queryStart = hierarchy.find('?');
    if (queryStart != std::string::npos) {
        query = hierarchy.substr(queryStart + 1);
    }
    const std::string beforeQuery = hierarchy.substr(0, queryStart);
    const std::size_t pathStart = beforeQuery.find('/');
    if (pathStart != std::string::npos) {
        path = beforeQuery.substr(pathStart);
    }
    parseAuthority(beforeQuery.substr(0, pathStart));
}

void Uri::parseAuthority(const std::string& authority) {
    std::string_view rest = authority;
    if (const std::size_t at = rest.rfind('@'); at != std::string_view::npos) {
        userInfo = rest.substr(0, at);
        rest.remove_prefix(at + 1);
    }
    if (const std::size_t bracket = rest.find(']'); rest.starts_with('[') && bracket != rest.npos) {
        host = rest.substr(1, bracket - 1);
        rest.remove_prefix(bracket + 1);
    } else {
        const std::size_t colon = std::min(rest.find(':'), rest.size());
        host = rest.substr(0, colon);
        rest.remove_prefix(colon);
    }
    if (rest.starts_with(':')) {
        port = parsePort(rest.substr(1));
    }
}

}  // namespace Mivra::Network
