// The frames as a keeper gets them from the software card, polled as the feed polls it.

#include "tests/support/temp_dir.h"
#include "tools/vorn/feed/card_tap.h"
#include "tools/vorn/feed/card_time.h"
#include "tools/vorn/record/pcap_format.h"
#include "wirekit/ethernet.h"
#include "wirekit/mirp.h"

#include <ctime>
#include <exanic/util.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

using namespace vorn_cli;

namespace {

constexpr uint32_t kGroup = 0xEF042A48;
constexpr uint32_t kPort = 21000;
constexpr uint64_t kFirstNs = 1'768'438'800'000'000'123;

class KeeperTest : public testing::Test, protected FeedWatcher, protected FrameKeeper {
protected:
    struct Kept {
        std::string path;
        uint64_t time_ns;
        bool operator==(const Kept&) const = default;
    };

    // A capture of one decode buffer and, an hour later, one raw frame.
    void open() {
        const auto buffer = wirekit::decode_buffer().topic(1000).change_no(1).bytes();
        std::string capture = pcap_file_head();
        append(capture, kFirstNs,
               wirekit::udp_datagram().to(kGroup, kPort).payload(buffer).bytes());
        append(capture, kFirstNs + kHourNs, wirekit::tcp_segment().bytes());
        device_ = "pcap:" + directory_.write("two.pcap", capture);
        exanic_t* const card = exanic_acquire_handle(device_.c_str());
        ASSERT_NE(card, nullptr) << exanic_get_last_error();
        volatile uint32_t* const registers = exanic_get_devkit_registers(card);
        raw_ = exanic_acquire_rx_buffer(card, 1, 0);
        decode_ = exanic_acquire_rx_buffer(card, 0, 0);
        registers[16] = kGroup;
        registers[18] = kPort;
        for (const int on : {513, 512, 514, 515}) {
            registers[on] = 1;
        }
    }
    static void append(std::string& capture, uint64_t time_ns, const wirekit::Bytes& frame) {
        append_pcap_record(capture, time_ns,
                           {reinterpret_cast<const char*>(frame.data()), frame.size()});
    }
    static ssize_t poll(exanic_rx_t* rx) {
        char bytes[2048];
        return exanic_receive_frame(rx, bytes, sizeof(bytes), nullptr);
    }

    FrameKeeper* frame_keeper() override { return this; }
    bool in_step() const override { return in_step_; }
    void keep_raw(std::span<const char>, uint64_t time_ns) override {
        kept_.push_back({"raw", time_ns});
    }
    void keep_decode(std::span<const char>, uint64_t time_ns) override {
        if (poll_raw_meanwhile_) {
            std::thread([this] { meanwhile_ = poll(raw_); }).join();
        }
        kept_.push_back({"decode", time_ns});
    }

    static constexpr uint64_t kHourNs = 3'600'000'000'000;
    support::TempDir directory_;
    std::string device_;
    exanic_rx_t* raw_ = nullptr;
    exanic_rx_t* decode_ = nullptr;
    bool in_step_ = true;
    bool poll_raw_meanwhile_ = false;
    ssize_t meanwhile_ = -1;
    std::vector<Kept> kept_;
};

TEST_F(KeeperTest, FramesHaveTheWholeTimeOfTheirSource) {
    CardTap tap({}, *this);
    open();
    EXPECT_GT(poll(decode_), 0);
    EXPECT_GT(poll(raw_), 0);
    EXPECT_EQ(kept_, (std::vector<Kept>{{"decode", kFirstNs}, {"raw", kFirstNs + kHourNs}}));
}

// The raw frame is the card's next one, but the buffer before it is not yet kept.
TEST_F(KeeperTest, InStepAPathFindsNothingWhileTheOtherIsBeingKept) {
    CardTap tap({}, *this);
    open();
    poll_raw_meanwhile_ = true;
    EXPECT_GT(poll(decode_), 0);
    EXPECT_EQ(meanwhile_, 0);
    EXPECT_GT(poll(raw_), 0);
    ASSERT_EQ(kept_.size(), 2u);
    EXPECT_EQ(kept_[0].path, "decode");
}

TEST_F(KeeperTest, OtherwiseNobodyWaits) {
    in_step_ = false;
    CardTap tap({}, *this);
    open();
    poll_raw_meanwhile_ = true;
    EXPECT_GT(poll(decode_), 0);
    EXPECT_GT(meanwhile_, 0);
    ASSERT_EQ(kept_.size(), 2u);
    EXPECT_EQ(kept_[0].path, "raw");
}

TEST(CardTime, StepModeIsWhatNamesNoSpeed) {
    EXPECT_TRUE(works_in_step("sim:seed=1"));
    EXPECT_TRUE(works_in_step("pcap:/a.pcap?eof=stop"));
    EXPECT_FALSE(works_in_step("pcap:/a.pcap?speed=2"));
    EXPECT_FALSE(works_in_step("exanic0"));
}

TEST(CardTime, ReceiptIsNow) {
    const auto before = static_cast<uint64_t>(time(nullptr));
    const uint64_t now = time_of_receipt_ns() / 1'000'000'000;
    EXPECT_GE(now + 1, before);
    EXPECT_LE(now, static_cast<uint64_t>(time(nullptr)) + 1);
}

} // namespace
