#include "tools/vorn/serve/listen_address.h"

#include "tools/vorn/exit_code.h"

#include <gtest/gtest.h>

using namespace vorn_cli;

namespace {

TEST(ListenAddress, IsAnAddressAndAPort) {
    EXPECT_EQ(parse_listen_address("127.0.0.1:8710").host, "127.0.0.1");
    EXPECT_EQ(parse_listen_address("127.0.0.1:8710").port, 8710);
    EXPECT_EQ(parse_listen_address("[::1]:0").host, "::1");
    EXPECT_EQ(parse_listen_address("[::1]:0").port, 0);
    EXPECT_EQ(parse_listen_address("localhost:65535").port, 65535);
}

TEST(ListenAddress, RefusesWhatIsNone) {
    for (const char* text : {"", "8710", "127.0.0.1", "127.0.0.1:", ":8710", "127.0.0.1:x",
                             "127.0.0.1:65536", "127.0.0.1:-1", "::1:80", "[]:80", "h:80x"}) {
        EXPECT_THROW(parse_listen_address(text), Failure) << text;
    }
}

TEST(ListenAddress, IsWrittenAsInALink) {
    EXPECT_EQ(authority_of({"127.0.0.1", 8710}), "127.0.0.1:8710");
    EXPECT_EQ(authority_of({"::1", 80}), "[::1]:80");
}

TEST(Loopback, IsThisMachineOnly) {
    for (const char* host : {"127.0.0.1", "127.9.9.9", "::1", "localhost"}) {
        EXPECT_TRUE(is_loopback(host)) << host;
    }
    for (const char* host : {"0.0.0.0", "::", "10.0.0.1", "128.0.0.1", "localhost.example", "",
                             "127.0.0.1.example", "::2"}) {
        EXPECT_FALSE(is_loopback(host)) << host;
    }
}

TEST(HostHeader, IsTakenWithoutItsPort) {
    EXPECT_EQ(host_of_header("localhost:8710"), "localhost");
    EXPECT_EQ(host_of_header("LocalHost"), "localhost");
    EXPECT_EQ(host_of_header("[::1]:8710"), "::1");
    EXPECT_EQ(host_of_header("[::1"), "");
    EXPECT_EQ(host_of_header(""), "");
}

} // namespace
