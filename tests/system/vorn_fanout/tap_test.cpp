// What `vorn tap` makes of the stream: lines, rows, a bus, and where it begins.

#include "bus/bus_reader.h"
#include "one_server.h"
#include "tools/vorn/record/csv_row.h"

#include <csignal>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <set>

using namespace vorn_fanout;
using testing::HasSubstr;

namespace {

class TapTest : public OneServer {
protected:
    void SetUp() override {
        SessionBus bus(path("a.bus"));
        bus.show(session());
        bus.close();
        send(bus, "a");
    }
    std::string bus_name() const { return "vorn-fanout-test." + std::to_string(::getpid()); }
};

TEST_F(TapTest, PrintsOnlyWhatIsAskedFor) {
    const auto expected = [](const std::string& prefix) {
        std::vector<Change> changes;
        for (const Change& change : changes_of(OneServer::session())) {
            if (change.first.starts_with(prefix)) {
                changes.push_back(change);
            }
        }
        return by_instrument(changes);
    };
    const std::string wanted = changes_of(session()).front().first.substr(0, 3);
    EXPECT_FALSE(expected(wanted).empty());
    for (const std::string& pattern : {"md.shfe." + wanted + "*", wanted + "*"}) {
        EXPECT_EQ(by_instrument(changes_in(hear({"--from-start", pattern}))), expected(wanted))
            << pattern;
    }
    EXPECT_TRUE(hear({"--from-start", "no-such*"}).empty());
    const auto events = hear({"--from-start", "md.event.>"});
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["kind"], "opened");
    EXPECT_EQ(events[1]["kind"], "closed");
    EXPECT_EQ(events[1]["source"], "a");
}

TEST_F(TapTest, GivesALateJoinerTheNewestOfEachInstrument) {
    const auto heard = hear({"--last", "md.shfe.>", "md.ine.>"});
    const auto newest = newest_of(session());
    EXPECT_EQ(heard.size(), newest.size());
    for (const auto& object : heard) {
        EXPECT_EQ(object["change_no"], newest.at(object["inst_id"]).change_no) << object;
        EXPECT_EQ(object["last_px"], newest.at(object["inst_id"]).last_px) << object;
    }
}

TEST_F(TapTest, HearsNothingOfThePastUnlessAsked) {
    EXPECT_TRUE(hear({}).empty());
    const auto tap = start("tap", {"tap", "--json", "--count", "1"});
    const auto lines = start("lines", {"tap", "md.shfe.>", "--count", "1"});
    // Sent again and again, each time with another number, until it is there in time.
    SessionBus bus(path("b.bus"));
    const auto publisher = start("b", {"fanout", "--label", "day2", "--bus", bus.path()});
    Update update = session().front();
    EXPECT_TRUE(comes_true([&] {
        ++update.record.change_no;
        bus.show({update});
        return !tap->runs() && !lines->runs();
    }));
    EXPECT_EQ(tap->wait(), 0) << tap->err();
    const auto heard = changes_in(objects_of(tap->out()));
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0].first, inst_id_of(update.record));
    EXPECT_GT(heard[0].second, session().front().record.change_no);
    EXPECT_THAT(lines->out(), HasSubstr(" shfe " + inst_id_of(update.record) + " #"));
    EXPECT_EQ(publisher->end_by(SIGTERM), 0) << publisher->err();
}

TEST_F(TapTest, WritesTheRowsOfTheRecorder) {
    const Run done = run({"tap", "--from-start", "--once", "-o", "day.csv"});
    EXPECT_EQ(done.status, 0) << done.err;
    std::string expected(vorn_cli::csv_header());
    for (const Update& update : session()) {
        vorn_cli::append_csv_row(expected, update.record);
    }
    EXPECT_EQ(sorted_rows(support::read_file(path("day.csv"))), sorted_rows(expected));
    EXPECT_THAT(run({"tap", "--from-start", "--once", "-o", "day.csv"}).err,
                HasSubstr("day.csv exists"));
}

TEST_F(TapTest, PutsOnABusWhatTheFeedHadOnIts) {
    const auto tap = start("tap", {"tap", "--last", "--bus", bus_name()});
    std::unique_ptr<vorn_bus::BusReader> reader;
    ASSERT_TRUE(comes_true([&] {
        try {
            reader = std::make_unique<vorn_bus::BusReader>(bus_name());
        } catch (const vorn_bus::BusError&) {
        }
        return reader != nullptr || !tap->runs();
    })) << tap->err();
    ASSERT_NE(reader, nullptr) << tap->err();
    vorn_bus::Counters counters{};
    EXPECT_TRUE(comes_true([&] {
        return reader->read_counters(counters) == vorn_bus::SlotResult::kFilled &&
               counters.counters.phase == VORN_MD_PHASE_LIVE;
    }));
    std::size_t filled = 0;
    const auto newest = newest_of(session());
    for (uint32_t slot = 0; slot < vorn_bus::BusReader::slots(); ++slot) {
        vorn_bus::Slot entry;
        if (reader->read_slot(slot, entry) == vorn_bus::SlotResult::kFilled) {
            ++filled;
            EXPECT_EQ(std::memcmp(&entry.record, &newest.at(inst_id_of(entry.record)),
                                  sizeof(entry.record)),
                      0)
                << inst_id_of(entry.record);
        }
    }
    EXPECT_EQ(filled, newest.size());

    const auto top = run({"top", "--once", "--json", "--bus", bus_name()});
    EXPECT_EQ(top.status, 0) << top.err;
    EXPECT_EQ(objects_of(top.out).front()["phase"], "live") << top.out;
    EXPECT_EQ(tap->end_by(SIGTERM), 0) << tap->err();
    EXPECT_EQ(reader->writer_state(), vorn_bus::WriterState::kClosed);
    vorn_bus::remove_bus(bus_name());
}

TEST_F(TapTest, GoesOnWhereItLeftUnderItsName) {
    const auto part =
        run({"tap", "--from-start", "--json", "--durable", "desk", "--count", "1000"});
    EXPECT_EQ(part.status, 0) << part.err;
    auto heard = changes_in(objects_of(part.out));
    EXPECT_EQ(heard.size(), 1000u);
    const auto rest = changes_in(hear({"--from-start", "--durable", "desk"}));
    heard.insert(heard.end(), rest.begin(), rest.end());
    EXPECT_EQ(by_instrument(heard), by_instrument(changes_of(session())));
    EXPECT_TRUE(hear({"--from-start", "--durable", "desk"}).empty());
}

TEST_F(TapTest, GoesOnWhenTheServerComesBack) {
    const auto tap = start("tap", {"tap", "--from-start", "--json", "md.shfe.>", "md.ine.>"});
    ASSERT_TRUE(comes_true([&] { return tap->lines() >= session().size(); })) << tap->err();
    servers_.kill(0);
    ASSERT_TRUE(tap->says("no connection to a NATS server")) << tap->err();
    servers_.start(0);
    SessionBus bus(path("b.bus"));
    Updates more = session();
    for (Update& update : more) {
        update.record.change_no += 1'000'000;
    }
    bus.show(more);
    bus.close();
    send(bus, "b");
    EXPECT_TRUE(comes_true([&] { return tap->lines() >= 2 * session().size(); })) << tap->err();
    EXPECT_EQ(tap->end_by(SIGINT), 0) << tap->err();
    auto expected = changes_of(session());
    const auto behind = changes_of(more);
    expected.insert(expected.end(), behind.begin(), behind.end());
    EXPECT_EQ(by_instrument(changes_in(objects_of(tap->out()))), by_instrument(expected));
}

TEST_F(TapTest, RefusesToMakeRecordsOfJson) {
    SessionBus bus(path("b.bus"));
    bus.show(session(), 0, 10);
    bus.close();
    send(bus, "b", {"--format", "json", "--label", "day2"});
    const Run done = run({"tap", "--from-start", "--once", "-q", "-o", "day.csv"});
    EXPECT_EQ(done.status, 3);
    EXPECT_THAT(done.err, HasSubstr("12 messages are JSON, from which no record is made"));
}

struct MistakeCase {
    const char* name;
    std::vector<std::string> arguments;
    int status;
    const char* text;
};

TEST(FanoutCommandLine, AMistakeIsOneLineThatSaysWhatToDo) {
    const std::string nobody = own_address() + ":4229";
    const MistakeCase mistakes[] = {
        {"NoLabel", {"fanout"}, 2, "--label is required"},
        {"BadLabel", {"fanout", "--label", "a b"}, 2, "at most 15 letters, digits, '_' and '-'"},
        {"BadName", {"fanout", "--label", "x", "--name", "a.b"}, 2, "--name 'a.b': at most 15"},
        {"BadBus", {"fanout", "--label", "x", "--bus", "a b"}, 2, "is not a name for a bus"},
        {"BadUrl", {"fanout", "--label", "x", "-s", "http://a"}, 2, "'http://a' is not a NATS ser"},
        {"BadPort", {"tap", "-s", "nats://a:99999"}, 2, "write nats://HOST:PORT"},
        {"EmptyUrl", {"tap", "-s", "a,"}, 2, "'' is not a NATS server"},
        {"NoServer", {"tap", "-s", nobody, "--wait", "0"}, 4, "no NATS server answers at"},
        {"NoServerToSendTo",
         {"fanout", "--label", "x", "-s", nobody, "--wait", "0.2"},
         4,
         "is nats-server running?"},
        {"BadWindow", {"fanout", "--label", "x", "--window", "2d"}, 2, "--window takes a time"},
        {"LongWindow", {"fanout", "--label", "x", "--window", "2h"}, 2, "from 1s to 1h"},
        {"BadFormat", {"fanout", "--label", "x", "--format", "xml"}, 2, "--format"},
        {"BadStream", {"fanout", "--label", "x", "--stream", "a.b"}, 2, "not a name for a stream"},
        {"BadPattern", {"tap", "md..x"}, 2, "'md..x' is not a subject"},
        {"BothBegins", {"tap", "--last", "--from-start"}, 2, "--last"},
        {"BadDurable", {"tap", "--durable", "a b"}, 2, "--durable 'a b'"},
    };
    const support::TempDir directory;
    for (const MistakeCase& row : mistakes) {
        std::vector<std::string> command = row.arguments;
        command.insert(command.begin(), VORN_PROGRAM);
        Process process(command, directory.path(), row.name);
        EXPECT_EQ(process.wait(), row.status) << row.name << process.err();
        EXPECT_THAT(process.err(), HasSubstr(row.text)) << row.name;
        const std::string said = process.err();
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << row.name << said;
    }
}

TEST_F(OneServer, AStreamThatCannotBeIsNamed) {
    SessionBus bus(path("a.bus"));
    const Run three = run({"fanout", "--label", "x", "--bus", bus.path(), "--replicas", "3"});
    EXPECT_EQ(three.status, 1);
    EXPECT_THAT(three.err, HasSubstr("the stream VORN cannot be made: "));
}

} // namespace
