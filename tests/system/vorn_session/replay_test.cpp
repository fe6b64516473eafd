// `vorn replay` as a program, and a lost datagram in both replay and verify.

#include "session_capture.h"
#include "session_program.h"

#include <algorithm>

using vorn_session::contains;
using vorn_session::InstrumentKey;
using vorn_session::lines;

namespace {

class Replay : public vorn_session::SessionProgram {
protected:
    // A session of both lines without one of its changes, about a third into it.
    std::string with_a_gap() {
        sim("s");
        vorn_session::SessionCapture capture(content("s.pcap"));
        const std::size_t lost = capture.changes()[capture.changes().size() / 3];
        const auto copies = capture.copies(capture.instrument(lost), capture.change_no(lost));
        EXPECT_EQ(copies.size(), 2u);
        for (const std::size_t frame : copies) {
            capture.drop(frame);
        }
        directory_.write("gap.pcap", capture.bytes());
        lost_ = capture.first_rounds().at(capture.instrument(lost)).record.inst_id.data();
        return "gap.pcap";
    }
    std::string lost_; // its instrument
};

// The cached buffers are the first ones; what the live ones must become follows from the capture.
TEST_F(Replay, CountsAreThoseOfTheSession) {
    for (const char* both_lines : {"lines=both", "lines=a", "lines=b"}) {
        sim("s", {"-f", "--set", both_lines});
        const auto object = replay("s.pcap");
        vorn_session::SessionCapture capture(content("s.pcap"));
        const auto cached = object["cached"].get<std::size_t>();
        std::map<InstrumentKey, uint32_t> change_no;
        for (const auto& [key, entry] : capture.first_rounds()) {
            change_no[key] = entry.record.change_no;
        }
        uint64_t applied = 0;
        uint64_t stale = 0;
        for (std::size_t i = 0; i < capture.changes().size(); ++i) {
            const std::size_t frame = capture.changes()[i];
            uint32_t& now = change_no.at(capture.instrument(frame));
            const bool is_new = capture.change_no(frame) == now + 1;
            if (is_new) {
                ++now;
            } else {
                ASSERT_LE(capture.change_no(frame), now);
            }
            if (i >= cached) {
                ++(is_new ? applied : stale);
            }
        }
        EXPECT_EQ(object["decode_buffers"], capture.changes().size()) << both_lines;
        EXPECT_EQ(object["updates"], applied) << both_lines;
        EXPECT_EQ(object["live_applied"], applied) << both_lines;
        EXPECT_EQ(object["stale"], stale) << both_lines;
        EXPECT_EQ(object["replayed"], cached) << both_lines;
        EXPECT_EQ(object["instruments"], 30);
        EXPECT_EQ(object["result"], 0);
        EXPECT_EQ(object["cycles"], 1);
        for (const char* none : {"gaps", "restarts", "restored_books", "unsubscribed", "overflows",
                                 "damaged", "abnormal", "other", "options_skipped"}) {
            EXPECT_EQ(object[none], 0) << none;
        }
    }
}

TEST_F(Replay, TwoRunsSayTheSame) {
    sim("s");
    auto first = replay("s.pcap");
    auto second = replay("s.pcap");
    for (auto* object : {&first, &second}) {
        for (const char* time : {"seconds", "phase_seconds", "live_buffers_per_second"}) {
            EXPECT_EQ(object->erase(time), 1u) << time;
        }
    }
    EXPECT_EQ(first, second);
}

TEST_F(Replay, TheTextSaysWhatTheJsonSays) {
    sim("s", {"--set", "lines=a"});
    const auto object = replay("s.pcap");
    const auto run = vorn({"replay", "s.pcap"});
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out.find("updates "), 0u) << run.out;
    EXPECT_TRUE(contains(run.out, "\ndecode buffers             3,030\n")) << run.out;
    EXPECT_FALSE(contains(run.out, "\ngaps")) << run.out;
}

// Played without pauses, what comes while the feed starts again is lost to it as well, so that
// further gaps may follow the first.
TEST_F(Replay, ALostDatagramIsAGapAndARestart) {
    const std::string capture = with_a_gap();
    const auto object = replay(capture, 3);
    EXPECT_GE(object["gaps"], 1);
    EXPECT_EQ(object["restarts"], object["gaps"]);
    const auto run = vorn({"replay", capture});
    EXPECT_EQ(run.exit_status, 3);
    EXPECT_EQ(lines(run.err), 1u) << run.err;
    EXPECT_TRUE(contains(run.err, "instrumentID: " + lost_)) << run.err;
}

TEST_F(Replay, VerifyNamesTheInstrumentOfAGap) {
    const std::string capture = with_a_gap();
    const auto run = vorn({"verify", capture, "--truth", "s.truth"});
    EXPECT_EQ(run.exit_status, 3);
    EXPECT_EQ(lines(run.err), 1u) << run.err;
    EXPECT_TRUE(contains(run.err, "gap")) << run.err;
    EXPECT_TRUE(contains(run.err, "instrumentID: " + lost_)) << run.err;
}

} // namespace
