#include "tools/vorn/serve/access.h"

#include "tests/support/temp_dir.h"
#include "tools/vorn/exit_code.h"

#include <gtest/gtest.h>

using namespace vorn_cli;

namespace {

TEST(Token, IsLongEnoughAndNeedsNoQuoting) {
    EXPECT_EQ(token_fault("abcdefgh"), "");
    EXPECT_EQ(token_fault("Az09-_.~Az09"), "");
    EXPECT_EQ(token_fault("short"), "a token has 8 to 256 characters, this one 5");
    EXPECT_NE(token_fault(std::string(257, 'a')), "");
    EXPECT_NE(token_fault("with blank"), "");
    EXPECT_NE(token_fault("semi;colon"), "");
    EXPECT_NE(token_fault("line\nbreak"), "");
}

TEST(Token, ComparesTheWholeOfIt) {
    EXPECT_TRUE(same_token("abcdefgh", "abcdefgh"));
    EXPECT_FALSE(same_token("abcdefgx", "abcdefgh"));
    EXPECT_FALSE(same_token("xbcdefgh", "abcdefgh"));
    EXPECT_FALSE(same_token("abcdefg", "abcdefgh"));
    EXPECT_FALSE(same_token("abcdefghabcdefgh", "abcdefgh")); // the token twice
    EXPECT_FALSE(same_token("", "abcdefgh"));
}

TEST(Token, NoTokenIsNeverTheRightOne) {
    EXPECT_FALSE(same_token("", ""));
    EXPECT_FALSE(same_token("anything", ""));
}

TEST(Token, ComesFromTheFirstLineOfAFile) {
    const support::TempDir directory;
    EXPECT_EQ(read_token_file(directory.write("a", "  abcdefgh\r\nmore\n")), "abcdefgh");
    EXPECT_THROW(read_token_file(directory.write("b", "")), Failure);
    EXPECT_THROW(read_token_file(directory.write("c", "\nabcdefgh\n")), Failure);
    EXPECT_THROW(read_token_file(directory.path() / "missing"), Failure);
}

TEST(Token, IsFoundAmongOtherCookies) {
    EXPECT_EQ(cookie_value("vorn_token=abc", "vorn_token"), "abc");
    EXPECT_EQ(cookie_value("a=1; vorn_token=abc; b=2", "vorn_token"), "abc");
    EXPECT_EQ(cookie_value("xvorn_token=abc", "vorn_token"), "");
    EXPECT_EQ(cookie_value("vorn_tokens=abc", "vorn_token"), "");
    EXPECT_EQ(cookie_value("vorn_token", "vorn_token"), "");
    EXPECT_EQ(cookie_value(";;;", "vorn_token"), "");
    EXPECT_EQ(cookie_value("", "vorn_token"), "");
}

TEST(Token, IsFoundInTheAuthorizationHeader) {
    EXPECT_EQ(bearer_token("Bearer abc"), "abc");
    EXPECT_EQ(bearer_token("bearer  abc "), "abc");
    EXPECT_EQ(bearer_token("Basic abc"), "");
    EXPECT_EQ(bearer_token("Bearer"), "");
    EXPECT_EQ(bearer_token("Bearerabc"), "");
    EXPECT_EQ(bearer_token(""), "");
}

TEST(Token, LeavesTheAddress) {
    EXPECT_EQ(without_token("/?token=abc"), "/");
    EXPECT_EQ(without_token("/?a=1&token=abc&b=2"), "/?a=1&b=2");
    EXPECT_EQ(without_token("/?token=a&token=b"), "/");
    EXPECT_EQ(without_token("/?mytoken=abc"), "/?mytoken=abc");
    EXPECT_EQ(without_token("/page"), "/page");
}

} // namespace
