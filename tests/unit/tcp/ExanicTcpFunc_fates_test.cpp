// What the monitor counts of the snapshot channel: every frame has one fate.

#include "MdMonitor.h"
#include "tests/unit/tcp/platform_stubs.h"
#include "tests/unit/tcp/segment_script.h"

#include <gmock/gmock.h>

namespace tcp_test {
namespace {

using Fates = std::vector<uint64_t>;

class SnapshotFates : public Reassembly {
protected:
    SnapshotFates() : before_(fates()), wipes_before_(g_mdMonitor.worker.wipes.Get()) {}

    static Fates fates() {
        Fates counts;
        for (const CMdCounter& fate : g_mdMonitor.worker.fate) {
            counts.push_back(fate.Get());
        }
        return counts;
    }
    // The fates of the frames that `action` delivers, in ascending order.
    std::vector<int> counted(const std::function<void()>& action) {
        before_ = fates();
        action();
        const Fates after = fates();
        std::vector<int> result;
        for (std::size_t fate = 0; fate < after.size(); ++fate) {
            result.insert(result.end(), after[fate] - before_[fate], static_cast<int>(fate));
        }
        return result;
    }
    uint64_t wipes() const { return g_mdMonitor.worker.wipes.Get() - wipes_before_; }

    Fates before_;
    uint64_t wipes_before_;
};

Bytes changed(Bytes frame, std::size_t at, uint8_t value) {
    frame[at] = value;
    return frame;
}

TEST_F(SnapshotFates, FramesThatFailACheckAreCountedByTheCheck) {
    const Bytes good = segment(100, start_message()).bytes();
    const struct {
        const char* why;
        Bytes frame;
        int fate;
    } rows[] = {
        {"no room for an IP header", Bytes(good.begin(), good.begin() + 30),
         VORN_MD_FATE_MALFORMED},
        {"IP header of 16 bytes", changed(good, 14, 0x44), VORN_MD_FATE_MALFORMED},
        {"UDP", changed(good, 23, 17), VORN_MD_FATE_FOREIGN},
        {"no room for a TCP header", Bytes(good.begin(), good.begin() + 50),
         VORN_MD_FATE_MALFORMED},
        {"another port of the exchange", segment(100, start_message()).from(1, 33023).bytes(),
         VORN_MD_FATE_FOREIGN},
        {"TCP header of 16 bytes", changed(good, 46, 0x40), VORN_MD_FATE_MALFORMED},
        {"no payload", segment(100, {}).bytes(), VORN_MD_FATE_EMPTY},
        {"wrong checksum", segment(100, start_message()).bad_checksum().bytes(),
         VORN_MD_FATE_CHECKSUM},
    };
    for (const auto& row : rows) {
        EXPECT_THAT(counted([&] { deliver(row.frame); }), testing::ElementsAre(row.fate))
            << row.why;
    }
    EXPECT_EQ(wipes(), 0U);
}

TEST_F(SnapshotFates, SegmentsAreCountedByTheirPlaceInTheStream) {
    const Stream stream = Stream().start(1).message(2).message(3).message(4);
    const struct {
        const char* why;
        std::size_t from, to;
        int fate;
    } rows[] = {
        {"no round has begun", 60, 100, VORN_MD_FATE_UNSTARTED},
        {"begins one", 0, 60, VORN_MD_FATE_STARTED},
        {"early", 140, 180, VORN_MD_FATE_HELD},
        {"early again", 140, 180, VORN_MD_FATE_OLD},
        {"early, in front of the other", 100, 140, VORN_MD_FATE_HELD},
        {"closes the gap", 60, 100, VORN_MD_FATE_IN_ORDER},
        {"over", 60, 100, VORN_MD_FATE_OLD},
    };
    for (const auto& row : rows) {
        const Bytes frame = stream.frame(row.from, row.to);
        EXPECT_THAT(counted([&] { deliver(frame); }), testing::ElementsAre(row.fate)) << row.why;
    }
}

TEST_F(SnapshotFates, AFrameOfAnotherHostIsForeignToTheSession) {
    const Stream stream = Stream().start(1).message(2);
    establish(stream, 60);
    const Bytes other = segment(stream.seq(60), stream.slice(60, 100)).from(1, kMd2psPort).bytes();
    EXPECT_THAT(counted([&] { deliver(other); }), testing::ElementsAre(VORN_MD_FATE_FOREIGN));
}

TEST_F(SnapshotFates, AStreamOfAnUnknownTopicHasNotStarted) {
    const Bytes frame = segment(100, start_message(77)).bytes();
    EXPECT_THAT(counted([&] { deliver(frame); }), testing::ElementsAre(VORN_MD_FATE_UNSTARTED));
}

TEST_F(SnapshotFates, AResetTakesBackWhatWasLoaded) {
    const Bytes frame = segment(100, {1}).flags(wirekit::kTcpRst | wirekit::kTcpAck).bytes();
    EXPECT_THAT(counted([&] { deliver(frame); }), testing::ElementsAre(VORN_MD_FATE_RESET));
    EXPECT_EQ(wipes(), 1U);
}

TEST_F(SnapshotFates, AnEarlySegmentTooManyIsDroppedAndTakesAllBack) {
    Stream stream;
    stream.start(1);
    for (int i = 0; i < MAX_LOST_BUF_SIZE + 2; ++i) {
        stream.message(i + 2);
    }
    establish(stream, 60);
    const auto early = [&](std::size_t index) {
        return stream.frame(100 + index * 40, 140 + index * 40);
    };
    for (std::size_t i = 0; i < MAX_LOST_BUF_SIZE; ++i) {
        deliver(early(i));
    }
    EXPECT_EQ(wipes(), 0U);
    EXPECT_THAT(counted([&] { deliver(early(MAX_LOST_BUF_SIZE)); }),
                testing::ElementsAre(VORN_MD_FATE_DROPPED));
    EXPECT_EQ(wipes(), 1U);
}

#if TCP_TEST_ALLOCATION_STUB

TEST_F(SnapshotFates, AnEarlySegmentThatThereIsNoMemoryForIsDropped) {
    const Stream stream = Stream().start(1).message(2).message(3).message(4);
    establish(stream, 60);
    const auto without_memory = [&](std::size_t from) {
        const Bytes frame = stream.frame(from, from + 40);
        return counted([&] {
            const NoMemoryFor nodes(RECV_BUF_SIZE);
            deliver(frame);
        });
    };
    EXPECT_THAT(without_memory(100), testing::ElementsAre(VORN_MD_FATE_DROPPED)) << "the first";
    deliver(stream.frame(100, 140));
    EXPECT_THAT(without_memory(140), testing::ElementsAre(VORN_MD_FATE_DROPPED)) << "one more";
}

#endif

TEST_F(SnapshotFates, AFrameBehindAFinishedSnapshotIsLate) {
    set_masks(MASK_SHFE_2PS, MASK_SHFE_2PS);
    Bytes frame = segment(100, start_message()).bytes();
    const auto size = static_cast<uint32_t>(frame.size());
    frame.resize(frame.size() + 256);
    EXPECT_THAT(counted([&] { core->_HandleTask(reinterpret_cast<char*>(frame.data()), size); }),
                testing::ElementsAre(VORN_MD_FATE_LATE));
}

TEST_F(SnapshotFates, ARoundIsCountedForItsFeedWithTheInstrumentsOfItsExchange) {
    const struct {
        EMdqpDataType type;
        uint32_t feed;
        uint64_t instruments;
    } rows[] = {{SHFE_2PS, VORN_MD_FEED_SHFE_2PS, 123},
                {SHFE_4PS, VORN_MD_FEED_SHFE_4PS, 123},
                {INE_2PS, VORN_MD_FEED_INE_2PS, 45},
                {INE_4PS, VORN_MD_FEED_INE_4PS, 45}};
    const auto rounds = [] {
        std::vector<uint64_t> counts;
        for (const CMdCounter& count : g_mdMonitor.worker.rounds) {
            counts.push_back(count.Get());
        }
        return counts;
    };
    table->shfe_inst_cnt = 123;
    table->ine_inst_cnt = 45;
    for (const auto& row : rows) {
        std::vector<uint64_t> expected = rounds();
        ++expected[row.feed];
        parse_as(row.type, wirekit::mdqp_message(wirekit::kFlagLast).bytes());
        EXPECT_EQ(rounds(), expected) << row.feed;
        EXPECT_EQ(g_mdMonitor.worker.roundInstruments[row.feed].Get(), row.instruments);
    }
}

TEST_F(SnapshotFates, ABookThatFailsThePriceCheckTakesAllBack) {
    plant_bad_book();
    set_masks(MASK_SHFE_2PS, MASK_SHFE_2PS);
    core->_CheckFinishedSnapshot();
    EXPECT_EQ(wipes(), 1U);
}

} // namespace
} // namespace tcp_test
