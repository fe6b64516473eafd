// `vorn sim` as a program.

#include "session_program.h"

#include "tests/system/vorn_check/run_program.h"

#include <filesystem>

using vorn_session::contains;
using vorn_session::lines;

namespace {

class Sim : public vorn_session::SessionProgram {
protected:
    // As the system's own program has it.
    std::string sha256(const std::string& file) const {
        const auto run = vorn_check::run_program({"sha256sum", file}, directory_.path());
        EXPECT_EQ(run.exit_status, 0) << run.err;
        return run.out.substr(0, 64);
    }
    bool exists(const std::string& file) const { return std::filesystem::exists(name(file)); }
};

TEST_F(Sim, TheSameSeedAndOptionsGiveTheSameBytes) {
    sim("a", {"--seed", "5"});
    sim("b", {"--seed", "5"});
    sim("c", {"--seed", "6"});
    EXPECT_TRUE(content("a.pcap") == content("b.pcap"));
    EXPECT_TRUE(content("a.truth") == content("b.truth"));
    EXPECT_FALSE(content("a.pcap") == content("c.pcap"));
    EXPECT_FALSE(content("a.truth") == content("c.truth"));
}

TEST_F(Sim, TheManifestFitsTheFiles) {
    sim("s", {"--seed", "9", "--set", "lines=a"});
    const auto manifest = nlohmann::json::parse(content("s.manifest.json"));
    EXPECT_EQ(manifest["capture"], "s.pcap");
    EXPECT_EQ(manifest["truth"], "s.truth");
    EXPECT_EQ(manifest["capture_sha256"], sha256("s.pcap"));
    EXPECT_EQ(manifest["truth_sha256"], sha256("s.truth"));
    EXPECT_EQ(manifest["seed"], 9);
    EXPECT_EQ(manifest["instruments"], 30);
    EXPECT_EQ(manifest["changes"], 3030); // with the closing sweep
    EXPECT_EQ(manifest["datagrams"], 3030);
    EXPECT_EQ(manifest["frames"].get<uint64_t>(),
              manifest["datagrams"].get<uint64_t>() + manifest["tcp_segments"].get<uint64_t>());
    EXPECT_GE(manifest["shfe_rounds"], 1);
    EXPECT_GE(manifest["ine_rounds"], 1);
    EXPECT_EQ(manifest["set"], nlohmann::json::array({"lines=a"}));
    EXPECT_LT(manifest["first_ns"].get<uint64_t>(), manifest["last_ns"].get<uint64_t>());
}

TEST_F(Sim, JsonIsTheManifest) {
    const auto run =
        vorn({"sim", "-o", "s.pcap", "--changes", "500", "--instruments", "10", "--json"});
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_EQ(lines(run.out), 1u);
    EXPECT_EQ(nlohmann::json::parse(run.out), nlohmann::json::parse(content("s.manifest.json")));
}

TEST_F(Sim, WithoutTruth) {
    sim("s", {"--no-truth"});
    EXPECT_FALSE(exists("s.truth"));
    EXPECT_FALSE(nlohmann::json::parse(content("s.manifest.json")).contains("truth"));
}

TEST_F(Sim, NothingIsReplacedUnasked) {
    for (const char* taken : {"s.pcap", "s.truth", "s.manifest.json"}) {
        directory_.write(taken, "mine");
        const auto run = vorn({"sim", "-o", "s.pcap", "--changes", "500"});
        EXPECT_EQ(run.exit_status, 2) << taken;
        EXPECT_EQ(lines(run.err), 1u) << run.err;
        EXPECT_TRUE(contains(run.err, taken)) << run.err;
        EXPECT_TRUE(contains(run.err, "-f")) << run.err;
        EXPECT_EQ(content(taken), "mine");
        std::filesystem::remove(name(taken));
        EXPECT_TRUE(std::filesystem::is_empty(directory_.path()));
    }
}

TEST_F(Sim, ForceReplaces) {
    sim("fresh", {"--seed", "2"});
    sim("s", {"--seed", "1"});
    sim("s", {"--seed", "2", "-f"});
    EXPECT_TRUE(content("s.pcap") == content("fresh.pcap"));
    EXPECT_TRUE(content("s.truth") == content("fresh.truth"));
}

TEST_F(Sim, AWrongCommandLineIsOneLineAndStatusTwo) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"sim"}, "-o session.pcap"},
        {{"sim", "-o", "s.txt"}, ".pcap"},
        {{"sim", "-o", "s.pcap", "--set", "lines"}, "key=value"},
        {{"sim", "-o", "s.pcap", "--set", "lines=c"}, "lines"},
        {{"sim", "-o", "s.pcap", "--set", "no_such=1"}, "no_such"},
        {{"sim", "-o", "s.pcap", "--instruments", "0"}, "instruments"},
        {{"sim", "-o", "s.pcap", "--instruments", "20481"}, "instruments"},
        {{"sim", "-o", "s.pcap", "--rate", "x"}, "rate"},
        {{"sim", "-o", "s.pcap", "--seconds", "x"}, "seconds"},
        {{"sim", "-o", "s.pcap", "--sede", "1"}, "--seed"},
        {{"sim", "s.pcap"}, "s.pcap"},
        {{"verify"}, "CAPTURE"},
        {{"verify", "a", "b"}, "'b'"},
        {{"verify", "a", "--allow-restart"}, "--allow-restarts"},
        {{"replay"}, "CAPTURE"},
        {{"replay", "a", "--speed", "0"}, "speed"},
        {{"replay", "a", "--speed", "-1"}, "speed"},
    };
    for (const auto& [arguments, says] : cases) {
        const auto run = vorn(arguments);
        EXPECT_EQ(run.exit_status, 2) << says;
        EXPECT_EQ(run.out, "") << says;
        EXPECT_EQ(lines(run.err), 1u) << run.err;
        EXPECT_TRUE(contains(run.err, says)) << run.err;
    }
    EXPECT_TRUE(std::filesystem::is_empty(directory_.path()));
}

TEST_F(Sim, ADirectoryThatIsNotThere) {
    const auto run = vorn({"sim", "-o", "absent/s.pcap", "--changes", "500"});
    EXPECT_EQ(run.exit_status, 1);
    EXPECT_EQ(lines(run.err), 1u) << run.err;
    EXPECT_TRUE(contains(run.err, "absent/s.")) << run.err;
}

TEST_F(Sim, HelpHasExamplesAndTheSimulatorsOptions) {
    const auto run = vorn({"sim", "--help"});
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_TRUE(contains(run.out, "\nexamples:\n  vorn sim -o session.pcap")) << run.out;
    EXPECT_TRUE(contains(run.out, "\nshfe2ps_ip_a ")) << run.out;
}

} // namespace
