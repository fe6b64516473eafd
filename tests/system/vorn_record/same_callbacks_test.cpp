// A recording gives the callbacks of the session, every record bit for bit.

#include "session_run.h"
#include "tests/system/vorn_session/session_capture.h"

using vorn_record::first_difference;
using vorn_record::SessionRun;

namespace {

class SameCallbacks : public vorn_record::RecordedSession {
protected:
    // A session as session.pcap without every `interval`-th change, on both lines.
    void sim_with_gaps(std::size_t interval) {
        sim("session.pcap",
            {"--changes", "12000", "--instruments", "40", "--seed", "5", "--set", "rounds=40",
             "--set", "round_interval_ms=12", "--set", "round_ms=4", "--set", "first_round_ms=20"});
        vorn_session::SessionCapture capture(content("session.pcap"));
        const auto& changes = capture.changes();
        for (std::size_t i = interval; i < changes.size(); i += interval) {
            for (const std::size_t frame :
                 capture.copies(capture.instrument(changes[i]), capture.change_no(changes[i]))) {
                capture.drop(frame);
            }
        }
        directory_.write("session.pcap", capture.bytes());
    }
    std::string played(const std::string& options = "") const {
        return "pcap:" + path("session.pcap") + "?eof=stop" + options;
    }
};

// A recording of the replay is the same file again.
TEST_F(SameCallbacks, OfASimulatedSession) {
    const SessionRun session = run("sim:seed=3&changes=20000&instruments=60&eof=stop", "r.pcap");
    EXPECT_GT(session.updates, 10'000u);
    EXPECT_EQ(session.cycles, 1u);
    EXPECT_EQ(session.lost, 0u);
    const SessionRun again = run("pcap:" + path("r.pcap") + "?eof=stop", "second.pcap");
    EXPECT_EQ(first_difference(session, again), "");
    EXPECT_TRUE(content("r.pcap") == content("second.pcap"));
}

TEST_F(SameCallbacks, OfASessionWithRestarts) {
    sim_with_gaps(14'000);
    const SessionRun session = run(played(), "r.pcap");
    EXPECT_GE(session.gaps, 1u);
    EXPECT_EQ(session.cycles, session.gaps + 1);
    EXPECT_GT(session.updates, 1000u);
    const SessionRun again = replay("r.pcap");
    EXPECT_EQ(first_difference(session, again), "");
    EXPECT_EQ(again.cycles, session.cycles);
}

TEST_F(SameCallbacks, OfOneExchangeAlone) {
    for (const std::string feed : {"shfe", "ine"}) {
        const SessionRun session = run(
            "sim:seed=3&changes=4000&instruments=30&eof=stop&feeds=" + feed, feed + ".pcap", feed);
        EXPECT_GT(session.updates, 1000u);
        EXPECT_EQ(first_difference(session, replay(feed + ".pcap", feed)), "") << feed;
    }
}

// The card runs by itself here: how much the feed has cached when its snapshot is complete depends
// on the machine, and the recording must reproduce what it was. One round, so that a machine that
// stands still for a while does not let the feed read into the next one. What the feed had received
// and not handled when the session ended is handled in the replay.
TEST_F(SameCallbacks, OfACardThatRunsByItself) {
    sim("session.pcap", {"--changes", "15000", "--instruments", "60", "--set", "rounds=1"});
    for (const std::string speed : {"1", "3"}) {
        const SessionRun session = run(played("&speed=" + speed), "r" + speed + ".pcap");
        ASSERT_EQ(session.lost, 0u);
        const SessionRun again = replay("r" + speed + ".pcap");
        EXPECT_TRUE(again.callbacks.starts_with(session.callbacks))
            << "speed " << speed << ": " << first_difference(session, again);
    }
}

// The simulator's frames come back as they were, but for what only the wire knew: the sender of a
// datagram, its line and its number.
TEST_F(SameCallbacks, ARecordedFrameHasTheTimeAndTheContentOfItsSource) {
    sim("session.pcap", {"--changes", "3000", "--instruments", "30", "--set", "lines=a"});
    run(played(), "r.pcap");
    vorn_session::SessionCapture sent(content("session.pcap"));
    vorn_session::SessionCapture kept(content("r.pcap"));
    ASSERT_EQ(kept.changes().size(), sent.changes().size());
    for (std::size_t i = 0; i < sent.changes().size(); ++i) {
        const std::size_t from = sent.changes()[i];
        const std::size_t to = kept.changes()[i];
        ASSERT_EQ(kept.time_ns(to), sent.time_ns(from)) << i;
        const auto a = wirekit::parse_frame(sent.frame(from));
        const auto b = wirekit::parse_frame(kept.frame(to));
        ASSERT_EQ(a.to, b.to) << i;
        ASSERT_TRUE(b.checksum_ok) << i;
        ASSERT_TRUE(std::ranges::equal(a.payload, b.payload)) << i;
    }
}

} // namespace
