// What `vorn fanout` puts into the stream of one server, and what becomes of it when publisher or
// server go away.

#include "bus/bus_process.h"
#include "one_server.h"

#include <chrono>
#include <csignal>
#include <thread>
#include <unistd.h>

using namespace vorn_fanout;

namespace {

class FanoutStream : public OneServer {
protected:
    std::vector<Change> heard_from_start() { return changes_in(hear({"--from-start"})); }
    // Lets the stream forget the ids that it has been sent so far.
    static void outlast_window() { std::this_thread::sleep_for(std::chrono::milliseconds(1500)); }
};

TEST_F(FanoutStream, HasEveryUpdateOnceFromTwoPublishers) {
    SessionBus a(path("a.bus"));
    SessionBus b(path("b.bus"));
    const auto publisher = start("a", {"fanout", "--label", "day1", "--name", "a", "--bus",
                                       a.path(), "--until-closed", "--json"});
    a.show(session());
    b.show(session());
    a.close();
    b.close();
    const auto report_b = send(b, "b");
    EXPECT_EQ(publisher->wait(), 0) << publisher->err();
    const auto report_a = objects_of(publisher->out()).back();

    const auto heard = heard_from_start();
    EXPECT_EQ(by_instrument(heard), by_instrument(changes_of(session())));
    const auto sum = [&](const char* counter) {
        return report_a[counter].get<std::size_t>() + report_b[counter].get<std::size_t>();
    };
    const std::size_t events = sum("events");
    EXPECT_EQ(sum("stored"), session().size() + events) << report_a << report_b;
    EXPECT_EQ(sum("duplicates") + sum("known"), session().size()) << report_a << report_b;
}

TEST_F(FanoutStream, HasWhatVornPublishShows) {
    const std::string bus = "vorn-fanout-test." + std::to_string(::getpid());
    directory_.write("feed.ini", "[config]\ndevice = sim:seed=11&changes=3000&instruments=40&eof="
                                 "stop\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n"
                                 "cpucore = 0\n");
    const auto publisher =
        start("a", {"fanout", "--label", "day1", "--name", "a", "--bus", bus, "--until-closed"});
    const Run feed = run({"publish", "-q", "--config", "feed.ini", "--bus", bus});
    EXPECT_EQ(feed.status, 0) << feed.err;
    EXPECT_EQ(publisher->wait(), 0) << publisher->err();
    vorn_bus::remove_bus(bus);
    // Another run of the same feed, recorded beside it, and the tap's recording.
    const Run record = run({"record", "-q", "--config", "feed.ini", "-o", "record.csv"});
    EXPECT_EQ(record.status, 0) << record.err;
    const Run tap = run({"tap", "-q", "--from-start", "--once", "-o", "tap.csv"});
    EXPECT_EQ(tap.status, 0) << tap.err;
    EXPECT_EQ(sorted_rows(support::read_file(path("tap.csv"))),
              sorted_rows(support::read_file(path("record.csv"))));
    std::vector<std::string> phases;
    for (const auto& object : hear({"--from-start", "md.event.phase"})) {
        phases.push_back(object["phase"]);
    }
    EXPECT_EQ(phases,
              (std::vector<std::string>{"bring_up", "snapshot", "replay", "live", "stopped"}));
}

TEST_F(FanoutStream, KnowsBeyondItsWindowWhatItHas) {
    SessionBus bus(path("a.bus"));
    bus.show(session());
    bus.close();
    EXPECT_EQ(send(bus, "a", {"--window", "1s"})["stored"], session().size() + 2); // opened, closed
    outlast_window();
    const auto again = send(bus, "b");
    EXPECT_EQ(again["known"], session().size()) << again;
    EXPECT_EQ(again["stored"], 2) << again;
    EXPECT_EQ(by_instrument(heard_from_start()), by_instrument(changes_of(session())));
}

TEST_F(FanoutStream, TakesWhatCameWhileTheServerWasAwayForLongerThanItsWindow) {
    SessionBus bus(path("a.bus"));
    const auto publisher = start("a", {"fanout", "--label", "day1", "--bus", bus.path(), "--window",
                                       "1s", "--until-closed", "--json"});
    const std::size_t half = session().size() / 2;
    bus.show(session(), 0, half);
    ASSERT_TRUE(publisher->says("sending the bus")) << publisher->err();
    servers_.kill(0); // in the middle, or before, or behind
    ASSERT_TRUE(publisher->says("no connection to a NATS server")) << publisher->err();
    bus.show(session(), half, session().size());
    outlast_window();
    servers_.start(0);
    bus.close();
    EXPECT_EQ(publisher->wait(), 0) << publisher->err();
    EXPECT_EQ(by_instrument(heard_from_start()), by_instrument(changes_of(session())));
}

TEST_F(FanoutStream, CountsAndMakesGoodWhatDidNotFit) {
    // The last ones of one instrument, which has some among those that will not fit, are left out.
    const std::string quiet = inst_id_of(session()[1500].record);
    Updates updates(session().begin(), session().end() - 800);
    ASSERT_GT(updates.size(), 1600u);
    for (auto at = session().end() - 800; at != session().end(); ++at) {
        if (inst_id_of(at->record) != quiet) {
            updates.push_back(*at);
        }
    }
    SessionBus bus(path("a.bus"), 1024);
    const auto publisher = start("a", {"fanout", "--label", "day1", "--bus", bus.path(), "--buffer",
                                       "1024", "--until-closed", "--json"});
    ASSERT_TRUE(publisher->says("sending the bus")) << publisher->err();
    servers_.kill(0);
    ASSERT_TRUE(publisher->says("no connection to a NATS server")) << publisher->err();
    // As much as fits into the buffer, in steps that the ring can hold, then more than that can.
    const auto waits = [&](std::size_t messages) {
        return comes_true([&] {
            const auto reports = objects_of(publisher->out());
            return !reports.empty() && reports.back()["waiting"].get<std::size_t>() +
                                               reports.back()["under_way"].get<std::size_t>() >=
                                           messages;
        });
    };
    bus.show(updates, 0, 600);
    ASSERT_TRUE(waits(600));
    bus.show(updates, 600, 1100);
    ASSERT_TRUE(waits(1024));
    bus.show(updates, 1100, updates.size());
    bus.close();
    servers_.start(0);
    EXPECT_EQ(publisher->wait(), 0) << publisher->err();

    const auto report = objects_of(publisher->out()).back();
    EXPECT_GT(report["dropped"], 0) << report;
    EXPECT_EQ(report["updates"].get<std::size_t>() + report["dropped"].get<std::size_t>(),
              updates.size())
        << report;
    EXPECT_NE(publisher->err().find(" were overwritten before they could be sent"),
              std::string::npos)
        << publisher->err();
    // Whose updates were lost has its newest value all the same.
    const auto newest = newest_of(updates);
    std::size_t instruments = 0;
    for (const auto& object : hear({"--last", "md.shfe.>", "md.ine.>"})) {
        ++instruments;
        EXPECT_TRUE(object["inst_id"] != quiet || object["type"] == "value") << object;
        EXPECT_EQ(object["change_no"], newest.at(object["inst_id"]).change_no) << object;
    }
    EXPECT_EQ(instruments, newest.size());
    EXPECT_EQ(hear({"--from-start", "md.event.dropped"}).back()["count"], report["dropped"]);
}

TEST_F(FanoutStream, HasTheValuesThatASnapshotLeft) {
    const Updates& updates = session();
    const auto table = std::make_unique<share>();
    for (const Update& update : updates) {
        table->instmts[update.slot] = update.record;
    }
    SessionBus bus(path("a.bus"));
    bus.writer().refresh(*table);
    vorn_md_event_t live{};
    live.size = sizeof(live);
    live.type = VORN_MD_EVENT_PHASE;
    live.phase = VORN_MD_PHASE_LIVE;
    live.time_ns = vorn_bus::clock_ns(CLOCK_MONOTONIC);
    bus.writer().publish_event(live);
    Update next = updates.back();
    ++next.record.change_no;
    bus.writer().publish(next.record, next.slot);
    bus.close();
    send(bus, "a");
    send(bus, "b"); // who has the same to say, but for its own events

    const auto heard = hear({"--from-start", "md.shfe.>", "md.ine.>"});
    const auto newest = newest_of(updates);
    EXPECT_EQ(changes_in(heard, "value").size(), newest.size() - 1) << "one had an update";
    for (const Change& change : changes_in(heard, "value")) {
        EXPECT_EQ(change.second, newest.at(change.first).change_no) << change.first;
    }
    EXPECT_EQ(changes_in(heard), changes_of({next}));
}

TEST_F(FanoutStream, SaysTheSameAsJsonAndInBinary) {
    SessionBus bus(path("a.bus"));
    bus.show(session(), 0, 200);
    bus.close();
    send(bus, "a", {"--format", "json"});
    const auto json = hear({"--from-start", "md.shfe.>", "md.ine.>"});
    const auto binary_run =
        run({"fanout", "--label", "day2", "--name", "a", "--bus", bus.path(), "--until-closed"});
    EXPECT_EQ(binary_run.status, 0) << binary_run.err;
    auto both = hear({"--from-start", "md.shfe.>", "md.ine.>"});
    ASSERT_EQ(json.size(), 200u);
    ASSERT_EQ(both.size(), 400u);
    std::map<Change, nlohmann::json> first;
    for (const auto& object : json) {
        EXPECT_EQ(object["label"], "day1");
        auto& kept = first[{object["inst_id"], object["change_no"]}];
        kept = object;
        kept.erase("time_ns");
    }
    for (std::size_t i = 200; i < both.size(); ++i) {
        EXPECT_EQ(both[i]["label"], "day2");
        both[i]["label"] = "day1";
        both[i].erase("time_ns"); // to nanoseconds, two readings of two clocks differ
        EXPECT_EQ(both[i], (first[{both[i]["inst_id"], both[i]["change_no"]}]));
    }
}

} // namespace
