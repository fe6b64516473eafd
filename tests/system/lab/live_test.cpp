// `vorn sim --live` and `vorn client` as two programs over loopback. The feed cannot listen there,
// but a connection is a connection.

#include "exchange_sim/session.h"
#include "exchange_sim/session_options.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"
#include "tests/system/vorn_check/run_program.h"
#include "wirekit/ethernet.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <string>
#include <unistd.h>

namespace {

constexpr char kSession[] = " --seed 3 --seconds 1 --rate 1000 --instruments 20 ";

// An address of loopback that no other test that runs at the same time listens on.
std::string own_address() {
    const int pid = getpid();
    return "127." + std::to_string(1 + (pid >> 16) % 250) + "." +
           std::to_string((pid >> 8) & 0xFF) + "." + std::to_string(pid & 0xFF);
}

class Live : public testing::Test {
protected:
    support::ChildRun shell(const std::string& script) const {
        return vorn_check::run_program({"sh", "-c", script}, directory_.path());
    }
    support::ChildRun exchange_and_client(const std::string& more) const {
        return shell(vorn_ + " sim --live --interface lo --bind " + address_ + kSession + more +
                     " 2> exchange.err > exchange.out & exchange=$!\n" + vorn_ + " client " +
                     address_ + " --json; client=$?\n" +
                     "wait $exchange || exit 10; test $client = 0 || exit 20\n");
    }
    std::string content(const std::string& name) const {
        return support::read_file(directory_.path() / name);
    }

    const support::TempDir directory_;
    const std::string vorn_ = VORN_PROGRAM;
    const std::string address_ = own_address();
};

std::size_t lines(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

// What the servers of the session send.
uint64_t snapshot_bytes() {
    using namespace exchange_sim;
    Session session(
        parse_session_options("seed=3 seconds=1 changes=0 rate=1000 instruments=20").options);
    uint64_t bytes = 0;
    for (WireFrame frame; session.next(frame);) {
        const auto parsed = wirekit::parse_frame(frame.bytes);
        if (parsed.kind == wirekit::ParsedFrame::Kind::kTcp) {
            bytes += parsed.payload.size();
        }
    }
    return bytes;
}

TEST_F(Live, TheClientReadsEveryByteOfTheRounds) {
    const auto run = exchange_and_client("--json");
    EXPECT_EQ(run.exit_status, 0) << run.err << content("exchange.err");
    EXPECT_EQ(nlohmann::json::parse(run.out)["bytes"], snapshot_bytes());
    const auto sent = nlohmann::json::parse(content("exchange.out"));
    EXPECT_GT(sent["datagrams"], 1000);
    EXPECT_GT(sent["segments"], 0);
}

TEST_F(Live, TheSessionThatIsSentIsTheOneThatItsSeedMakes) {
    const auto run = exchange_and_client("-q -o live.pcap");
    EXPECT_EQ(run.exit_status, 0) << run.err << content("exchange.err");
    const auto made = shell(vorn_ + " sim -q -o made.pcap" + kSession);
    EXPECT_EQ(made.exit_status, 0) << made.err;
    EXPECT_EQ(content("live.pcap"), content("made.pcap"));
    EXPECT_EQ(content("live.truth"), content("made.truth"));
    const auto manifest = nlohmann::json::parse(content("live.manifest.json"));
    EXPECT_EQ(manifest["live"]["datagrams"], manifest["datagrams"]);
}

TEST_F(Live, TheNextExchangeListensAtOnceWhereOneHasClosed) {
    for (int i = 0; i < 2; ++i) {
        const auto run = exchange_and_client("-q");
        EXPECT_EQ(run.exit_status, 0) << run.err << content("exchange.err");
    }
}

TEST_F(Live, AnExchangeWithoutClientsGivesUp) {
    const auto run =
        shell(vorn_ + " sim --live --interface lo --wait 0.2 -o s.pcap --bind " + address_);
    EXPECT_EQ(run.exit_status, 4);
    EXPECT_EQ(lines(run.err), 2u) << run.err; // that it waits, and that nobody came
    EXPECT_NE(run.err.find("no client came to " + address_ + ":33022"), std::string::npos);
    EXPECT_NE(run.err.find("SHFE (its port 50001), INE (its port 50002)"), std::string::npos);
    const auto left = shell("ls -A");
    EXPECT_EQ(left.out, "");
}

TEST_F(Live, AClientWithoutAnExchangeGivesUp) {
    const auto run = shell(vorn_ + " client --wait 0.2 " + address_);
    EXPECT_EQ(run.exit_status, 4);
    EXPECT_EQ(lines(run.err), 1u) << run.err;
    EXPECT_NE(run.err.find("cannot connect to " + address_ + ":33022 from port 5000"),
              std::string::npos)
        << run.err;
}

TEST_F(Live, AClientThatGoesAwayEndsTheSession) {
    const auto run =
        shell(vorn_ + " sim --live --interface lo --seconds 600 --rate 1000 --instruments 20" +
              " --set first_round_ms=50 --set round_interval_ms=50 -o s.pcap --bind " + address_ +
              " 2> exchange.err &\n" + "exchange=$!\n" + vorn_ + " client " + address_ +
              " & client=$!\n" +
              "while [ ! -s s.pcap.part ]; do sleep 0.05; done\n" + // the session is under way
              "kill -9 $client; wait $exchange\n");
    EXPECT_EQ(run.exit_status, 1);
    EXPECT_NE(content("exchange.err").find(" has gone: "), std::string::npos)
        << content("exchange.err");
    const auto left = shell("ls -A");
    EXPECT_EQ(left.out, "exchange.err\n"); // no half of a session
}

TEST_F(Live, AnInterruptEndsTheExchangeInOrder) {
    const auto run = shell(vorn_ + " sim --live --interface lo --bind " + address_ +
                           " 2> exchange.err & exchange=$!\n" +
                           "while ! grep -q waiting exchange.err; do sleep 0.05; done\n" +
                           "kill -TERM $exchange; wait $exchange\n");
    EXPECT_EQ(run.exit_status, 0) << content("exchange.err");
}

struct MistakeCase {
    const char* name;
    const char* arguments;
    const char* text;
};

const MistakeCase kMistakes[] = {
    {"NoInterface", "sim --live", "--live needs the interface to send on: --interface IF"},
    {"MissingInterface", "sim --live --interface absent0", "there is no interface absent0"},
    {"NotLive", "sim -o s.pcap --interface lo", "--interface requires --live"},
    {"BindIsNoAddress", "sim --live --interface lo --bind here", "--bind takes an IPv4 address"},
    {"Faults", "sim --live --interface lo --fault gap", "--live sends the session as it is"},
    {"SpeedZero", "sim --live --interface lo --speed 0", "--speed must be greater than 0"},
    {"HostIsNoAddress", "client exchange", "HOST is an IPv4 address, not 'exchange'"},
    {"NoHost", "client", "HOST is required"},
    {"VerifyWithoutAll", "verify --config a.ini", "say what to verify"},
};

TEST_F(Live, MistakesOnTheCommandLineAreNamed) {
    for (const MistakeCase& row : kMistakes) {
        const auto run = shell(vorn_ + " " + row.arguments);
        EXPECT_EQ(run.exit_status, 2) << row.name;
        EXPECT_EQ(lines(run.err), 1u) << row.name << run.err;
        EXPECT_NE(run.err.find(row.text), std::string::npos) << row.name << run.err;
    }
}

} // namespace
