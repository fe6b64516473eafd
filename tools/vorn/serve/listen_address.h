#pragma once

// Where the page is served: an address and a port as they stand on the command line.

#include <cstdint>
#include <string>

namespace vorn_cli {

struct ListenAddress {
    std::string host; // an IP address or a name, without brackets
    uint16_t port = 0;
};

// "127.0.0.1:8710", "[::1]:8710", "localhost:0" (port 0: any free one). Throws Failure(kUsage).
ListenAddress parse_listen_address(const std::string& text);

// Whether only this machine reaches the address: 127.0.0.0/8, ::1 or localhost.
bool is_loopback(const std::string& host);

// "127.0.0.1:8710", "[::1]:8710": as it stands behind http://.
std::string authority_of(const ListenAddress& address);

// The host of a Host header, without port and brackets, in lower case.
std::string host_of_header(const std::string& header);

} // namespace vorn_cli
