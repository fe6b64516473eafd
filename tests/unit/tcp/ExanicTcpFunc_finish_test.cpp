// The check of a finished snapshot at the end of a frame: after which frames it is made. The masks
// are equal and the table holds a book that fails, so that a check that is made shows in the log.

#include "tests/unit/tcp/segment_script.h"

namespace tcp_test {
namespace {

const std::string kCheckFailed = line('W', "_PacketHandler", "price check is error");

class FinishedSnapshot : public Reassembly {
protected:
    FinishedSnapshot() {
        // start 0 to 60; 2: 60 to 100; 3: 100 to 400; 4: 400 to 440; 5: 440 to 480
        stream_.start(1).message(2).message(3, 300).message(4).message(5);
    }

    // From here on every check that is made fails.
    void arm() {
        plant_bad_book();
        set_masks(0x01, 0x01);
    }
    bool checked_by(const Bytes& frame) {
        return !only(deliver_logged(frame), kCheckFailed).empty();
    }

    // A payload that begins like a snapshot but names no topic: the masks would refuse it.
    static Bytes topicless(std::size_t size, std::size_t message_size) {
        return [&] {
            Bytes bytes = plain_message(7, message_size);
            bytes.resize(size, 0x55);
            return bytes;
        }();
    }

    Stream stream_;
};

TEST_F(FinishedSnapshot, AFailingCheckClearsEverything) {
    establish(stream_, 60);
    deliver(stream_.frame(100, 400));
    arm();
    EXPECT_EQ(
        deliver_logged(stream_.frame(0, 60), "W"),
        (Log{line('W', "CheckPrice", "Price and Volume mismatch at index 5: price=5.000000, vol=0"),
             kCheckFailed}));
    EXPECT_EQ(finished.mask, 0);
    EXPECT_EQ(table->shfe_inst_cnt, 0);
    EXPECT_EQ(slot(0).bid_px[0], 0.0);
    EXPECT_EQ(session().init, 0);
    EXPECT_EQ(session().lost_buf_head, nullptr);
}

TEST_F(FinishedSnapshot, APassingCheckChangesNothing) {
    establish(stream_, 60);
    set_masks(0x01, 0x01);
    const ChannelState before = state();
    EXPECT_EQ(deliver_logged(stream_.frame(0, 60)), Log{});
    EXPECT_EQ(difference(before), "");
    EXPECT_EQ(finished.mask, 0x01);
}

TEST_F(FinishedSnapshot, AShieldedFailureChangesNothing) {
    config.shield_price_check = true;
    establish(stream_, 60);
    arm();
    const ChannelState before = state();
    EXPECT_EQ(only(deliver_logged(stream_.frame(0, 60)), kCheckFailed), Log{});
    EXPECT_EQ(difference(before), "");
}

TEST_F(FinishedSnapshot, NoCheckIsMadeUntilTheMasksAreEqualAsAWhole) {
    for (const uint8_t finished_mask :
         std::initializer_list<uint8_t>{0x00, 0x01, 0x04, 0x07, 0x0F, 0x85}) {
        establish(stream_, 60);
        plant_bad_book();
        set_masks(0x05, finished_mask);
        SCOPED_TRACE("finished " + std::to_string(finished_mask));
        EXPECT_FALSE(checked_by(stream_.frame(0, 60)));
        set_masks(0x0F, 0);
        core->_Cleandata();
    }
    establish(stream_, 60);
    plant_bad_book();
    set_masks(0x05, 0x05);
    EXPECT_TRUE(checked_by(stream_.frame(0, 60)));
}

TEST_F(FinishedSnapshot, ChecksAfterAStartThatWasNone) {
    arm();
    EXPECT_TRUE(checked_by(segment(1, plain_message(1, 30)).bytes())); // too short
    arm();
    EXPECT_TRUE(checked_by(segment(1, plain_message(1, 60, wirekit::kFlagLast)).bytes()));
    arm();
    EXPECT_TRUE(checked_by(segment(1, {0}).bytes()));
}

TEST_F(FinishedSnapshot, ChecksAfterAStartThatWasDecoded) {
    arm();
    EXPECT_TRUE(checked_by(segment(1, topicless(50, 50)).bytes())); // one message
    arm();
    EXPECT_TRUE(checked_by(segment(1, topicless(60, 50)).bytes())); // and a rest, which is kept
    // The segment holds the whole snapshot.
    set_masks(0x01, 0);
    plant_bad_book();
    EXPECT_TRUE(
        checked_by(segment(1, start_message() + plain_message(2, 40, wirekit::kFlagLast)).bytes()));
}

TEST_F(FinishedSnapshot, DoesNotCheckAfterAStartWhoseFirstMessageDoesNotFit) {
    arm();
    EXPECT_FALSE(checked_by(segment(1, topicless(50, 51)).bytes()));
    EXPECT_EQ(session().frag_buf_offset, 50);
}

TEST_F(FinishedSnapshot, DoesNotCheckAfterAFailedStart) {
    arm();
    EXPECT_FALSE(checked_by(segment(1, start_message()).bytes()));     // its feed is finished
    EXPECT_FALSE(checked_by(segment(1, start_message(1234)).bytes())); // unknown topic
    EXPECT_FALSE(checked_by(segment(1, topicless(50, 50) + Bytes(4, 0)).bytes())); // bad walk
    EXPECT_EQ(finished.mask, 0x01);
}

TEST_F(FinishedSnapshot, ChecksAfterAnEstablishedSessionsFrame) {
    struct Row {
        const char* name;
        std::vector<Bytes> before; // behind the starting segment, while unfinished
        Bytes frame;
        bool checks;
        const char* why;
    };
    const auto part = [&](std::size_t from, std::size_t to) { return stream_.frame(from, to); };
    const auto at = [&](std::size_t from, const Bytes& payload) {
        return segment(stream_.seq(from), payload).bytes();
    };
    const Bytes junk(40, 0xEE);
    const std::vector<Row> rows = {
        {"OtherAddress", {}, segment(1, junk).from(9, kMd2psPort).bytes(), true, "ignored"},
        {"Old", {}, part(0, 60), true, "ignored"},
        {"FirstHeld", {}, part(100, 400), true, "stored"},
        {"SecondHeld", {part(400, 440)}, part(100, 400), true, "stored"},
        {"RepeatedHead", {part(400, 440)}, part(400, 440), true, "discarded"},
        {"InOrder", {}, part(60, 100), true, "decoded, no list in use"},
        {"InOrderRest", {}, part(60, 110), true, "the rest is kept"},
        {"InOrderPart", {part(60, 100)}, part(100, 110), true, "all of it is kept"},
        {"DrainEmpties", {part(100, 400)}, part(60, 100), true, "the list is empty"},
        {"DrainStops", {part(400, 440)}, part(60, 100), true, "the next gap is met"},
        {"DrainStale", {part(100, 400)}, part(60, 440), true, "nothing but a stale segment"},
        {"DrainIncomplete", {part(200, 300)}, part(60, 200), true, "message 3 stays incomplete"},
        {"AppendExact", {part(60, 200)}, part(200, 400), true, "completes message 3"},
        {"AppendMore", {part(60, 200)}, part(200, 410), true, "and begins another"},
        {"AppendMoreExact", {part(60, 200)}, part(200, 440), true, "and one more"},
        {"AppendIncomplete", {part(60, 200)}, part(200, 300), false, "message 3 is incomplete"},
        {"AppendIncompleteList",
         {part(60, 200), part(300, 400)},
         part(200, 300),
         false,
         "no drain either"},
        {"NoMessage", {}, at(60, junk), false, "dropped by the test of its start"},
        {"NoMessageOneByte", {}, part(60, 61), false, "dropped by the test of its start"},
        {"JoinedNoMessage",
         {at(60, plain_message(2) + junk)},
         at(140, junk),
         false,
         "stopped silently"},
        {"DrainNoMessage", {at(100, junk)}, part(60, 100), false, "an error ends the frame"},
        {"DrainJoinedNoMessage",
         {at(140, junk)},
         at(60, plain_message(2) + junk),
         false,
         "an error ends the frame"},
        {"BadChecksum", {}, segment(1, junk).bad_checksum().bytes(), false, "dropped by a check"},
        {"NoPayload", {}, segment(stream_.seq(60), {}).bytes(), false, "dropped by a check"},
        {"OtherPort", {}, segment(1, junk).from(kExchangeIp, 80).bytes(), false, "dropped"},
        {"TooShort", {}, Bytes(33, 0), false, "dropped by a check"},
        {"Reset",
         {},
         segment(1, junk).flags(wirekit::kTcpRst | wirekit::kTcpAck).bytes(),
         false,
         "everything is gone"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        set_masks(0x01, 0);
        core->_Cleandata();
        establish(stream_, 60);
        for (const Bytes& frame : row.before) {
            deliver(frame);
        }
        arm();
        EXPECT_EQ(checked_by(row.frame), row.checks);
        const bool reset = std::string(row.name) == "Reset";
        EXPECT_EQ(finished.mask, row.checks || reset ? 0 : 0x01);
    }
}

TEST_F(FinishedSnapshot, AnErrorBehindTheLastMessageDoesNotSpareTheSnapshotItsCheck) {
    set_masks(0x01, 0);
    const Stream stream = Stream().start(1).message(2, 40, wirekit::kFlagLast).raw(Bytes(40, 0xEE));
    establish(stream, 60);
    deliver(stream.frame(100, 140)); // held; it begins no message
    plant_bad_book();
    EXPECT_TRUE(checked_by(stream.frame(60, 100)));
    EXPECT_EQ(finished.mask, 0);
    EXPECT_EQ(table->shfe_inst_cnt, 0);
}

TEST_F(FinishedSnapshot, TheFrameThatCompletesTheLastFeedIsChecked) {
    set_masks(0x05, 0);
    const Stream shfe = Stream(100).start(1).message(2, 40, wirekit::kFlagLast);
    const Stream ine = Stream(900).start(1, 60, kIne2psTopic).message(2, 40, wirekit::kFlagLast);
    plant_bad_book();
    EXPECT_FALSE(checked_by(shfe.frame(0, 60, 1)));
    EXPECT_FALSE(checked_by(ine.frame(0, 60, 2)));
    EXPECT_FALSE(checked_by(shfe.frame(60, 100, 1)));
    EXPECT_EQ(finished.mask, 0x01);
    EXPECT_TRUE(checked_by(ine.frame(60, 100, 2)));
    EXPECT_EQ(finished.mask, 0);
    // And again from the start, now with good books.
    for (const Stream* stream : {&shfe, &ine}) {
        EXPECT_FALSE(checked_by(stream->frame(0, 60)));
        EXPECT_FALSE(checked_by(stream->frame(60, 100)));
    }
    EXPECT_EQ(finished.mask, 0x05);
}

} // namespace
} // namespace tcp_test
