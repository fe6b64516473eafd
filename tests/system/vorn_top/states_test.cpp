// What `vorn top --once --json` says of a feed that `vorn publish` runs at the speed of the clock:
// while it is fed, when nothing comes any more, and when the publisher is gone.

#include "background.h"
#include "tests/support/temp_dir.h"
#include "tests/system/vorn_check/run_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <filesystem>
#include <unistd.h>

using nlohmann::json;
using testing::HasSubstr;

namespace {

// Slow enough that a feed which gets little of the machine is not lapped.
constexpr char kSession[] = "sim:seed=7&speed=1&instruments=20&lines=a&rate=200&changes=0"
                            "&first_round_ms=200&round_interval_ms=1000&round_ms=100";

class TopOfAFeed : public testing::Test {
protected:
    TopOfAFeed() {
        static int number = 0;
        bus_ = "test-top-" + std::to_string(::getpid()) + "-" + std::to_string(++number);
    }
    ~TopOfAFeed() override {
        for (const char* suffix : {".bus", ".bus.lock", ".bus.part"}) {
            std::filesystem::remove("/dev/shm/vorn." + bus_ + suffix);
        }
    }

    std::unique_ptr<vorn_top::Background> publish(const std::string& more) {
        const std::string config = directory_.write(
            "vorn.ini", "[config]\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n"
                        "recovery = enabled\ndevice = " +
                            (kSession + more) + "\n");
        return std::make_unique<vorn_top::Background>(
            std::vector<std::string>{VORN_PROGRAM, "publish", "--config", config, "--bus", bus_},
            directory_.path());
    }
    support::ChildRun top(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {VORN_PROGRAM, "top", "--bus", bus_});
        return vorn_check::run_program(arguments, directory_.path());
    }
    json look() const {
        const auto run = top({"--once", "--json", "--interval", "0.05"});
        return json::parse(run.out, nullptr, false);
    }
    // Looks until the condition holds, and returns that look.
    json look_until(const std::function<bool(const json&)>& condition) {
        json seen;
        const bool came = vorn_top::comes_true([&] {
            seen = look();
            return seen.is_object() && condition(seen);
        });
        EXPECT_TRUE(came) << seen.dump() << "\n" << support::read_file(directory_.path() / "err");
        return seen;
    }
    json look_until_state(const std::string& state) {
        return look_until([&](const json& seen) { return seen["state"] == state; });
    }

    support::TempDir directory_;
    std::string bus_;
};

TEST_F(TopOfAFeed, SaysLiveWithFreshUpdatesAndStaleWhenTheSourceStops) {
    const auto publisher = publish("&seconds=8");
    const json live =
        look_until([](const json& seen) { return seen["state"] == "live" && seen["age_s"] < 1.0; });
    EXPECT_EQ(live["bus"], bus_);
    EXPECT_EQ(live["phase"], "live");
    EXPECT_EQ(live["writer"]["pid"], publisher->pid());
    EXPECT_GT(live["counters"]["frames"], 0);
    EXPECT_TRUE(live["instrument"].is_object());

    // The word follows from the age of the same look, however late the look is.
    const json stale = look_until([](const json& seen) {
        EXPECT_TRUE(seen["state"] == "live" || seen["state"] == "stale") << seen.dump();
        EXPECT_EQ(seen["state"] == "stale", seen["age_s"] >= 1.5) << seen.dump();
        return seen["state"] == "stale" &&
               seen["time_ns"].get<uint64_t>() - seen["last_update_ns"].get<uint64_t>() >
                   2'000'000'000;
    });
    EXPECT_EQ(stale["phase"], "live");
}

TEST_F(TopOfAFeed, SaysDeadRightAfterTheKill) {
    const auto publisher = publish("");
    look_until_state("live");
    publisher->end_by(SIGKILL);
    const json dead = look();
    EXPECT_EQ(dead["state"], "dead") << dead.dump();
    EXPECT_EQ(dead["events"][0]["kind"], "dead");
    EXPECT_TRUE(dead["instrument"].is_object()) << "the table can still be read";
    const auto picture = top({"--once"});
    EXPECT_EQ(picture.exit_status, 0);
    EXPECT_THAT(picture.out, HasSubstr("vorn top  DEAD  bus " + bus_));

    const auto second = publish("");
    const json live = look_until_state("live");
    EXPECT_EQ(live["writer"]["generation"], 2) << "a new publisher takes over";
}

TEST_F(TopOfAFeed, SaysStoppedWhenThePublisherHasEndedInOrder) {
    const auto publisher = publish("");
    look_until_state("live");
    EXPECT_EQ(publisher->end_by(SIGINT), 0);
    EXPECT_EQ(look()["state"], "stopped");
}

TEST_F(TopOfAFeed, TellsOfAGapAndItsRestart) {
    const auto publisher = publish("&fault=gap@2:1");
    const json seen = look_until([](const json& now) {
        return now["state"] == "live" && now["counters"]["gaps"] >= 1 &&
               now["counters"]["restarts"] >= 1;
    });
    EXPECT_NE(seen["last_gap"]["inst_id"], "");
    EXPECT_GT(seen["last_gap"]["received"], seen["last_gap"]["expected"]);
    std::vector<std::string> kinds;
    for (const json& event : seen["events"]) {
        kinds.push_back(event["kind"]);
    }
    EXPECT_THAT(kinds, testing::Contains("gap"));
    EXPECT_THAT(kinds, testing::Contains("restart"));
    EXPECT_THAT(top({"--once"}).out, HasSubstr("last gap"));
}

TEST_F(TopOfAFeed, WithoutABusSaysHowToStartOne) {
    const auto once = top({"--once"});
    EXPECT_EQ(once.exit_status, 1);
    EXPECT_EQ(once.out, "");
    EXPECT_EQ(once.err, "vorn top: there is no bus /dev/shm/vorn." + bus_ +
                            ".bus: start its writer (vorn publish)\n");
    const auto object = top({"--once", "--json"});
    EXPECT_EQ(object.exit_status, 1);
    EXPECT_EQ(json::parse(object.out)["state"], "absent");
    EXPECT_EQ(object.err, once.err);
}

TEST_F(TopOfAFeed, JsonGoesOnWithoutABusUntilItIsStopped) {
    std::filesystem::create_directory(directory_.path() / "watch");
    vorn_top::Background watch({VORN_PROGRAM, "top", "--bus", bus_, "--json", "--interval", "0.05"},
                               directory_.path() / "watch");
    const auto lines = [&] {
        std::vector<json> objects;
        std::istringstream text(support::read_file(directory_.path() / "watch" / "out"));
        for (std::string line; std::getline(text, line) && !text.eof();) {
            objects.push_back(json::parse(line));
        }
        return objects;
    };
    ASSERT_TRUE(vorn_top::comes_true([&] { return lines().size() >= 2; }));
    EXPECT_EQ(lines().back()["state"], "absent");
    const auto publisher = publish("");
    ASSERT_TRUE(vorn_top::comes_true([&] { return lines().back()["state"] == "live"; }));
    EXPECT_EQ(watch.end_by(SIGTERM), 0);
    EXPECT_EQ(support::read_file(directory_.path() / "watch" / "err"), "");
}

TEST_F(TopOfAFeed, AWrongCommandLineIsOneLineAndStatusTwo) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"--bus", "a b"}, "'a b' is not a name for a bus"},
        {{"--interval", "0"}, "--interval"},
        {{"--stale-after", "x"}, "--stale-after"},
        {{"extra"}, "'extra'"},
        {{}, "needs a terminal"},
    };
    for (const auto& [arguments, says] : cases) {
        std::vector<std::string> command = {VORN_PROGRAM, "top"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const auto run = vorn_check::run_program(command, directory_.path());
        EXPECT_EQ(run.exit_status, 2) << says;
        EXPECT_EQ(run.out, "") << says;
        EXPECT_THAT(run.err, HasSubstr(says));
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    }
}

} // namespace
