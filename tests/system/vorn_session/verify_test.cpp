// `vorn verify` as a program.

#include "session_capture.h"
#include "session_program.h"

#include <filesystem>

using vorn_session::contains;
using vorn_session::lines;

namespace {

class Verify : public vorn_session::SessionProgram {};

TEST_F(Verify, AFreshSessionEqualsItsTruth) {
    sim("s");
    const auto run = vorn({"verify", "s.pcap"});
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(contains(run.err, "updates of 30 instruments equal the truth")) << run.err;
    const auto quiet = vorn({"verify", "s.pcap", "-q"});
    EXPECT_EQ(quiet.exit_status, 0);
    EXPECT_EQ(quiet.err, "");
}

TEST_F(Verify, JsonEndsWithASummary) {
    sim("s", {"--set", "lines=a"});
    const auto run = vorn({"verify", "s.pcap", "--json"});
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_EQ(lines(run.out), 1u);
    const auto summary = nlohmann::json::parse(run.out);
    EXPECT_EQ(summary["type"], "summary");
    EXPECT_EQ(summary["differences"], 0);
    EXPECT_EQ(summary["instruments"], 30);
    EXPECT_EQ(summary["instruments_updated"], 30);
    EXPECT_EQ(summary["updates"], summary["live_applied"]);
}

TEST_F(Verify, OneFeedAlone) {
    for (const char* feed : {"shfe", "ine"}) {
        sim(feed, {"--set", std::string("feeds=") + feed});
        directory_.write("one.ini", std::string("[config]\ninsts = all\nshfe2ps = ") +
                                        (feed[0] == 's' ? "enabled\nine2ps = disabled\n"
                                                        : "disabled\nine2ps = enabled\n"));
        const auto run = vorn({"verify", std::string(feed) + ".pcap", "--config", "one.ini"});
        EXPECT_EQ(run.exit_status, 0) << run.out << run.err;
    }
}

TEST_F(Verify, TheTruthOfAnotherSessionDiffers) {
    sim("s", {"--seed", "1"});
    sim("other", {"--seed", "2"});
    const auto run = vorn({"verify", "s.pcap", "--truth", "other.truth"});
    EXPECT_EQ(run.exit_status, 3);
    EXPECT_EQ(lines(run.err), 1u) << run.err;
    EXPECT_TRUE(contains(run.err, "differences in ")) << run.err;
    EXPECT_EQ(lines(run.out), 11u) << run.out; // the first ten, and how many more
    EXPECT_TRUE(contains(run.out, ": expected ")) << run.out;
    const auto json = vorn({"verify", "s.pcap", "--truth", "other.truth", "--json"});
    EXPECT_EQ(json.exit_status, 3);
    EXPECT_EQ(lines(json.out), 11u);
    EXPECT_EQ(nlohmann::json::parse(json.out.substr(0, json.out.find('\n')))["type"], "difference");
}

TEST_F(Verify, WhatCannotBeReadIsNamed) {
    sim("s");
    const auto no_truth = vorn({"verify", "absent.pcap"});
    EXPECT_EQ(no_truth.exit_status, 1);
    EXPECT_EQ(lines(no_truth.err), 1u) << no_truth.err;
    EXPECT_TRUE(contains(no_truth.err, "absent.truth: No such file")) << no_truth.err;
    const auto no_capture = vorn({"verify", "absent.pcap", "--truth", "s.truth"});
    EXPECT_EQ(no_capture.exit_status, 1);
    EXPECT_EQ(lines(no_capture.err), 1u) << no_capture.err;
    EXPECT_TRUE(contains(no_capture.err, "absent.pcap: No such file")) << no_capture.err;
    const auto no_replay = vorn({"replay", "absent.pcap"});
    EXPECT_EQ(no_replay.exit_status, 1);
    EXPECT_TRUE(contains(no_replay.err, "absent.pcap: No such file")) << no_replay.err;
}

TEST_F(Verify, ADamagedTruthIsNamed) {
    sim("s");
    const std::string truth = content("s.truth");
    directory_.write("s.truth", truth.substr(0, truth.size() - 1));
    const auto cut = vorn({"verify", "s.pcap"});
    EXPECT_EQ(cut.exit_status, 1);
    EXPECT_TRUE(contains(cut.err, "s.truth is no whole truth file")) << cut.err;
    std::string damaged = truth;
    damaged[64 + 30 * 24] = '\xFF'; // instrument of the first change
    damaged[64 + 30 * 24 + 1] = '\xFF';
    directory_.write("s.truth", damaged);
    const auto run = vorn({"verify", "s.pcap"});
    EXPECT_EQ(run.exit_status, 1);
    EXPECT_EQ(lines(run.err), 1u) << run.err;
    EXPECT_TRUE(contains(run.err, "s.truth is damaged: change 1 ")) << run.err;
}

TEST_F(Verify, ACaptureThatIsNone) {
    sim("s");
    directory_.write("s.pcap", "this is no capture of anything at all");
    const auto run = vorn({"verify", "s.pcap"});
    EXPECT_EQ(run.exit_status, 1);
    EXPECT_TRUE(contains(run.err, "s.pcap")) << run.err;
}

TEST_F(Verify, WithoutARoundThereIsNothingToHold) {
    sim("s", {"--set", "rounds=0"});
    const auto run = vorn({"verify", "s.pcap"});
    EXPECT_EQ(run.exit_status, 3) << run.err;
    EXPECT_EQ(lines(run.err), 1u) << run.err;
    EXPECT_TRUE(contains(run.err, "no update")) << run.err;
}

// The end of the session is missing; every update that came is right.
TEST_F(Verify, ACaptureThatStopsShortDiffers) {
    sim("s", {"--set", "lines=a"});
    vorn_session::SessionCapture capture(content("s.pcap"));
    const std::size_t last = capture.changes().back();
    const auto id = capture.first_rounds().at(capture.instrument(last)).record.inst_id;
    capture.drop(last);
    directory_.write("s.pcap", capture.bytes());
    const auto run = vorn({"verify", "s.pcap"});
    EXPECT_EQ(run.exit_status, 3);
    EXPECT_TRUE(contains(run.out, std::string(id.data()) + " change ")) << run.out;
    EXPECT_TRUE(contains(run.out, "last change: expected ")) << run.out;
}

} // namespace
