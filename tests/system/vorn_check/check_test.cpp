// `vorn check` as a program.

#include "capture_file.h"
#include "run_program.h"

#include "tests/support/temp_dir.h"
#include "wirekit/ethernet.h"
#include "wirekit/mdqp.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sched.h>
#include <sstream>

using vorn_check::run_program;

namespace {

class CheckProgram : public testing::Test {
protected:
    support::ChildRun check(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {VORN_PROGRAM, "check"});
        return run_program(arguments, directory_.path());
    }
    std::string name(const char* file) const { return (directory_.path() / file).string(); }

    support::TempDir directory_;
};

// A machine without CPU 0, or a container that does not allow it, is told so; the rest of the
// sample is silent anywhere. Simulated sources are the software card's.
TEST_F(CheckProgram, IsSilentOnTheSample) {
    const auto run = check({VORN_SAMPLE_INI, "--cpus", "1"});
    if (std::string(VORN_CARD_IN_USE) != "softcard") {
        EXPECT_EQ(run.exit_status, 2);
        EXPECT_NE(run.out.find("software card"), std::string::npos) << run.out;
        return;
    }
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
}

TEST_F(CheckProgram, FindsACpuThatThisMachineDoesNotHave) {
    directory_.write("vorn.ini", support::read_file(VORN_SAMPLE_INI) + "cpucore = 1023\n");
    const auto run = check({"vorn.ini"});
    EXPECT_EQ(run.exit_status, 2);
    EXPECT_NE(run.out.find("processors, from 0"), std::string::npos) << run.out;
}

TEST_F(CheckProgram, FindsThisMachinesCpusUsable) {
    cpu_set_t allowed;
    ASSERT_EQ(::sched_getaffinity(0, sizeof(allowed), &allowed), 0);
    int cpu = 0;
    while (CPU_ISSET(static_cast<std::size_t>(cpu), &allowed) == 0) {
        ++cpu;
    }
    std::string content = support::read_file(VORN_SAMPLE_INI);
    const std::size_t at = content.find("\ncpucore = 0\n");
    ASSERT_NE(at, std::string::npos);
    content.replace(at, 13, "\ncpucore = " + std::to_string(cpu) + "\n");
    directory_.write("vorn.ini", content);
    const auto run = check({"vorn.ini"});
    EXPECT_EQ(run.out.find("[cpu]"), std::string::npos) << run.out;
}

TEST_F(CheckProgram, WritesOneLineAFinding) {
    directory_.write("bad.ini", "[config]\ndevice =\ninsts = ALL\nshfe2ps = Enabled\n");
    const auto run = check({"bad.ini", "--cpus", "8"});
    EXPECT_EQ(run.exit_status, 2);
    EXPECT_EQ(run.err, "4 errors, 0 warnings\n");
    std::istringstream out(run.out);
    std::vector<std::string> starts;
    for (std::string line; std::getline(out, line);) {
        starts.push_back(line.substr(0, line.find(' ', line.find(' ') + 1)));
    }
    EXPECT_EQ(starts, (std::vector<std::string>{"bad.ini:2: error:", "bad.ini:3: error:",
                                                "bad.ini:4: error:", "bad.ini:4: error:"}))
        << run.out;
    EXPECT_EQ(check({"bad.ini", "-q"}).err, "");
    EXPECT_NE(check({"bad.ini", "-v"}).err.find("timeout_cnt = 10\n"), std::string::npos);
}

TEST_F(CheckProgram, JsonIsOneObjectALine) {
    directory_.write("bad.ini", "[config]\ndevice =\ninsts = \xFF,cu\nshfe2ps = Enabled\n"
                                "timeout_cnt = 0\n[log]\n");
    const auto run = check({"bad.ini", "--json", "--cpus", "8"});
    EXPECT_EQ(run.exit_status, 2);
    std::istringstream out(run.out);
    std::vector<nlohmann::json> objects;
    for (std::string line; std::getline(out, line);) {
        objects.push_back(nlohmann::json::parse(line));
    }
    ASSERT_GE(objects.size(), 2u);
    for (std::size_t i = 0; i + 1 < objects.size(); ++i) {
        EXPECT_EQ(objects[i]["type"], "finding");
        EXPECT_EQ(objects[i]["file"], "bad.ini");
        EXPECT_TRUE(objects[i]["line"].is_number_unsigned());
        for (const char* text : {"severity", "rule", "what", "effect"}) {
            EXPECT_TRUE(objects[i][text].is_string()) << text;
        }
    }
    const nlohmann::json& summary = objects.back();
    EXPECT_EQ(summary["type"], "summary");
    EXPECT_EQ(summary["errors"].get<std::size_t>() + summary["warnings"].get<std::size_t>(),
              objects.size() - 1);
    EXPECT_EQ(summary["effective"]["timeout_cnt"], 0);
    EXPECT_EQ(summary["effective"]["shfe2ps"], false);
}

TEST_F(CheckProgram, JsonHasASummaryAlsoWithoutFindings) {
    if (std::string(VORN_CARD_IN_USE) != "softcard") {
        return;
    }
    const auto run = check({VORN_SAMPLE_INI, "--json", "--cpus", "1"});
    EXPECT_EQ(run.exit_status, 0);
    const nlohmann::json summary = nlohmann::json::parse(run.out);
    EXPECT_EQ(summary["errors"], 0);
    EXPECT_EQ(summary["warnings"], 0);
    EXPECT_EQ(summary["effective"]["md2ps_snap_port"], 33022);
}

TEST_F(CheckProgram, AFileThatCannotBeReadIsAFinding) {
    const auto absent = check({"absent.ini"});
    EXPECT_EQ(absent.exit_status, 2);
    EXPECT_EQ(absent.out.find("absent.ini:1: error: the file cannot be opened: No such file"), 0u)
        << absent.out;
    const auto folder = check({"."});
    EXPECT_EQ(folder.exit_status, 2);
    EXPECT_NE(folder.out.find("Is a directory"), std::string::npos) << folder.out;
    const auto endless = check({"/dev/zero"});
    EXPECT_EQ(endless.exit_status, 2);
    EXPECT_NE(endless.out.find("larger than 1 MiB"), std::string::npos) << endless.out;
    const auto binary = check({VORN_PROGRAM});
    EXPECT_EQ(binary.exit_status, 2);
    EXPECT_NE(binary.out.find("[not-text]"), std::string::npos);
}

TEST_F(CheckProgram, LimitsWhatItShowsOfAHopelessFile) {
    std::string content = "[config]\n";
    for (int i = 0; i < 5000; ++i) {
        content += "line " + std::to_string(i) + "\n";
    }
    directory_.write("prose.ini", content);
    const auto run = check({"prose.ini"});
    EXPECT_EQ(run.exit_status, 2);
    EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 200);
    EXPECT_NE(run.err.find("more findings are not shown"), std::string::npos) << run.err;
}

TEST_F(CheckProgram, HoldsInstrumentsAgainstACapture) {
    {
        vorn_check::CaptureFile capture(name("day.pcap"));
        capture.add(wirekit::tcp_segment()
                        .payload(wirekit::mdqp_message(wirekit::kFlagLast)
                                     .snap(1000, 1)
                                     .inst({.inst_id = "cu2603", .inst_no = 1})
                                     .packet_no(1)
                                     .bytes())
                        .bytes());
    }
    const std::string config =
        "[config]\ndevice = " +
        std::string(std::string(VORN_CARD_IN_USE) == "softcard" ? "pcap:day.pcap" : "exanic0") +
        "\nshfe2ps = enabled\ncpucore = 0\ninsts = cu2603";
    directory_.write("good.ini", config + ", cu\n");
    directory_.write("bad.ini", config + ", al2603\n");
    const auto good = check({"good.ini", "--capture", "day.pcap", "--cpus", "1"});
    EXPECT_EQ(good.exit_status, 0) << good.out;
    const auto bad = check({"bad.ini", "--capture", "day.pcap", "--cpus", "1"});
    EXPECT_EQ(bad.exit_status, 2);
    EXPECT_EQ(bad.out.find("bad.ini:5: error: \"al2603\" matches no instrument"), 0u) << bad.out;
    const auto without = check({"bad.ini", "--cpus", "1"});
    EXPECT_EQ(without.exit_status, 0) << without.out;
}

TEST_F(CheckProgram, ACaptureThatCannotBeReadIsAFailure) {
    const auto run = check({VORN_SAMPLE_INI, "--capture", "absent.pcap"});
    EXPECT_EQ(run.exit_status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("absent.pcap"), std::string::npos) << run.err;
}

} // namespace
