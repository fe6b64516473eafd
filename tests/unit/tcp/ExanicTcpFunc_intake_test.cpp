// Intake: what one receive attempt does with what the card answers, and what a queued frame meets
// when its turn comes.

#include "tcp/TaskWorker.h"
#include "tests/support/scripted_card.h"
#include "tests/unit/tcp/segment_script.h"

#include <future>

namespace tcp_test {
namespace {

constexpr int kRawPort = 1;

class Intake : public SnapshotChannel {
protected:
    Intake() : card_(support::ScriptedCard::instance()) {
        card_.reset();
        card_.record_stores(false);
        core->InitTcp(registers.data(), card_.rx(kRawPort));
    }
    ~Intake() override { card_.reset(); }

    // One receive attempt with a worker of its own; the lines of both.
    Log receive() {
        return logged([&] {
            CThread worker;
            core->TcpRecv(worker);
            worker.Join();
        });
    }

    // A worker that runs nothing until it is let go.
    class HeldWorker {
    public:
        HeldWorker() {
            worker.Enqueue([gate = gate_.get_future().share()] { gate.wait(); });
        }
        ~HeldWorker() { let_go(); }
        void let_go() {
            if (!open_) {
                open_ = true;
                gate_.set_value();
            }
            worker.Join();
        }
        CThread worker;

    private:
        std::promise<void> gate_;
        bool open_ = false;
    };

    support::ScriptedCard& card_;
};

TEST_F(Intake, InitTcpKeepsWhatItIsGivenAndSucceeds) {
    EXPECT_EQ(core->InitTcp(registers.data() + 3, card_.rx(0)), 0);
    EXPECT_EQ(core->m_pRegisters, registers.data() + 3);
    EXPECT_EQ(core->m_pRxBuffer, card_.rx(0));
}

TEST_F(Intake, EveryAnswerOfTheCardIsTakenAsALength) {
    const std::string abnormal = "receive abnormal decode length: ";
    const struct {
        const char* name;
        ssize_t result;
        std::string length; // as reported, empty: silent
        const char* why;
    } rows[] = {
        {"Nothing", 0, "", "nothing arrived"},
        {"One", 1, "1", "no frame is so short"},
        {"Fourteen", 14, "14", "an Ethernet header and nothing else"},
        {"TooLong", 2049, "2049", "longer than the receive area"},
        {"Huge", 5000000, "5000000", "longer than the receive area"},
        {"MinusOne", -1, "4294967295", "a negative status is a huge length"},
        {"Damaged", -2, "4294967294", "error bits of the hardware"},
        {"Lapped", -256, "4294967040", "frames were lost"},
        {"TooLarge", -257, "4294967039", "the frame did not fit"},
        {"Lowest", -2147483648LL, "2147483648", "taken as unsigned 32 bits"},
    };
    const ChannelState before = state();
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        card_.push_result(kRawPort, row.result);
        const Log log = receive();
        if (row.length.empty()) {
            EXPECT_EQ(log, Log{});
        } else {
            EXPECT_EQ(log, Log{line('W', "TcpRecv", abnormal + row.length)});
        }
        EXPECT_EQ(difference(before), "");
        EXPECT_EQ(card_.left(kRawPort), 0u);
    }
}

TEST_F(Intake, FramesOf15To2048BytesReachTheWorker) {
    for (const std::size_t size : {15u, 16u, 33u}) {
        card_.push(kRawPort, Bytes(size, 0));
        EXPECT_EQ(receive(),
                  Log{line('X', "_PacketHandler",
                           "packet too short for IP, packetLen=" + std::to_string(size))});
    }
    Bytes longest = segment(900, start_message() + Bytes(1934, 0)).bytes();
    ASSERT_EQ(longest.size(), 2048u);
    card_.push(kRawPort, longest);
    receive();
    EXPECT_EQ(session().current_seq, 900u);
    EXPECT_EQ(session().next_expt_seq, 900u + 1994u);
}

TEST_F(Intake, OffersTheCard2048Bytes) {
    card_.push(kRawPort, Bytes(2049, 0)); // does not fit: the card says -257
    EXPECT_EQ(receive(), Log{line('W', "TcpRecv", "receive abnormal decode length: 4294967039")});
}

TEST_F(Intake, OneCallTakesOneFrame) {
    card_.push(kRawPort, segment(500, start_message()).bytes());
    card_.push(kRawPort, segment(560, plain_message(2)).bytes());
    receive();
    EXPECT_EQ(card_.left(kRawPort), 1u);
    EXPECT_EQ(session().next_expt_seq, 560u);
    receive();
    EXPECT_EQ(card_.left(kRawPort), 0u);
    EXPECT_EQ(session().next_expt_seq, 600u);
}

TEST_F(Intake, EachTaskHasItsOwnCopyOfTheFrame) {
    const Stream stream = Stream().start(1).message(2, 100).message(3, 40);
    card_.push(kRawPort, stream.frame(0, 60));
    card_.push(kRawPort, stream.frame(60, 160));
    card_.push(kRawPort, stream.frame(160, 200));
    const Log log = logged(
        [&] {
            HeldWorker held;
            for (int i = 0; i < 3; ++i) {
                core->TcpRecv(held.worker);
            }
            std::fill(std::begin(core->m_recvBuf), std::end(core->m_recvBuf), '\x7F');
            held.let_go();
        },
        "X");
    EXPECT_EQ(packet_numbers(log), (std::vector<int>{1, 2, 3}));
}

TEST_F(Intake, AFrameIsJudgedByTheMasksOfTheMomentOfItsTurn) {
    const Bytes start = segment(500, start_message()).bytes();
    {
        card_.push(kRawPort, start);
        HeldWorker held;
        core->TcpRecv(held.worker); // queued while the snapshot is unfinished
        finished.mask = enabled.mask;
        held.let_go();
        EXPECT_EQ(session().frag_buf, nullptr) << "finished at its turn: discarded unread";
    }
    {
        card_.push(kRawPort, start);
        HeldWorker held;
        core->TcpRecv(held.worker); // queued while the snapshot is finished
        finished.mask = 0;
        held.let_go();
        EXPECT_EQ(session().init, 1) << "unfinished at its turn: handled";
    }
}

TEST_F(Intake, AFinishedSnapshotDiscardsEvenAReset) {
    plant_bad_book();
    finished.mask = enabled.mask;
    const ChannelState before = state();
    card_.push(kRawPort,
               segment(1, plain_message(1)).flags(wirekit::kTcpRst | wirekit::kTcpAck).bytes());
    EXPECT_EQ(receive(), Log{});
    EXPECT_EQ(difference(before), "");

    finished.mask = 0x07; // one feed is missing again
    card_.push(kRawPort,
               segment(1, plain_message(1)).flags(wirekit::kTcpRst | wirekit::kTcpAck).bytes());
    receive();
    EXPECT_EQ(slot(0).inst_id[0], 0);
    EXPECT_EQ(finished.mask, 0);
}

TEST_F(Intake, FinishedFeedsThatAreNotTheEnabledOnesDiscardNothing) {
    set_masks(0x05, 0x0A);
    card_.push(kRawPort, segment(500, start_message()).bytes());
    receive();
    EXPECT_EQ(session().init, 1);
}

TEST_F(Intake, AStoppedWorkerRaises) {
    CThread worker;
    worker.Join();
    card_.push(kRawPort, segment(500, start_message()).bytes());
    try {
        core->TcpRecv(worker);
        FAIL() << "nothing was raised";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Enqueue on stopped CThread");
    }
}

TEST_F(Intake, ARecordThatRunsPastTheLongestFrameMeetsZeros) {
    // The last field begins in the last 9 bytes: its header and five characters of the identifier
    // are there, the rest of its record, the instrument number too, is not.
    auto message = wirekit::mdqp_message();
    message.snap(kShfe2psTopic, 1).field(0x1002, 1963, Bytes(1963, 0x55));
    const Bytes tail = {0x01, 0x01, 112, 0, 'a', 'b', 'c', 'd', 'e'};
    const Bytes frame = segment(1, message.raw(tail).bytes()).bytes();
    ASSERT_EQ(frame.size(), 2048u);
    card_.push(kRawPort, frame);
    receive();
    EXPECT_EQ(session().init, 1);
    EXPECT_STREQ(reinterpret_cast<const char*>(slot(0).inst_id), "abcde");
}

} // namespace
} // namespace tcp_test
