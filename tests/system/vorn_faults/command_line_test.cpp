// --fault as the subcommands take it.

#include "faulty_session.h"

#include <filesystem>

using vorn_session::contains;
using vorn_session::lines;

namespace {

using namespace vorn_faults;

class FaultOptions : public FaultySession {};

TEST_F(FaultOptions, ASessionWrittenWithFaultsIsTheOnePlayedWithThem) {
    const std::vector<std::string> faults = {"gap@0.3:2", "tcp-duplicate:3+duplicate:10"};
    make();
    const Outcome played = verify(faults, {}, "5");
    make({"--fault", faults[0], "--fault", faults[1], "--fault-seed", "5"});
    const Outcome written = verify({});
    expect_equal(played);
    expect_equal(written);
    for (const char* same : {"updates", "cached", "replayed", "stale", "gaps", "restarts",
                             "raw_frames", "decode_buffers", "messages"}) {
        EXPECT_EQ(played.summary.at(same), written.summary.at(same)) << same;
    }
    EXPECT_EQ(written.count("restarts"), 1u);
    const auto manifest = nlohmann::json::parse(content("s.manifest.json"));
    EXPECT_EQ(manifest["faults"], nlohmann::json(faults));
    EXPECT_EQ(manifest["fault_seed"], 5);
}

TEST_F(FaultOptions, TheSameSeedGivesTheSameCapture) {
    std::string captures[3];
    const char* const seeds[] = {"3", "3", "4"};
    for (int i = 0; i < 3; ++i) {
        make({"--fault", "gap+bad-checksum+tcp-reorder", "--fault-seed", seeds[i]});
        captures[i] = content("s.pcap");
    }
    EXPECT_TRUE(captures[0] == captures[1]);
    EXPECT_FALSE(captures[0] == captures[2]);
}

TEST_F(FaultOptions, TheTruthIsThatOfTheUndisturbedSession) {
    make();
    const std::string truth = content("s.truth");
    const std::string capture = content("s.pcap");
    make({"--fault", "gap:5+line-a-loss:100"});
    EXPECT_TRUE(content("s.truth") == truth);
    EXPECT_FALSE(content("s.pcap") == capture);
}

TEST_F(FaultOptions, ReplayReportsWhatTheFaultDid) {
    make();
    const auto run = vorn({"replay", "s.pcap", "--json", "--fault", "gap"});
    EXPECT_EQ(run.exit_status, 3);
    const auto object = nlohmann::json::parse(run.out);
    EXPECT_EQ(object["gaps"], 1);
    EXPECT_EQ(object["restarts"], 1);
}

TEST_F(FaultOptions, AnOverflowHasNoPlaceInACapture) {
    const auto run = vorn({"sim", "-o", "o.pcap", "--fault", "gap", "--fault", "overflow@1:5"});
    EXPECT_EQ(run.exit_status, 2);
    EXPECT_EQ(lines(run.err), 1u) << run.err;
    EXPECT_TRUE(contains(run.err, "overflow happens in the card")) << run.err;
    EXPECT_TRUE(contains(run.err, "vorn replay")) << run.err;
    EXPECT_TRUE(std::filesystem::is_empty(directory_.path()));
}

TEST_F(FaultOptions, AMistakeIsOneLineThatSaysWhatWouldWork) {
    make();
    const std::pair<const char*, const char*> cases[] = {
        {"gapp", "did you mean gap?; there are gap, duplicate, "},
        {"gap@soon", "behind @ stand seconds"},
        {"gap:none", "behind : stands a whole number"},
        {"gap:2@1", "the time comes before the count"},
    };
    for (const auto& [fault, says] : cases) {
        for (const char* command : {"sim", "replay", "verify"}) {
            std::vector<std::string> arguments = {command, "--fault", fault};
            if (arguments[0] == "sim") {
                arguments.insert(arguments.end(), {"-o", "other.pcap"});
            } else {
                arguments.emplace_back("s.pcap");
            }
            const auto run = vorn(arguments);
            EXPECT_EQ(run.exit_status, 2) << command << ' ' << fault;
            EXPECT_EQ(run.out, "");
            EXPECT_EQ(lines(run.err), 1u) << run.err;
            EXPECT_TRUE(contains(run.err, says)) << run.err;
        }
    }
}

TEST_F(FaultOptions, HelpListsTheKinds) {
    for (const char* command : {"sim", "replay", "verify"}) {
        const auto run = vorn({command, "--help"});
        EXPECT_EQ(run.exit_status, 0);
        EXPECT_TRUE(contains(run.out, "\n  late-snapshot  a snapshot round arrives 100 ms late"))
            << run.out;
    }
}

} // namespace
