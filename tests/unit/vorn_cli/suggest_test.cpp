#include "tools/vorn/suggest.h"

#include <gtest/gtest.h>

using namespace vorn_cli;

namespace {

TEST(Suggest, CountsInsertionsDeletionsReplacementsAndSwaps) {
    EXPECT_EQ(edit_distance("", ""), 0u);
    EXPECT_EQ(edit_distance("abc", "abc"), 0u);
    EXPECT_EQ(edit_distance("", "abc"), 3u);
    EXPECT_EQ(edit_distance("abc", ""), 3u);
    EXPECT_EQ(edit_distance("abc", "axc"), 1u);
    EXPECT_EQ(edit_distance("abc", "acb"), 1u);
    EXPECT_EQ(edit_distance("abcd", "bcd"), 1u);
    EXPECT_EQ(edit_distance("kitten", "sitting"), 3u);
}

TEST(Suggest, FindsTheNearestAndOnlyIfItIsNear) {
    const std::vector<std::string> words = {"record", "replay", "verify"};
    EXPECT_EQ(closest("recrod", words), "record");
    EXPECT_EQ(closest("REPLAY", words), "replay");
    EXPECT_EQ(closest("xyz", words), "");
    EXPECT_EQ(closest("", words), "");
    EXPECT_EQ(closest(std::string(100000, 'a'), words), "");
    EXPECT_EQ(did_you_mean("verfy", words), "; did you mean verify?");
    EXPECT_EQ(did_you_mean("nothing", words), "");
}

} // namespace
