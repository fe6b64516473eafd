// A TCP reset of the exchange: with ACK, payload and a right checksum it clears everything.

#include "tests/unit/tcp/segment_script.h"

namespace tcp_test {
namespace {

using wirekit::kTcpAck;
using wirekit::kTcpFin;
using wirekit::kTcpPsh;
using wirekit::kTcpRst;
using wirekit::kTcpSyn;

class TcpReset : public Reassembly {
protected:
    TcpReset() {
        stream_.start(1).message(2).message(3).message(4);
        establish(stream_, 60);
        deliver(stream_.frame(140, 180));
        subscribe(5, "cu2601");
    }
    wirekit::TcpSegmentBuilder next() { return segment(stream_.seq(60), stream_.slice(60, 100)); }
    bool cleared() { return session().init == 0 && slot(5).inst_id[0] == 0; }

    Stream stream_;
};

TEST_F(TcpReset, TakesBothFlags) {
    for (unsigned flags = 0; flags < 256; ++flags) {
        SCOPED_TRACE("flags " + std::to_string(flags));
        core->ResetSession(session());
        establish(stream_, 60);
        subscribe(5, "cu2601");
        const bool resets = (flags & kTcpRst) != 0 && (flags & kTcpAck) != 0;
        const Log log = deliver_logged(next().flags(static_cast<uint8_t>(flags)).bytes());
        EXPECT_EQ(cleared(), resets);
        if (resets) {
            EXPECT_EQ(log, Log{}); // nothing of the frame is decoded
        } else {
            EXPECT_EQ(packet_numbers(log), (std::vector<int>{2}));
        }
    }
}

TEST_F(TcpReset, ClearsWhateverTheFrameSaysOtherwise) {
    const struct {
        const char* name;
        Bytes frame;
        const char* why;
    } rows[] = {
        {"InOrder", next().flags(kTcpRst | kTcpAck).bytes(), "the stream's own reset"},
        {"Old", next().seq(1).flags(kTcpRst | kTcpAck).bytes(), "its number is not looked at"},
        {"Early", next().seq(4000000).flags(kTcpRst | kTcpAck).bytes(),
         "its number is not looked at"},
        {"OtherHost", next().from(1, kMd4psPort).flags(kTcpRst | kTcpAck).bytes(),
         "its addresses are not looked at"},
        {"OtherSession", next().to(1, 9).flags(kTcpRst | kTcpAck).bytes(), "any local port"},
        {"OneByte", segment(1, {0}).flags(kTcpRst | kTcpAck).bytes(), "one byte is payload enough"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        core->_Cleandata();
        establish(stream_, 60);
        deliver(stream_.frame(140, 180));
        subscribe(5, "cu2601");
        finished.mask = 0x04;
        EXPECT_EQ(deliver_logged(row.frame), Log{});
        EXPECT_TRUE(cleared());
        EXPECT_EQ(finished.mask, 0);
        EXPECT_EQ(session().lost_buf_head, nullptr);
        EXPECT_EQ(session().frag_buf, nullptr);
        EXPECT_EQ(session(9).frag_buf, nullptr);
    }
}

TEST_F(TcpReset, NeedsAPayload) {
    const ChannelState before = state();
    EXPECT_EQ(deliver_logged(segment(stream_.seq(60), {}).flags(kTcpRst | kTcpAck).bytes()),
              Log{line('X', "_PacketHandler", "payloadSize<=0, max_payload=0")});
    // Padding is no payload.
    EXPECT_EQ(
        deliver_logged(segment(stream_.seq(60), {}).flags(kTcpRst | kTcpAck).padding(6).bytes()),
        Log{line('X', "_PacketHandler", "payloadSize<=0, max_payload=6")});
    EXPECT_EQ(difference(before), "");
}

TEST_F(TcpReset, NeedsARightChecksum) {
    const ChannelState before = state();
    EXPECT_EQ(deliver_logged(next().flags(kTcpRst | kTcpAck).bad_checksum().bytes()),
              Log{line('D', "_PacketHandler", "tcp checksum is not correct")});
    EXPECT_EQ(difference(before), "");
}

TEST_F(TcpReset, NeedsAnExchangePort) {
    const ChannelState before = state();
    deliver(next().from(kExchangeIp, 80).flags(kTcpRst | kTcpAck).bytes());
    EXPECT_EQ(difference(before), "");
}

TEST_F(TcpReset, ASnapshotAfterItIsTakenFromItsStart) {
    deliver(next().flags(kTcpRst | kTcpAck).bytes());
    const Stream again = Stream(5).start(11).message(12);
    EXPECT_EQ(decoded_by([&] {
                  deliver(again.frame(60, 100)); // not a start: nothing
                  deliver(again.frame(0, 60));
                  deliver(again.frame(60, 100));
              }),
              (std::vector<int>{11, 12}));
}

TEST_F(TcpReset, TheEndOfAConnectionMeansNothing) {
    deliver(next().flags(kTcpFin | kTcpAck | kTcpPsh).bytes());
    EXPECT_EQ(session().next_expt_seq, stream_.seq(100));
    deliver(segment(7, start_message(kIne2psTopic)).flags(kTcpSyn | kTcpAck).bytes());
    EXPECT_EQ(session().next_expt_seq, stream_.seq(100)); // old, as its number says
    EXPECT_FALSE(cleared());
}

} // namespace
} // namespace tcp_test
