// The check of a finished snapshot's books, and what follows when they fail it.

#include "recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ostream>

namespace recorder {
namespace {

struct Defect {
    const char* name;
    const char* message;
    void (*spoil)(Contract&);
    void (*mend)(Contract&);
    // What the eleven lines then say of best ask and best bid.
    const char* ask1;
    const char* bid1;
};

void PrintTo(const Defect& defect, std::ostream* out) {
    *out << defect.name;
}

const Defect kDefects[] = {
    {"LockedBook", "W ExanicTcpFunc CheckPrice The price is abnormal, price index is :5 ",
     [](Contract& contract) { contract.side(Side::kBid)[0].ticks = 1; },
     [](Contract& contract) { contract.side(Side::kBid)[0].ticks = -1; },
     "ask1 px[70010.000000]vol[20]", "bid1 px[70010.000000]vol[10]"},
    {"PriceAboveItsLimit",
     "W ExanicTcpFunc CheckPrice (price > up) or (price < lower), price is 70010.000000, up is "
     "70005.000000, lower is 69000.000000, index is :4",
     [](Contract& contract) {
         auto& asks = contract.side(Side::kAsk);
         asks.resize(1);
         contract.set_limits_cents(69'000'00, 70'005'00);
     },
     [](Contract& contract) { contract.set_limits_cents(69'000'00, 71'000'00); },
     "ask1 px[70010.000000]vol[20]", "bid1 px[69990.000000]vol[10]"},
    {"PriceWithoutVolume",
     "W ExanicTcpFunc CheckPrice Price and Volume mismatch at index 5: price=69990.000000, vol=0",
     [](Contract& contract) { contract.side(Side::kBid)[0].lots = 0; },
     [](Contract& contract) { contract.side(Side::kBid)[0].lots = 10; },
     "ask1 px[70010.000000]vol[20]", "bid1 px[69990.000000]vol[0]"},
};

std::string level_line(const char* name, const std::vector<Level>& levels, std::size_t index,
                       const Contract& contract) {
    char text[128];
    const bool there = index < levels.size();
    std::snprintf(text, sizeof(text), "%s%zu px[%8lf]vol[%d]", name, index + 1,
                  there ? static_cast<double>(contract.price_cents(levels[index].ticks)) / 100 : 0,
                  there ? levels[index].lots : 0);
    return text;
}

// The report on one instrument: identifier and limits, then the ten levels from the fifth ask down.
Lines report(Contract& contract, const std::string& limits) {
    Lines lines{"inst_id [" + contract.terms().id + "]" + limits};
    for (std::size_t i = 5; i-- > 0;) {
        lines.push_back(level_line("ask", contract.side(Side::kAsk), i, contract));
    }
    for (std::size_t i = 0; i < 5; ++i) {
        lines.push_back(level_line("bid", contract.side(Side::kBid), i, contract));
    }
    for (std::string& line : lines) {
        line = "E ExanicTcpFunc ShfeInstPriceCheck " + line;
    }
    return lines;
}

std::string limits_of(const Defect& defect) {
    return std::string(defect.name) == "PriceAboveItsLimit"
               ? "upper[70005.000000]lower[69000.000000]"
               : "upper[71000.000000]lower[69000.000000]";
}

const Lines kFinished{"I ExanicTcpFunc _ParseMdqp shfe2ps init finished, total instruments:5"};

class PriceCheck : public testing::TestWithParam<Defect> {
protected:
    Workspace work;
    Contract aluminium{{.number = 1, .id = "al2601", .codec_cents = 20'000'00}};
    Contract copper{{.number = 4, .id = "cu2601"}};
    SnapshotConnection connection{50001};
};

TEST_P(PriceCheck, ThatFailsThrowsTheSnapshotAwayAndTheNextOneIsTaken) {
    std::vector<std::string> rows;
    int cached = 0;
    Lines complaint;
    {
        CaptureWriter capture(work.path("session.pcap"));
        GetParam().spoil(copper);
        complaint = report(copper, limits_of(GetParam()));
        capture.segments(connection.one_by_one(round_messages(kShfe, {&aluminium, &copper})));
        GetParam().mend(copper);
        capture.on_both_lines(aluminium.next()); // the failed snapshot has gone with its records
        cached = capture.datagrams();
        capture.segments(connection.one_by_one(round_messages(kShfe, {&aluminium, &copper})));
        for (int i = 0; i < 3; ++i) {
            for (Contract* contract : {&aluminium, &copper}) {
                const Change change = contract->deal(1, 2);
                capture.on_both_lines(change);
                rows.push_back(change.row);
            }
        }
    }
    const Config config{.device = capture_device(work.path("session.pcap"))};
    const Recording run = work.record(config);

    EXPECT_THAT(complaint, testing::Contains("E ExanicTcpFunc ShfeInstPriceCheck " +
                                             std::string(GetParam().ask1)));
    EXPECT_THAT(complaint, testing::Contains("E ExanicTcpFunc ShfeInstPriceCheck " +
                                             std::string(GetParam().bid1)));
    EXPECT_EQ(complaint.size(), 11u);
    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log,
              joined({bring_up_lines(work, config),
                      kFinished,
                      {GetParam().message},
                      complaint,
                      {"W ExanicTcpFunc _PacketHandler price check is error"},
                      snapshot_lines({"shfe2ps init finished, total instruments:5"}, cached)}));
    EXPECT_EQ(run.end.exit_status, 0);
}

TEST_P(PriceCheck, ThatFailsIsOnlyReportedWhenShielded) {
    std::vector<std::string> rows;
    Lines complaint;
    {
        CaptureWriter capture(work.path("session.pcap"));
        GetParam().spoil(copper);
        complaint = report(copper, limits_of(GetParam()));
        capture.segments(connection.one_by_one(round_messages(kShfe, {&aluminium, &copper})));
        for (int i = 0; i < 3; ++i) {
            const Change change = aluminium.next();
            capture.on_both_lines(change);
            rows.push_back(change.row);
        }
        // With a book that is sound, the spoilt record takes part again.
        if (std::string(GetParam().name) != "LockedBook") {
            const Change change = copper.deal(1, 2);
            capture.on_both_lines(change);
            rows.push_back(change.row);
        }
    }
    const Config config{.device = capture_device(work.path("session.pcap")),
                        .more = "shield_price_check = 1\n"};
    const Recording run = work.record(config);

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log, joined({bring_up_lines(work, config),
                               kFinished,
                               {GetParam().message},
                               complaint,
                               {"I ExanicTcpFunc RunTcpDecoder initialization completed",
                                "I ExanicMdImpl vorn_recv process decode buffer 0 frames"}}));
    EXPECT_EQ(run.end.exit_status, 0);
}

INSTANTIATE_TEST_SUITE_P(Recorder, PriceCheck, testing::ValuesIn(kDefects),
                         [](const auto& instance) { return std::string(instance.param.name); });

// The check covers both exchanges, and when it fails both have to send a round again.
TEST(Recorder, TakesAllFeedsAgainWhenOneFailsTheCheck) {
    Workspace work;
    Contract copper({.number = 4, .id = "cu2601"});
    Contract oil({.feed = &kIne, .number = 2, .id = "sc2601"});
    std::vector<std::string> rows;
    int cached = 0;
    Lines complaint;
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection shfe(50001);
        SnapshotConnection ine(50002);
        capture.segments(shfe.one_by_one(round_messages(kShfe, {&copper})));
        oil.side(Side::kBid)[0].ticks = 1; // locked: as high as the best ask
        complaint = report(oil, "upper[71000.000000]lower[69000.000000]");
        capture.segments(ine.one_by_one(round_messages(kIne, {&oil})));
        oil.side(Side::kBid)[0].ticks = -1;
        capture.on_both_lines(copper.next());
        capture.segments(ine.one_by_one(round_messages(kIne, {&oil})));
        capture.on_both_lines(oil.next()); // would be live if the first round still counted
        cached = capture.datagrams();
        capture.segments(shfe.one_by_one(round_messages(kShfe, {&copper})));
        for (Contract* contract : {&copper, &oil}) {
            const Change change = contract->next();
            capture.on_both_lines(change);
            rows.push_back(change.row);
        }
    }
    const Config config{.device = capture_device(work.path("session.pcap")), .ine = true};
    const Recording run = work.record(config);

    const std::string shfe_finished =
        "I ExanicTcpFunc _ParseMdqp shfe2ps init finished, total instruments:5";
    const std::string ine_finished =
        "I ExanicTcpFunc _ParseMdqp ine2ps init finished, total instruments:3";
    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log,
              joined({bring_up_lines(work, config),
                      {shfe_finished, ine_finished,
                       "W ExanicTcpFunc CheckPrice The price is abnormal, price index is :5 "},
                      complaint,
                      {"W ExanicTcpFunc _PacketHandler price check is error", ine_finished,
                       shfe_finished},
                      snapshot_lines({}, cached)}));
    EXPECT_EQ(run.end.exit_status, 0);
}

// Settlement contracts trade around prices that are not theirs: neither the snapshot's books nor
// those of the changes are judged.
TEST(Recorder, RecordsCrossedBooksOfSettlementContracts) {
    Workspace work;
    Contract tas({.number = 4, .id = "sc2601TAS"});
    std::vector<std::string> rows;
    {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection connection(50001);
        tas.side(Side::kBid)[0].ticks = 1;
        capture.segments(connection.one_by_one(round_messages(kShfe, {&tas})));
        for (const Change& change :
             {tas.update(Side::kBid, 1, {50, 3}), tas.update(Side::kAsk, 4, {-7, 3})}) {
            capture.on_both_lines(change);
            rows.push_back(change.row);
        }
    }
    const Config config{.device = capture_device(work.path("session.pcap"))};
    const Recording run = work.record(config);

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log, joined({bring_up_lines(work, config),
                               snapshot_lines({"shfe2ps init finished, total instruments:5"}, 0)}));
    EXPECT_EQ(run.end.exit_status, 0);
}

} // namespace
} // namespace recorder
