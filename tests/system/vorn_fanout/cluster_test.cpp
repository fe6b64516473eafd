// Two publishers and a cluster of three servers, on hosts of their own: a server is killed, then a
// publisher, while updates come. Nothing is missing, twice or out of order at a tap.

#include "hosts.h"
#include "nats_servers.h"
#include "process.h"
#include "session.h"

#include <csignal>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>
#include <sstream>

using namespace vorn_fanout;

namespace {

std::vector<Change> heard_by(const Process& tap) {
    std::vector<Change> heard;
    std::istringstream lines(tap.out());
    for (std::string line; std::getline(lines, line);) {
        const auto object = nlohmann::json::parse(line, nullptr, false);
        if (object.is_object() && object["type"] == "update") {
            heard.emplace_back(object["inst_id"], object["change_no"]);
        }
    }
    return heard;
}

class FanoutCluster : public testing::Test {
protected:
    std::unique_ptr<Process> publisher(const std::string& name, const SessionBus& bus,
                                       const std::string& run) {
        return std::make_unique<Process>(
            hosts_.on(name, {VORN_PROGRAM, "fanout", "--label", "20260115", "--name", name, "--bus",
                             bus.path(), "-s", servers_.urls(), "--replicas", "3", "--wait", "200",
                             "--drain", "200", "--max-size", "256M", "--json"}),
            directory_.path(), run);
    }
    std::string path(const std::string& name) const { return (directory_.path() / name).string(); }

    const support::TempDir directory_;
    Hosts hosts_{{"a", "b", "tap"}};
    NatsServers servers_{hosts_, directory_.path(), 3};
};

// The last of the objects that a program has printed, one a second.
nlohmann::json last_report(const Process& process) {
    std::istringstream lines(process.out());
    std::string last;
    for (std::string line; std::getline(lines, line);) {
        last = line;
    }
    return nlohmann::json::parse(last, nullptr, false);
}

TEST_F(FanoutCluster, LosesAServerAndAPublisherAndNoUpdate) {
    const Updates a = replay_session(12000, 60, "a");
    const Updates b = replay_session(12000, 60, "b");
    const std::vector<Change> all = changes_of(a);
    ASSERT_EQ(by_instrument(all), by_instrument(changes_of(b))) << "both lines carry the session";
    const std::size_t first = all.size() / 4;
    const std::size_t second = all.size() * 3 / 4;

    SessionBus bus_a(path("a.bus"));
    SessionBus bus_b(path("b.bus"));
    auto publisher_a = publisher("a", bus_a, "publisher_a");
    ASSERT_TRUE(publisher_a->says("sending the bus")) << publisher_a->err();
    auto publisher_b = publisher("b", bus_b, "publisher_b");
    ASSERT_TRUE(publisher_b->says("sending the bus")) << publisher_b->err();
    Process tap(hosts_.on("tap", {VORN_PROGRAM, "tap", "md.shfe.>", "md.ine.>", "-s",
                                  servers_.urls(), "--from-start", "--json"}),
                directory_.path(), "tap");
    const auto tap_has = [&](std::size_t updates) {
        return comes_true([&] { return tap.lines() >= updates || !tap.runs(); });
    };

    bus_a.show(a, 0, first);
    bus_b.show(b, 0, first);
    ASSERT_TRUE(tap_has(first)) << tap.err();

    const int leader = servers_.leader();
    bus_b.show(b, first, second);
    bus_a.show(a, first, second);
    ASSERT_TRUE(tap_has(first + 1)) << tap.err(); // the rest is under way
    servers_.kill(leader);
    ASSERT_TRUE(tap_has(first + (second - first) / 2))
        << tap.err() << publisher_a->err() << publisher_b->err();
    publisher_a->end_by(SIGKILL);
    bus_a.show(a, second, all.size());
    publisher_a = publisher("a", bus_a, "publisher_a_again");
    bus_b.show(b, second, all.size());
    ASSERT_TRUE(tap_has(all.size())) << tap.err() << publisher_a->err() << publisher_b->err();

    bus_a.close();
    bus_b.close();
    EXPECT_EQ(publisher_a->end_by(SIGTERM), 0) << publisher_a->err();
    EXPECT_EQ(publisher_b->end_by(SIGTERM), 0) << publisher_b->err();
    EXPECT_EQ(tap.end_by(SIGTERM), 0) << tap.err();

    const std::vector<Change> heard = heard_by(tap);
    const std::set<Change> once(heard.begin(), heard.end());
    EXPECT_EQ(once.size(), heard.size()) << "each once";
    EXPECT_EQ(once, std::set<Change>(all.begin(), all.end()));
    EXPECT_EQ(by_instrument(heard), by_instrument(all)) << "in the order of each instrument";

    // The stream itself is like that: nothing was left to the tap to put right.
    EXPECT_NE(tap.err().find(" 0 repeated, 0 missing"), std::string::npos) << tap.err();
    for (const Process* publisher : {publisher_a.get(), publisher_b.get()}) {
        const auto report = last_report(*publisher);
        EXPECT_EQ(report["dropped"], 0) << report;
        EXPECT_EQ(report["waiting"], 0) << report;
        EXPECT_EQ(report["updates"].get<uint64_t>() + report["values"].get<uint64_t>() +
                      report["events"].get<uint64_t>(),
                  report["stored"].get<uint64_t>() + report["duplicates"].get<uint64_t>() +
                      report["known"].get<uint64_t>() + report["superseded"].get<uint64_t>())
            << report;
    }
}

} // namespace
