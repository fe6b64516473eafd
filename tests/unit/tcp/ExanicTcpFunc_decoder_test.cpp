// The decoder thread: the end of the snapshot phase in each of its ways. The loop runs on the
// test's own thread; what happens at which poll is said by the scripted card.

#include "CommonLog.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_card.h"
#include "tests/unit/tcp/platform_stubs.h"
#include "tests/unit/tcp/segment_script.h"

#include <algorithm>
#include <sched.h>
#include <thread>

namespace tcp_test {
namespace {

constexpr int kRawPort = 1;
constexpr time_t kNow = 1700000000;

const std::string kCompleted = line('I', "RunTcpDecoder", "initialization completed");
const std::string kStillNot = line('W', "RunTcpDecoder", "initialization still not completed");
const std::string kTooMany = line('E', "RunTcpDecoder", "too many initialization failures");
const std::string kCheckFailed = line('W', "_PacketHandler", "price check is error");

std::string started(const std::string& mask) {
    return line('I', "RunTcpDecoder", "start initialization, enabled mask " + mask);
}

class DecoderThread : public SnapshotChannel {
protected:
    DecoderThread() : card_(support::ScriptedCard::instance()) {
        card_.reset();
        card_.record_stores(false);
        core->InitTcp(registers.data(), card_.rx(kRawPort));
    }
    ~DecoderThread() override { card_.reset(); }

    // Runs the phase to its end; lines at error, warning and info level unless asked otherwise.
    Log run(const std::string& levels = "EWI") {
        core->StartRunning();
        return logged([&] { core->RunTcpDecoder(); }, levels);
    }
    void finish_all_feeds() { __atomic_store_n(&finished.mask, enabled.mask, __ATOMIC_RELEASE); }

    // A whole snapshot of one feed in two frames. The highest instrument number decides how long
    // the price check takes; a bad book is found at its very end.
    std::vector<Bytes> round(uint32_t seq, bool good, int32_t highest = 3,
                             int16_t topic = kShfe2psTopic, uint16_t port = kPort) {
        auto first = wirekit::mdqp_message();
        first.snap(topic, 1).packet_no(1).inst({.inst_id = "cu2601", .inst_no = highest});
        first.deal({.inst_no = highest,
                    .last_price = 100,
                    .upper_limit_price = 150,
                    .lower_limit_price = 50,
                    .change_no = 7});
        auto last = wirekit::mdqp_message(wirekit::kFlagLast);
        last.price(highest, '1', good ? 101 : 100, 1).price(highest, '0', 100, 1);
        const Bytes rest = last.packet_no(9).packet_no(10).bytes();
        return {segment(seq, first.bytes(), port).bytes(),
                segment(seq + static_cast<uint32_t>(first.size()), rest, port).bytes()};
    }
    void push(const std::vector<Bytes>& frames) {
        for (const Bytes& frame : frames) {
            card_.push(kRawPort, frame);
        }
    }

    support::ScriptedCard& card_;
};

TEST_F(DecoderThread, StartRunningResetsTheOutcomeAndStopRunningOnlyTheFlag) {
    core->m_initialized.store(-1);
    core->StartRunning();
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DOING);
    EXPECT_TRUE(core->m_runningFlag.load());
    core->m_initialized.store(1);
    core->StopRunning();
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DONE);
    EXPECT_FALSE(core->m_runningFlag.load());
}

TEST_F(DecoderThread, WithoutAFeedTheSnapshotIsCompleteAtOnce) {
    set_masks(0, 0);
    EXPECT_EQ(run("EWIDX"), (Log{started("0x0"), kCompleted}));
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DONE);
    EXPECT_EQ(card_.polls(kRawPort), 0u);
}

TEST_F(DecoderThread, LoadsTheSnapshotOfEveryEnabledFeed) {
    set_masks(0x09, 0);
    push(round(100, true, 3, kShfe2psTopic, 1));
    push(round(500, true, 5, kIne4psTopic, 2));
    const Log log = run();
    EXPECT_EQ(
        log,
        (Log{started("0x9"), line('I', "_ParseMdqp", "shfe2ps init finished, total instruments:4"),
             line('I', "_ParseMdqp", "ine4ps init finished, total instruments:6"), kCompleted}));
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DONE);
    EXPECT_EQ(finished.mask, 0x09);
    EXPECT_EQ(slot(3).last_px, 100.0);
    EXPECT_EQ(slot(20474).ask_px[0], 101.0);
}

TEST_F(DecoderThread, BeginsWithACleanSlate) {
    // Equal masks of the last cycle do not complete this one.
    finish_all_feeds();
    subscribe(3, "old");
    calc->priceTick[3] = 5;
    core->inter_infos[3] = {1, 1};
    session().init = 1;
    card_.on_poll([&](int, uint64_t) { core->StopRunning(); });
    EXPECT_EQ(run(), Log{started("0xf")});
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DOING);
    EXPECT_EQ(card_.polls(kRawPort), 1u);
    EXPECT_EQ(finished.mask, 0);
    EXPECT_EQ(slot(3).inst_id[0], 0);
    EXPECT_EQ(calc->priceTick[3], 0.0);
    EXPECT_EQ(core->inter_infos[3].upper_limit_price, 0.0);
    EXPECT_EQ(session().init, 0);
    EXPECT_FALSE(core->shfe_cnt_80_flag);
}

TEST_F(DecoderThread, CountWarningsNeverAppearBehindTheFirstClean) {
    set_masks(0x05, 0);
    push(round(100, true, 12800, kShfe2psTopic, 1));
    push(round(500, true, 4095, kIne2psTopic, 2));
    push({segment(7, wirekit::mdqp_message().inst({.inst_no = 16384}).bytes(), 3).bytes()});
    EXPECT_EQ(only(run(), "W ExanicTcpFunc"), Log{});
    EXPECT_EQ(table->shfe_inst_cnt, 12801);
}

TEST_F(DecoderThread, AnAbandonedPhaseKeepsItsOutcome) {
    for (const int outcome : {MD_INIT_DOING, 55}) {
        card_.reset();
        card_.on_poll([&](int, uint64_t poll) {
            core->m_initialized.store(outcome); // as the caller left it
            if (poll == 5) {
                core->StopRunning();
            }
        });
        EXPECT_EQ(run(), Log{started("0xf")});
        EXPECT_EQ(core->GetInitialized(), outcome);
        EXPECT_EQ(card_.polls(kRawPort), 5u);
    }
}

TEST_F(DecoderThread, NothingIsReceivedWhenItIsNotRunning) {
    const Log log = logged([&] { core->RunTcpDecoder(); }, "EWI");
    EXPECT_EQ(log, Log{started("0xf")});
    EXPECT_EQ(card_.polls(kRawPort), 0u);
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DOING);
}

TEST_F(DecoderThread, ASnapshotThatIsThereWhenItIsStoppedCounts) {
    card_.on_poll([&](int, uint64_t) {
        finish_all_feeds();
        core->StopRunning();
    });
    EXPECT_EQ(run(), (Log{started("0xf"), kCompleted}));
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DONE);
}

TEST_F(DecoderThread, PartOfTheFeedsIsNotComplete) {
    for (const uint8_t mask : std::initializer_list<uint8_t>{0x01, 0x04, 0x07, 0x1F, 0x85}) {
        set_masks(0x05, 0);
        card_.reset();
        card_.on_poll([&](int, uint64_t poll) {
            __atomic_store_n(&finished.mask, mask, __ATOMIC_RELEASE);
            if (poll == 3) {
                core->StopRunning();
            }
        });
        EXPECT_EQ(run(), Log{started("0x5")}) << static_cast<int>(mask);
        EXPECT_EQ(core->GetInitialized(), MD_INIT_DOING);
    }
}

TEST_F(DecoderThread, TheBudgetIsSpentInPeriodsOf120Seconds) {
    const struct {
        const char* name;
        int16_t periods;
        std::vector<time_t> clock; // seconds behind the start, poll by poll
        Log said;
        const char* why;
    } rows[] = {
        {"One", 1, {0, 1, 119, 120, 121}, {kTooMany}, "120 seconds are within, 121 are not"},
        {"None", 0, {0, 120, 121}, {kTooMany}, "the first period is also the last"},
        {"Negative", -3, {120, 121}, {kTooMany}, "the first period is also the last"},
        {"Two", 2, {121, 240, 241}, {kStillNot, kTooMany}, "each period counts from the last one"},
        {"Three",
         3,
         {120, 121, 122, 240, 241, 360, 361},
         {kStillNot, kStillNot, kTooMany},
         "about 120, 240 and 360 seconds"},
        {"Late",
         3,
         {200, 241, 361},
         {kStillNot, kStillNot, kTooMany},
         "a late look does not move the periods"},
        {"Jump",
         3,
         {5000, 5000, 5000},
         {kStillNot, kStillNot, kTooMany},
         "a step of the wall clock uses up one period a look"},
        {"Back", 1, {-3600, 100, -1, 121}, {kTooMany}, "a step back extends it"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        config.timeout_cnt = row.periods;
        card_.reset();
        StoppedWallClock clock(kNow);
        card_.on_poll([&](int, uint64_t poll) {
            clock.set(kNow + row.clock[std::min<std::size_t>(poll, row.clock.size()) - 1]);
        });
        EXPECT_EQ(run(), Log{started("0xf")} + row.said);
        EXPECT_EQ(core->GetInitialized(), MD_INIT_FAILED);
        EXPECT_EQ(card_.polls(kRawPort), row.clock.size());
    }
}

TEST_F(DecoderThread, TheBudgetStartsWithEachRun) {
    config.timeout_cnt = 1;
    for (int run_no = 0; run_no < 2; ++run_no) {
        card_.reset();
        StoppedWallClock clock(kNow + run_no * 100000);
        card_.on_poll([&](int, uint64_t poll) {
            clock.set(kNow + run_no * 100000 + (poll < 3 ? 100 : 121));
        });
        EXPECT_EQ(run(), (Log{started("0xf"), kTooMany}));
        EXPECT_EQ(card_.polls(kRawPort), 3u);
    }
}

TEST_F(DecoderThread, ASnapshotThatIsThereWhenTheBudgetEndsCounts) {
    config.timeout_cnt = 1;
    StoppedWallClock clock(kNow);
    card_.on_poll([&](int, uint64_t) {
        finish_all_feeds(); // behind the loop's own look at the masks
        clock.set(kNow + 121);
    });
    EXPECT_EQ(run(), (Log{started("0xf"), kTooMany, kCompleted}));
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DONE);
}

TEST_F(DecoderThread, EverythingReceivedIsHandledBeforeItEnds) {
    Stream stream;
    stream.start(1);
    for (int i = 2; i <= 1000; ++i) {
        stream.message(i);
    }
    card_.push(kRawPort, stream.frame(0, 60));
    for (std::size_t at = 60; at < stream.size(); at += 40) {
        card_.push(kRawPort, stream.frame(at, at + 40));
    }
    card_.on_poll([&](int port, uint64_t) {
        if (card_.left(port) == 1) {
            core->StopRunning();
        }
    });
    core->StartRunning();
    core->RunTcpDecoder();
    EXPECT_EQ(session().next_expt_seq, stream.seq(stream.size()));
    EXPECT_EQ(table->shfe_pktno, 1000);
}

TEST_F(DecoderThread, FramesBehindAFinishedSnapshotAreDiscarded) {
    set_masks(0x01, 0);
    push(round(100, true));
    for (int i = 0; i < 50; ++i) {
        push({segment(1, plain_message(1)).flags(wirekit::kTcpRst | wirekit::kTcpAck).bytes()});
    }
    EXPECT_EQ(last(run()), kCompleted);
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DONE);
    EXPECT_EQ(slot(3).last_px, 100.0);
    EXPECT_EQ(finished.mask, 0x01);
}

TEST_F(DecoderThread, AFailedCheckTakesTheSnapshotAgain) {
    set_masks(0x01, 0);
    push(round(100, false));
    push(round(90000, false));
    push(round(7, true, 4));
    const Log log = run();
    EXPECT_EQ(only(log, kCheckFailed).size(), 2u);
    EXPECT_EQ(only(log, "init finished").size(), 3u);
    EXPECT_EQ(only(log, kCompleted).size(), 1u);
    EXPECT_EQ(last(log), kCompleted);
    EXPECT_EQ(slot(3).inst_id[0], 0); // nothing of the failed ones
    EXPECT_EQ(slot(4).last_px, 100.0);
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DONE);
}

TEST_F(DecoderThread, AShieldedFailureCompletes) {
    config.shield_price_check = true;
    set_masks(0x01, 0);
    push(round(100, false));
    const Log log = run();
    EXPECT_EQ(only(log, kCheckFailed), Log{});
    EXPECT_EQ(last(log), kCompleted);
    EXPECT_EQ(slot(3).last_px, 100.0);
}

TEST_F(DecoderThread, NeverCompletesOnASnapshotWhoseCheckThenFails) {
    // The feed's bit is set long before the check over 12000 slots finds the bad book, while this
    // thread looks at the masks all the time.
    set_masks(0x01, 0);
    for (int iteration = 0; iteration < 60; ++iteration) {
        card_.reset();
        card_.record_stores(false);
        const int failures = 1 + iteration % 3;
        uint32_t seq = 1000;
        for (int i = 0; i < failures; ++i) {
            push(round(seq, false, 12000));
            seq += 5000;
            card_.push_nothing(kRawPort, iteration * 7 % 50);
        }
        push(round(seq, true, 12000));
        const Log log = run("WI");
        ASSERT_EQ(only(log, kCheckFailed).size(), static_cast<std::size_t>(failures));
        ASSERT_EQ(only(log, kCompleted).size(), 1u);
        ASSERT_EQ(last(log), kCompleted);
        ASSERT_EQ(core->GetInitialized(), MD_INIT_DONE);
        ASSERT_EQ(finished.mask, 0x01);
        ASSERT_EQ(slot(12000).ask_px[0], 101.0);
        ASSERT_EQ(table->shfe_inst_cnt, 12001);
    }
}

TEST_F(DecoderThread, AFailingSnapshotNeverCompletesHoweverLongItIsWatched) {
    // Only failing rounds, and the stop comes at any moment of a check.
    set_masks(0x01, 0);
    for (uint64_t iteration = 0; iteration < 60; ++iteration) {
        card_.reset();
        card_.record_stores(false);
        push(round(1000, false, 12000));
        card_.on_poll([&](int port, uint64_t poll) {
            if (card_.left(port) == 0 && poll > 2 + iteration * 40) {
                core->StopRunning();
            }
        });
        const Log log = run("WI");
        ASSERT_EQ(only(log, kCompleted), Log{});
        ASSERT_EQ(only(log, kCheckFailed).size(), 1u);
        ASSERT_EQ(core->GetInitialized(), MD_INIT_DOING);
        ASSERT_EQ(finished.mask, 0);
    }
}

TEST_F(DecoderThread, FramesAreHandledOnTheWorkerAndTheLoopLogsOnItsOwnThread) {
    set_masks(0x01, 0);
    push(round(100, true));
    core->StartRunning();
    std::vector<support::LogLine> lines;
    {
        const support::LogCapture capture(31);
        core->RunTcpDecoder();
        lines = capture.lines();
    }
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(0));
    std::string loop_thread;
    std::string worker_thread;
    for (const support::LogLine& text : lines) {
        std::string& thread = text.function == "RunTcpDecoder" ? loop_thread : worker_thread;
        EXPECT_TRUE(thread.empty() || thread == text.thread) << text.message;
        thread = text.thread;
    }
    EXPECT_FALSE(loop_thread.empty());
    EXPECT_FALSE(worker_thread.empty());
    EXPECT_NE(loop_thread, worker_thread);
}

TEST_F(DecoderThread, AWorkerThatCannotStartLeavesThePhaseToItsBudget) {
    config.timeout_cnt = 2;
    set_masks(0x01, 0);
    push(round(100, true));
    StoppedWallClock clock(kNow);
    card_.on_poll([&](int, uint64_t poll) {
        clock.set(kNow + (poll < 5 ? 0 : poll < 10 ? 121 : 241));
    });
    testing::internal::CaptureStderr();
    Log log;
    {
        const NoNewThreads refusal;
        log = run();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("Failed to start thread: ", 0), 0u);
    EXPECT_EQ(log, (Log{started("0x1"), kStillNot, kTooMany}));
    EXPECT_EQ(core->GetInitialized(), MD_INIT_FAILED);
    EXPECT_EQ(card_.left(kRawPort), 0u);    // received and queued
    EXPECT_EQ(session().frag_buf, nullptr); // never handled
}

TEST_F(DecoderThread, AWorkerThatCannotStartDoesNotMatterWithoutAFeed) {
    set_masks(0, 0);
    testing::internal::CaptureStderr();
    Log log;
    {
        const NoNewThreads refusal;
        log = run();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("Failed to start thread: ", 0), 0u);
    EXPECT_EQ(log, (Log{started("0x0"), kCompleted}));
}

TEST_F(DecoderThread, AnotherThreadMayStopItAndReadTheOutcome) {
    set_masks(0x01, 0);
    push(round(100, true));
    core->StartRunning();
    std::thread decoder([&] { core->RunTcpDecoder(); });
    while (core->GetInitialized() == MD_INIT_DOING) {
        sched_yield();
    }
    core->StopRunning();
    decoder.join();
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DONE);
    EXPECT_EQ(slot(3).last_px, 100.0);

    core->StartRunning();
    std::thread again([&] { core->RunTcpDecoder(); });
    core->StopRunning();
    again.join();
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DOING);
}

} // namespace
} // namespace tcp_test
