#include "tools/vorn/serve/listen_address.h"

#include "tools/vorn/exit_code.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <charconv>
#include <fmt/format.h>

namespace vorn_cli {

ListenAddress parse_listen_address(const std::string& text) {
    const auto wrong = [&](const char* why) {
        return Failure(kUsage, fmt::format("--listen '{}': {} (as in 127.0.0.1:8710 or [::1]:8710)",
                                           text, why));
    };
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        throw wrong("the port is missing");
    }
    ListenAddress address;
    address.host = text.substr(0, colon);
    const bool bracketed = address.host.starts_with('[') && address.host.ends_with(']');
    if (bracketed) {
        address.host = address.host.substr(1, address.host.size() - 2);
    } else if (address.host.find(':') != std::string::npos) {
        throw wrong("an IPv6 address stands in brackets");
    }
    if (address.host.empty()) {
        throw wrong("the address is missing");
    }
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, address.port);
    if (error != std::errc() || stop != end || colon + 1 == text.size()) {
        throw wrong("the port is a number from 0 to 65535");
    }
    return address;
}

bool is_loopback(const std::string& host) {
    in_addr v4{};
    if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    in6_addr v6{};
    if (::inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
        return IN6_IS_ADDR_LOOPBACK(&v6);
    }
    return host == "localhost";
}

std::string authority_of(const ListenAddress& address) {
    const bool v6 = address.host.find(':') != std::string::npos;
    return fmt::format("{}{}{}:{}", v6 ? "[" : "", address.host, v6 ? "]" : "", address.port);
}

std::string host_of_header(const std::string& header) {
    std::string host = header;
    if (host.starts_with('[')) {
        const std::size_t close = host.find(']');
        host = close == std::string::npos ? std::string() : host.substr(1, close - 1);
    } else if (const std::size_t colon = host.find(':'); colon != std::string::npos) {
        host.resize(colon);
    }
    std::transform(host.begin(), host.end(), host.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return host;
}

} // namespace vorn_cli
