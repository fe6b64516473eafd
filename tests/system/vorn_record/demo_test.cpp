// `vorn demo` as a program.

#include "session_run.h"
#include "tests/system/recorder/process.h"

#include <filesystem>
#include <nlohmann/json.hpp>

namespace fs = std::filesystem;
using vorn_record::contains;

namespace {

class Demo : public vorn_record::RecordedSession {
protected:
    const std::vector<std::string> kSmall = {"demo", "--seed",        "4", "--changes",
                                             "6000", "--instruments", "50"};
    support::ChildRun demo(const std::vector<std::string>& more) const {
        auto arguments = kSmall;
        arguments.insert(arguments.end(), more.begin(), more.end());
        return vorn(arguments);
    }
};

TEST_F(Demo, ShowsABookAndHoldsTheTableAgainstTheTruth) {
    const auto run = demo({});
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_TRUE(contains(run.out, "of 50 instruments\n")) << run.out;
    EXPECT_TRUE(contains(run.out, "    ask ")) << run.out;
    EXPECT_TRUE(contains(run.out, "equals the exchange's truth: 50 of 50 records")) << run.out;
    EXPECT_TRUE(fs::is_empty(directory_.path()));
}

TEST_F(Demo, JsonSaysTheSame) {
    const auto run = demo({"--json", "-q"});
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.err, "");
    const auto object = nlohmann::json::parse(run.out);
    EXPECT_EQ(object["equal"], 50);
    EXPECT_EQ(object["different"], 0);
    EXPECT_EQ(object["whole"], true);
    EXPECT_EQ(object["changes"], 6050);
    EXPECT_EQ(object["updates"], object["live_applied"]);
}

TEST_F(Demo, RecordsWhatItShows) {
    const auto first = demo({"--json", "-q", "-o", "demo.pcap"});
    ASSERT_EQ(first.exit_status, 0) << first.err;
    const auto rows = demo({"--json", "-q", "-o", "demo.csv"});
    ASSERT_EQ(rows.exit_status, 0) << rows.err;
    const auto updates = nlohmann::json::parse(first.out)["updates"];
    EXPECT_EQ(vorn_record::lines(content("demo.csv")), updates.get<std::size_t>() + 1);
    const auto replayed = vorn({"replay", "demo.pcap", "--json"});
    EXPECT_EQ(nlohmann::json::parse(replayed.out)["updates"], updates);
}

TEST_F(Demo, RefusesASessionWithoutAnEnd) {
    const auto run = vorn({"demo", "--changes", "0"});
    EXPECT_EQ(run.exit_status, 2);
    EXPECT_TRUE(contains(run.err, "--changes 0")) << run.err;
}

} // namespace
