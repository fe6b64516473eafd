// What is recorded: feeds, lines, subscriptions, identifiers.

#include "recording.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ostream>

namespace recorder {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(Recorder, RecordsOneFeed) {
    Workspace work;
    Contract copper({.number = 3, .id = "cu2601"});
    std::vector<std::string> rows;
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection connection(50001);
        capture.segments(connection.one_by_one(round_messages(kShfe, {&copper})));
        for (int i = 0; i < 40; ++i) {
            const Change change = copper.next();
            capture.on_line(Line::kA, change);
            rows.push_back(change.row);
        }
    }
    const Config config{.device = capture_device(work.path("session.pcap"))};
    const Recording run = work.record(config);

    EXPECT_EQ(run.csv.substr(0, 391), kCsvHeader);
    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log, joined({bring_up_lines(work, config),
                               snapshot_lines({"shfe2ps init finished, total instruments:4"}, 0)}));
    EXPECT_THAT(other_lines(run.end.out), ElementsAre(kSignalLine));
    EXPECT_EQ(run.end.err, "");
    EXPECT_EQ(run.end.exit_status, 0);
}

TEST(Recorder, RecordsBothFeedsInTheOrderOfTheLine) {
    Workspace work;
    Contract copper({.number = 3, .id = "cu2601"});
    Contract gold(
        {.number = 700, .id = "au2602", .multiple = 1000, .tick_cents = 2, .codec_cents = 999'98});
    Contract oil({.feed = &kIne, .number = 12, .id = "sc2603", .multiple = 1000, .tick_cents = 10});
    std::vector<std::string> rows;
    int cached = 0;
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection shfe(50001);
        SnapshotConnection ine(50002);
        capture.on_both_lines(oil.next());
        capture.segments(shfe.one_by_one(round_messages(kShfe, {&copper, &gold})));
        capture.on_both_lines(copper.next());
        capture.on_both_lines(oil.next());
        capture.on_line(Line::kB, gold.next());
        cached = capture.datagrams();
        // One feed is complete; the other decides when the replay begins.
        capture.segments(ine.one_by_one(round_messages(kIne, {&oil})));
        for (int i = 0; i < 30; ++i) {
            for (Contract* contract : {&copper, &gold, &oil}) {
                const Change change = contract->next();
                capture.on_both_lines(change);
                rows.push_back(change.row);
            }
        }
    }
    const Config config{.device = capture_device(work.path("session.pcap")), .ine = true};
    const Recording run = work.record(config);

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log, joined({bring_up_lines(work, config),
                               snapshot_lines({"shfe2ps init finished, total instruments:701",
                                               "ine2ps init finished, total instruments:13"},
                                              cached)}));
    EXPECT_THAT(run.log, testing::Contains("I ExanicTcpFunc RunTcpDecoder start initialization, "
                                           "enabled mask 0x5"));
    EXPECT_THAT(other_lines(run.end.out), ElementsAre(kSignalLine));
    EXPECT_EQ(run.end.err, "");
    EXPECT_EQ(run.end.exit_status, 0);
}

TEST(Recorder, IgnoresAFeedThatIsNotEnabled) {
    Workspace work;
    Contract copper({.number = 3, .id = "cu2601"});
    Contract oil({.feed = &kIne, .number = 12, .id = "sc2603"});
    std::vector<std::string> rows;
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection shfe(50001);
        SnapshotConnection ine(50002);
        capture.segments(shfe.one_by_one(round_messages(kShfe, {&copper})));
        capture.on_both_lines(copper.next());
        capture.segments(ine.one_by_one(round_messages(kIne, {&oil})));
        for (int i = 0; i < 8; ++i) {
            capture.on_both_lines(copper.next());
            const Change change = oil.next();
            capture.on_both_lines(change);
            rows.push_back(change.row);
        }
    }
    const Config config{
        .device = capture_device(work.path("session.pcap")), .shfe = false, .ine = true};
    const Recording run = work.record(config);

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log, joined({bring_up_lines(work, config),
                               snapshot_lines({"ine2ps init finished, total instruments:13"}, 0)}));
    EXPECT_EQ(run.end.exit_status, 0);
}

// Changes before the round are in its snapshot, those during it are taken from the cache, both
// without a row. Afterwards the line that comes second brings nothing new.
TEST(Recorder, RecordsEachChangeAfterTheSnapshotOnce) {
    Workspace work;
    Contract copper({.number = 3, .id = "cu2601"});
    Contract silver({.number = 9, .id = "ag2602", .multiple = 15, .tick_cents = 100});
    std::vector<std::string> rows;
    int cached = 0;
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection connection(50001);
        for (int i = 0; i < 5; ++i) {
            capture.on_both_lines(copper.next());
        }
        const Change early = silver.next();
        const auto segments = connection.one_by_one(round_messages(kShfe, {&copper, &silver}));
        capture.segment(segments[0]);
        capture.on_both_lines(early); // older than the snapshot, although it comes later
        for (std::size_t i = 1; i < segments.size(); ++i) {
            capture.on_line(Line::kA, copper.next());
            capture.on_both_lines(silver.next());
            cached = capture.datagrams();
            capture.segment(segments[i]);
        }
        std::vector<Change> sent;
        for (int i = 0; i < 25; ++i) {
            for (Contract* contract : {&copper, &silver}) {
                sent.push_back(contract->next());
                rows.push_back(sent.back().row);
            }
        }
        // The slower line is seven changes behind, and they take turns in being the slower one.
        for (std::size_t i = 0; i < sent.size() + 7; ++i) {
            const Line faster = i / 10 % 2 == 0 ? Line::kA : Line::kB;
            if (i < sent.size()) {
                capture.on_line(faster, sent[i]);
            }
            if (i >= 7) {
                capture.on_line(faster == Line::kA ? Line::kB : Line::kA, sent[i - 7]);
            }
        }
    }
    const Config config{.device = capture_device(work.path("session.pcap"))};
    const Recording run = work.record(config);

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log,
              joined({bring_up_lines(work, config),
                      snapshot_lines({"shfe2ps init finished, total instruments:10"}, cached)}));
    EXPECT_EQ(run.end.exit_status, 0);
}

// A message that is none of a book change is reported with the record as it stands.
TEST(Recorder, RecordsMessagesThatAreNotChanges) {
    Workspace work;
    Contract copper({.number = 3, .id = "cu2601"});
    std::vector<std::string> rows;
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection connection(50001);
        capture.segments(connection.one_by_one(round_messages(kShfe, {&copper})));
        for (const Change& change :
             {copper.bare(), copper.not_a_change(), copper.not_a_change(), copper.next()}) {
            capture.on_line(Line::kA, change);
            rows.push_back(change.row);
        }
    }
    const Recording run = work.record(Config{.device = capture_device(work.path("session.pcap"))});

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.end.exit_status, 0);
}

struct SubscriptionCase {
    const char* name;
    const char* insts;
    const char* more;
    std::vector<std::string> recorded;
};

void PrintTo(const SubscriptionCase& row, std::ostream* out) {
    *out << row.insts << " " << row.more;
}

class Subscription : public testing::TestWithParam<SubscriptionCase> {};

TEST_P(Subscription, DecidesWhichInstrumentsAreRecorded) {
    Workspace work;
    std::vector<Contract> contracts;
    for (const char* id : {"cu2601", "cu2602", "al2601", "al2602", "cu2601C70000", "cu2602P68000",
                           "zn2601", "bc2603"}) {
        const int32_t number = static_cast<int32_t>(contracts.size());
        contracts.emplace_back(id == std::string("bc2603")
                                   ? Terms{.feed = &kIne, .number = number, .id = id}
                                   : Terms{.number = number, .id = id});
    }
    std::vector<std::string> rows;
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection shfe(50001);
        SnapshotConnection ine(50002);
        std::vector<const Contract*> listed;
        for (std::size_t i = 0; i + 1 < contracts.size(); ++i) {
            listed.push_back(&contracts[i]);
        }
        capture.segments(shfe.one_by_one(round_messages(kShfe, listed)));
        for (Contract& contract : contracts) {
            capture.on_both_lines(contract.next()); // cached, subscribed or not
        }
        // Of a snapshot that is taken now, so that it has the cached change.
        capture.segments(ine.one_by_one(round_messages(kIne, {&contracts.back()})));
        for (int i = 0; i < 6; ++i) {
            for (Contract& contract : contracts) {
                const Change change = contract.next();
                capture.on_both_lines(change);
                const auto& recorded = GetParam().recorded;
                if (std::count(recorded.begin(), recorded.end(), contract.terms().id) != 0) {
                    rows.push_back(change.row);
                }
            }
        }
    }
    const Recording run = work.record(Config{.device = capture_device(work.path("session.pcap")),
                                             .insts = GetParam().insts,
                                             .ine = true,
                                             .more = GetParam().more});

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.end.exit_status, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Recorder, Subscription,
    testing::Values(
        SubscriptionCase{"All",
                         "all",
                         "",
                         {"cu2601", "cu2602", "al2601", "al2602", "cu2601C70000", "cu2602P68000",
                          "zn2601", "bc2603"}},
        SubscriptionCase{"AllButOptions",
                         "all",
                         "options = norecv\n",
                         {"cu2601", "cu2602", "al2601", "al2602", "zn2601", "bc2603"}},
        SubscriptionCase{
            "ProductCode", "cu", "", {"cu2601", "cu2602", "cu2601C70000", "cu2602P68000"}},
        SubscriptionCase{"IdentifierBringsItsOptions", "cu2601", "", {"cu2601", "cu2601C70000"}},
        SubscriptionCase{"IdentifierWithoutItsOptions", "cu2601", "options = norecv\n", {"cu2601"}},
        SubscriptionCase{"ProductsAndIdentifiersOfBothExchanges",
                         "al2602, bc2603 ,, zn,",
                         "",
                         {"al2602", "zn2601", "bc2603"}},
        SubscriptionCase{"OptionsOwnIdentifierIsTooLong", "cu2601C70000", "", {}},
        SubscriptionCase{"CapitalsAreNotAll", "ALL,zn2601", "", {"zn2601"}}),
    [](const auto& instance) { return std::string(instance.param.name); });

// SHFE fills the table from the front, INE from the back; at their highest numbers they touch.
TEST(Recorder, KeepsTheHighestAndLowestNumbersOfBothExchangesApart) {
    Workspace work;
    Contract shfe_first({.number = 0, .id = "cu2601"});
    Contract shfe_last({.number = 16383, .id = "al2601", .codec_cents = 20'000'00});
    Contract ine_first(
        {.feed = &kIne, .number = 0, .id = "sc2601", .multiple = 1000, .codec_cents = 500'00});
    Contract ine_last({.feed = &kIne, .number = 4095, .id = "lu2601", .codec_cents = 4'000'00});
    const auto all = {&shfe_first, &shfe_last, &ine_first, &ine_last};
    std::vector<std::string> rows;
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection shfe(50001);
        SnapshotConnection ine(50002);
        capture.segments(shfe.one_by_one(round_messages(kShfe, {&shfe_first, &shfe_last})));
        capture.segments(ine.one_by_one(round_messages(kIne, {&ine_first, &ine_last})));
        for (int i = 0; i < 16; ++i) {
            for (Contract* contract : all) {
                const Change change = contract->next();
                capture.on_both_lines(change);
                rows.push_back(change.row);
            }
        }
    }
    const Config config{.device = capture_device(work.path("session.pcap")), .ine = true};
    const Recording run = work.record(config);

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log, joined({bring_up_lines(work, config),
                               snapshot_lines({"shfe2ps init finished, total instruments:16384",
                                               "ine2ps init finished, total instruments:4096"},
                                              0)}));
    EXPECT_EQ(run.end.exit_status, 0);
}

TEST(Recorder, WarnsOnceForEachExchangeOfNumbersBeyondItsRange) {
    Workspace work;
    Contract copper({.number = 3, .id = "cu2601"});
    Contract oil({.feed = &kIne, .number = 4, .id = "sc2603"});
    std::vector<Contract> beyond;
    for (const int32_t number : {16384, 20479, 20480, INT32_MAX}) {
        beyond.push_back(Contract({.number = number, .id = "zz2601"}));
        beyond.push_back(Contract({.feed = &kIne, .number = number - 12288, .id = "yy2601"}));
    }
    std::vector<std::string> rows;
    int cached = 0;
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection shfe(50001);
        SnapshotConnection ine(50002);
        std::vector<const Contract*> on_shfe{&copper};
        std::vector<const Contract*> on_ine{&oil};
        for (std::size_t i = 0; i < beyond.size(); ++i) {
            (i % 2 == 0 ? on_shfe : on_ine).push_back(&beyond[i]);
        }
        capture.segments(shfe.one_by_one(round_messages(kShfe, on_shfe)));
        for (Contract& contract : beyond) {
            capture.on_both_lines(contract.next());
        }
        cached = capture.datagrams();
        capture.segments(ine.one_by_one(round_messages(kIne, on_ine)));
        for (Contract* contract : {&copper, &oil}) {
            const Change change = contract->next();
            capture.on_both_lines(change);
            rows.push_back(change.row);
        }
    }
    const Config config{.device = capture_device(work.path("session.pcap")), .ine = true};
    const Recording run = work.record(config);

    EXPECT_EQ(run.csv, csv_of(rows));
    // A dictionary's numbers are judged too, but a snapshot phase begins with its warnings off.
    EXPECT_EQ(run.log,
              joined({bring_up_lines(work, config),
                      snapshot_lines({"shfe2ps init finished, total instruments:4",
                                      "ine2ps init finished, total instruments:5"},
                                     cached),
                      {"W ExanicUdpFunc _ParseMirp shfe InstNo [16384] is out of range [16383]",
                       "W ExanicUdpFunc _ParseMirp ine InstNo [4096] is out of range [4095]"}}));
    EXPECT_EQ(run.end.exit_status, 0);
}

TEST(Recorder, WritesFifteenCharactersOfAnIdentifier) {
    Workspace work;
    Contract fifteen({.number = 1, .id = "cu2601C70000-zz"});
    Contract sixteen({.number = 2, .id = "cu2601C70000-zzX"});
    Contract thirty({.number = 3, .id = "cu2601C70000-zzYYYYYYYYYYYYYYY"});
    std::vector<std::string> rows;
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection connection(50001);
        capture.segments(
            connection.one_by_one(round_messages(kShfe, {&fifteen, &sixteen, &thirty})));
        for (int i = 0; i < 3; ++i) {
            for (Contract* contract : {&fifteen, &sixteen, &thirty}) {
                const Change change = contract->next();
                capture.on_both_lines(change);
                rows.push_back(change.row);
            }
        }
    }
    const Recording run = work.record(Config{.device = capture_device(work.path("session.pcap"))});

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_THAT(rows.front(), testing::StartsWith("0,cu2601C70000-zz,"));
    EXPECT_THAT(rows[2], testing::StartsWith("0,cu2601C70000-zz,"));
    EXPECT_EQ(run.end.exit_status, 0);
}

// A session that ends without a change.
TEST(Recorder, WritesTheHeaderAloneWhenNothingChanges) {
    Workspace work;
    Contract copper({.number = 3, .id = "cu2601"});
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection connection(50001);
        capture.segments(connection.one_by_one(round_messages(kShfe, {&copper})));
    }
    const Recording run = work.record(Config{.device = capture_device(work.path("session.pcap"))});

    EXPECT_EQ(run.csv, kCsvHeader);
    EXPECT_EQ(run.end.exit_status, 0);
}

} // namespace
} // namespace recorder
