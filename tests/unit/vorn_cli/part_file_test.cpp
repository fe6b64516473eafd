#include "tools/vorn/part_file.h"

#include "tests/support/temp_dir.h"
#include "tools/vorn/exit_code.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

using namespace vorn_cli;
namespace fs = std::filesystem;

namespace {

void put(const PartFile& file, std::string_view text) {
    ASSERT_EQ(::write(file.descriptor(), text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
}

// Runs `action`, which must fail, and returns the code and text of the failure.
template <typename Action>
std::pair<int, std::string> failure_of(Action action) {
    try {
        action();
    } catch (const Failure& failure) {
        return {failure.code(), failure.what()};
    }
    ADD_FAILURE() << "no failure";
    return {};
}

class PartFiles : public testing::Test {
protected:
    std::string name(const char* file) const { return (directory_.path() / file).string(); }

    support::TempDir directory_;
};

TEST_F(PartFiles, TakesItsNameOnlyWhenItIsWhole) {
    PartFile file(name("day.csv"), false);
    put(file, "row\n");
    EXPECT_FALSE(fs::exists(name("day.csv")));
    EXPECT_TRUE(fs::exists(name("day.csv.part")));
    file.commit();
    EXPECT_EQ(support::read_file(name("day.csv")), "row\n");
    EXPECT_FALSE(fs::exists(name("day.csv.part")));
}

TEST_F(PartFiles, IsGoneWithoutCommit) {
    {
        PartFile file(name("day.csv"), false);
        put(file, "half");
    }
    EXPECT_TRUE(fs::is_empty(directory_.path()));
}

TEST_F(PartFiles, RefusesAnExistingTarget) {
    directory_.write("day.csv", "old");
    const auto [code, text] = failure_of([&] { PartFile file(name("day.csv"), false); });
    EXPECT_EQ(code, kUsage);
    EXPECT_NE(text.find("-f"), std::string::npos) << text;
    EXPECT_EQ(support::read_file(name("day.csv")), "old");
    EXPECT_FALSE(fs::exists(name("day.csv.part")));
}

TEST_F(PartFiles, ReplacesAnExistingTargetByForce) {
    directory_.write("day.csv", "old");
    PartFile file(name("day.csv"), true);
    put(file, "new");
    EXPECT_EQ(support::read_file(name("day.csv")), "old");
    file.commit();
    EXPECT_EQ(support::read_file(name("day.csv")), "new");
}

TEST_F(PartFiles, DoesNotReplaceWhatCameToExistMeanwhile) {
    PartFile file(name("day.csv"), false);
    put(file, "mine");
    directory_.write("day.csv", "theirs");
    EXPECT_EQ(failure_of([&] { file.commit(); }).first, kUsage);
    EXPECT_EQ(support::read_file(name("day.csv")), "theirs");
}

TEST_F(PartFiles, TakesOverAPartThatWasLeftBehind) {
    directory_.write("day.csv.part", "a long rest of an earlier run");
    PartFile file(name("day.csv"), false);
    put(file, "row");
    file.commit();
    EXPECT_EQ(support::read_file(name("day.csv")), "row");
}

TEST_F(PartFiles, RefusesAPartThatIsBeingWritten) {
    PartFile file(name("day.csv"), false);
    put(file, "row");
    EXPECT_EQ(failure_of([&] { PartFile other(name("day.csv"), true); }).first, kFailed);
    file.commit();
    EXPECT_EQ(support::read_file(name("day.csv")), "row");
}

TEST_F(PartFiles, FollowsALinkInsteadOfReplacingIt) {
    directory_.write("real.csv", "old");
    fs::create_symlink("real.csv", directory_.path() / "link.csv");
    PartFile file(name("link.csv"), true);
    put(file, "new");
    file.commit();
    EXPECT_TRUE(fs::is_symlink(name("link.csv")));
    EXPECT_EQ(support::read_file(name("real.csv")), "new");
}

TEST_F(PartFiles, WritesADeviceDirectly) {
    PartFile file("/dev/null", false);
    put(file, "row");
    file.commit();
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(PartFiles, SaysWhyItCannotBe) {
    EXPECT_EQ(failure_of([&] { PartFile file(directory_.path().string(), false); }).first, kUsage);
    const auto [code, text] = failure_of([&] { PartFile file(name("no/day.csv"), false); });
    EXPECT_EQ(code, kFailed);
    EXPECT_NE(text.find("No such file"), std::string::npos) << text;
}

} // namespace
