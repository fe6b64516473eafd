// What one snapshot's session leaves for the next on the same port. A start resets the counters of
// held and joined bytes, but neither the two flags nor the list of early segments.

#include "tests/unit/tcp/segment_script.h"

namespace tcp_test {
namespace {

class Leftover : public Reassembly {
protected:
    // A finished session; a part of another message stood behind its last message.
    void end_with_a_part() {
        const Stream first =
            Stream(1000).start(1).message(2, 40, wirekit::kFlagLast).message(3, 90);
        establish(first, 60);
        deliver(first.frame(60, 130));
        ASSERT_EQ(session().init, 0);
        ASSERT_EQ(session().frag_flag, 1);
        ASSERT_EQ(session().frag_buf_offset, 30);
    }

    // A finished session; early segments with these sequence numbers are still held.
    void end_with_held(const std::vector<uint32_t>& seqs) {
        const Stream first = Stream(1000).start(1).message(2, 40, wirekit::kFlagLast);
        establish(first, 60);
        for (const uint32_t seq : seqs) {
            deliver(segment(seq, plain_message(static_cast<int>(seq))).bytes());
        }
        deliver(first.frame(60, 100));
        ASSERT_EQ(session().init, 0);
        ASSERT_EQ(held_seqs(), seqs);
        ASSERT_EQ(session().lost_buf_size, seqs.size());
    }

    static Stream second(uint32_t first_seq) {
        return Stream(first_seq).start(10, 60, kIne2psTopic).message(11, 50).message(12, 50);
    }
};

TEST_F(Leftover, AFragmentFlagSurvivesAStartWhoseSegmentIsOneMessage) {
    end_with_a_part();
    const Stream stream = second(50000);
    establish(stream, 60);
    EXPECT_EQ(session().frag_flag, 1);
    EXPECT_EQ(session().frag_buf_offset, 0);
    // The next segment is appended to nothing, which comes to the same.
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 160)); }), (std::vector<int>{11, 12}));
    EXPECT_EQ(session().frag_flag, 0);
    EXPECT_EQ(session().frag_buf_offset, 0);
}

TEST_F(Leftover, AFragmentFlagKeepsTheSegmentThatBeginsNoMessage) {
    end_with_a_part();
    const Stream stream =
        Stream(50000).start(10, 60, kIne2psTopic).raw(Bytes(20, 0xEE)).message(11);
    establish(stream, 60);
    EXPECT_EQ(deliver_logged(stream.frame(60, 80)), Log{});
    EXPECT_EQ(session().frag_flag, 1);
    EXPECT_EQ(session().frag_buf_offset, 20); // without the flag it would have been dropped
    EXPECT_EQ(deliver_logged(stream.frame(80, 120)), Log{});
    EXPECT_EQ(session().frag_buf_offset, 60); // and what follows is lost with it
}

TEST_F(Leftover, AFragmentFlagIsClearedByAStartOfSeveralMessages) {
    end_with_a_part();
    const Stream stream = second(50000);
    establish(stream, 110);
    EXPECT_EQ(session().frag_flag, 0);
    EXPECT_EQ(session().frag_buf_offset, 0);
}

TEST_F(Leftover, OldJoinedBytesAreGoneAtTheNextStart) {
    end_with_a_part();
    const Stream stream = second(50000);
    establish(stream, 70);
    EXPECT_EQ(joined(), stream.slice(60, 70));
}

TEST_F(Leftover, OldSegmentsBehindTheNewStreamAreDroppedOneByOne) {
    end_with_held({5000, 6000});
    const Stream stream = second(50000);
    establish(stream, 60);
    EXPECT_EQ(session().lost_flag, 1);
    EXPECT_EQ(session().lost_buf_size, 0u); // counts the new stream only
    EXPECT_EQ(held_seqs(), (std::vector<uint32_t>{5000, 6000}));
    deliver(stream.frame(60, 110));
    EXPECT_EQ(session().lost_flag, 0);
    EXPECT_EQ(session().lost_buf_size, 0u);
    EXPECT_EQ(session().lost_buf_head, nullptr);
}

TEST_F(Leftover, TheCountOfHeldSegmentsWrapsAndTheNextGapClearsEverything) {
    end_with_held({5000, 90000});
    const Stream stream = second(50000);
    establish(stream, 60);
    deliver(stream.frame(60, 110)); // drops 5000, which was never counted
    EXPECT_EQ(session().lost_buf_size, 0xFFFFFFFFu);
    EXPECT_EQ(session().lost_flag, 1);
    EXPECT_EQ(held_seqs(), (std::vector<uint32_t>{90000}));
    EXPECT_EQ(deliver_logged(segment(70000, plain_message(1)).bytes()),
              Log{line('E', "_PacketHandler", "break tcp seq detected. expt: 50110, got: 70000")});
    EXPECT_EQ(session().init, 0);
    EXPECT_EQ(session().lost_buf_head, nullptr);
    EXPECT_EQ(table->shfe_pktno, 0);
    EXPECT_EQ(finished.mask, 0);
}

TEST_F(Leftover, AnEmptiedListStopsTheWrap) {
    end_with_held({5000, 90000});
    const Stream stream = second(89890).message(13, 10 + 40);
    establish(stream, 60);
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 110)); }), (std::vector<int>{11, 90000}));
    EXPECT_EQ(session().lost_buf_size, 0u);
    EXPECT_EQ(session().lost_flag, 0);
}

TEST_F(Leftover, AnOldSegmentThatFitsTheNewStreamIsTakenAsPartOfIt) {
    end_with_held({50060});
    const Stream stream = second(50000);
    // The start itself drains nothing.
    EXPECT_EQ(decoded_by([&] { establish(stream, 60); }), (std::vector<int>{10}));
    EXPECT_EQ(held_seqs(), (std::vector<uint32_t>{50060}));
    // In order comes the new stream's own segment, and the old one is stale.
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 110)); }), (std::vector<int>{11}));
    EXPECT_EQ(session().lost_flag, 0);

    core->_Cleandata();
    end_with_held({50110});
    establish(stream, 60);
    EXPECT_EQ(decoded_by([&] { deliver(stream.frame(60, 110)); }),
              (std::vector<int>{11, 50110})); // the old one stands where 12 belongs
    EXPECT_EQ(session().next_expt_seq, 50150u);
}

TEST_F(Leftover, NewEarlySegmentsJoinTheOldList) {
    end_with_held({60000});
    establish(second(50000), 60);
    deliver(segment(55000, plain_message(1)).bytes());
    deliver(segment(65000, plain_message(1)).bytes());
    EXPECT_EQ(held_seqs(), (std::vector<uint32_t>{55000, 60000, 65000}));
    EXPECT_EQ(session().lost_buf_size, 2u);
}

TEST_F(Leftover, TheFeedOfTheLastSessionDecodesSegmentsWithoutATopic) {
    const Stream first = Stream(1000).start(1).message(2, 40, wirekit::kFlagLast);
    establish(first, 60);
    deliver(first.frame(60, 100));
    EXPECT_EQ(session().em_dqp_data_type, SHFE_2PS);
    // Begins like a snapshot, names no topic.
    deliver(segment(9000, plain_message(33, 60)).bytes());
    EXPECT_EQ(session().init, 0);
    EXPECT_EQ(table->shfe_pktno, 33);
}

TEST_F(Leftover, AFailedStartKeepsTheListAndForgetsTheFeed) {
    end_with_held({5000});
    deliver(segment(50000, start_message(1234)).bytes());
    EXPECT_EQ(session().em_dqp_data_type, MDQP_DATA_TYPE_UNKNOW);
    EXPECT_EQ(session().lost_flag, 1);
    EXPECT_EQ(session().lost_buf_size, 0u);
    EXPECT_EQ(held_seqs(), (std::vector<uint32_t>{5000}));
}

TEST_F(Leftover, ASegmentThatStartsNothingStillResetsTheCounters) {
    end_with_held({5000, 6000});
    session().frag_buf_offset = 17;
    deliver(segment(50000, plain_message(2, 30)).bytes());
    EXPECT_EQ(session().init, 0);
    EXPECT_EQ(session().em_dqp_data_type, SHFE_2PS);
    EXPECT_EQ(session().lost_buf_size, 0u);
    EXPECT_EQ(session().frag_buf_offset, 0);
    EXPECT_EQ(session().next_expt_seq, 1100u); // where the ended stream stood
}

} // namespace
} // namespace tcp_test
