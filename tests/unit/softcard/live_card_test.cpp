#include "softcard/firmware/live_card.h"

#include "support.h"

#include <deque>
#include <gtest/gtest.h>

namespace softcard {
namespace {

using test::Bytes;
using namespace test;

// A network by hand: frames are there once a test has put them there.
class HandSource final : public LiveSource {
public:
    bool next(SourceFrame& frame) override {
        if (waiting.empty()) {
            return false;
        }
        current_ = std::move(waiting.front());
        waiting.pop_front();
        frame.timestamp_ns = ++stamps_;
        frame.bytes = current_;
        return true;
    }
    bool exhausted() const override { return over; }
    uint64_t lost() override { return losses; }
    void join(std::span<const uint32_t> groups) override {
        joined.emplace_back(groups.begin(), groups.end());
    }

    std::deque<Bytes> waiting;
    bool over = false;
    uint64_t losses = 0;
    std::vector<std::vector<uint32_t>> joined; // one entry for each call

private:
    Bytes current_;
    uint64_t stamps_ = 0;
};

struct Rig {
    explicit Rig(AtEnd at_end = AtEnd::kIdle)
        : window(new_window()), registers(window->program_view()), network(new HandSource),
          card(std::move(window), std::unique_ptr<LiveSource>(network), at_end),
          decode(card.new_reader(0)), raw(card.new_reader(1)) {
        program_lines(registers);
        switch_on(registers);
    }

    void arrive(std::initializer_list<Bytes> frames) {
        network->waiting.insert(network->waiting.end(), frames.begin(), frames.end());
    }
    ssize_t status(Reader& reader) {
        char buffer[2048];
        return card.receive(reader, buffer, sizeof(buffer), nullptr);
    }

    std::unique_ptr<RegisterWindow> window;
    volatile uint32_t* registers;
    HandSource* network; // the card's
    LiveCard card;
    Reader decode;
    Reader raw;
};

TEST(LiveCard, DeliversWhatHasArrivedAndWaitsForMore) {
    Rig rig;
    Stream stream;
    const Bytes segment = stream.next(more());
    EXPECT_TRUE(poll(rig.card, rig.decode).empty());
    rig.arrive({shfe_change(1, 1), segment, shfe_change(1, 2)});
    EXPECT_EQ(poll(rig.card, rig.decode), decode_payload(1, 1));
    EXPECT_EQ(poll(rig.card, rig.raw), segment);
    EXPECT_EQ(poll(rig.card, rig.decode), decode_payload(1, 2));
    EXPECT_TRUE(poll(rig.card, rig.decode).empty());
    rig.arrive({shfe_change(1, 3)});
    EXPECT_EQ(poll(rig.card, rig.decode), decode_payload(1, 3));
}

TEST(LiveCard, JoinsTheProgrammedGroupsOnceAndAgainWhenTheyChange) {
    Rig rig;
    EXPECT_TRUE(rig.network->joined.empty());
    poll(rig.card, rig.decode);
    poll(rig.card, rig.raw);
    ASSERT_EQ(rig.network->joined.size(), 1u);
    EXPECT_EQ(rig.network->joined[0],
              (std::vector<uint32_t>{kShfeGroupA, kShfeGroupB, kIneGroupA, kIneGroupB}));
    rig.registers[kLines[0].group_word] = 0xEF010203;
    poll(rig.card, rig.decode);
    ASSERT_EQ(rig.network->joined.size(), 2u);
    EXPECT_EQ(rig.network->joined[1][0], 0xEF010203u);
}

TEST(LiveCard, JoinsNothingWhileBothPathsAreOff) {
    Rig rig;
    end_snapshot(rig.registers);
    rig.registers[kDecodeSwitchWord] = 0;
    EXPECT_TRUE(poll(rig.card, rig.decode).empty());
    EXPECT_TRUE(rig.network->joined.empty());
}

TEST(LiveCard, TellsEveryReaderOnceOfFramesThatTheNetworkLost) {
    Rig rig;
    rig.arrive({shfe_change(1, 1)});
    rig.network->losses = 3;
    EXPECT_EQ(rig.status(rig.decode), kStatusLapped);
    EXPECT_EQ(poll(rig.card, rig.decode), decode_payload(1, 1)); // what was kept is still there
    EXPECT_EQ(rig.status(rig.raw), kStatusLapped);
    EXPECT_EQ(rig.status(rig.raw), 0);
    rig.network->losses = 4;
    EXPECT_EQ(rig.status(rig.raw), kStatusLapped);
    EXPECT_EQ(rig.status(rig.decode), kStatusLapped);
    EXPECT_EQ(rig.status(rig.decode), 0);
}

TEST(LiveCard, ANewReaderHearsNothingOfEarlierLosses) {
    Rig rig;
    rig.network->losses = 3;
    Reader late = rig.card.new_reader(0);
    EXPECT_EQ(rig.status(late), 0);
}

// More than the ring holds: it waits where there is more room, and nobody is lapped.
TEST(LiveCard, LeavesTheNetworkWaitingRatherThanLapAReader) {
    constexpr uint32_t kFrames = 40'000; // each takes one of 16384 chunks
    Rig rig;
    for (uint32_t i = 0; i < kFrames; ++i) {
        rig.network->waiting.push_back(shfe_change(1, i));
    }
    for (uint32_t i = 0; i < kFrames; ++i) {
        ASSERT_EQ(poll(rig.card, rig.decode), decode_payload(1, i));
    }
    EXPECT_TRUE(poll(rig.card, rig.decode).empty());
}

TEST(LiveCard, DoesNotWaitForAReaderWhosePathIsOff) {
    constexpr uint32_t kFrames = 4'000; // of 13 chunks each: three rings full
    Rig rig;
    Stream stream;
    for (uint32_t i = 0; i < kFrames; ++i) {
        rig.network->waiting.push_back(stream.next(more(1440)));
    }
    rig.arrive({shfe_change(1, 1)});
    for (uint32_t i = 0; i < kFrames; ++i) {
        ASSERT_TRUE(poll(rig.card, rig.decode).empty()); // the raw path is full before the change
    }
    rig.registers[kRawSwitchWord] = 0;
    Bytes change;
    for (uint32_t i = 0; i < kFrames && change.empty(); ++i) {
        change = poll(rig.card, rig.decode);
    }
    EXPECT_EQ(change, decode_payload(1, 1));
}

TEST(LiveCard, PassesAFrameOfAnySizeAndTellsOfOneThatDoesNotFit) {
    Rig rig;
    Stream stream;
    const Bytes jumbo = stream.next(more(9000));
    rig.arrive({jumbo, stream.next(more())});
    EXPECT_EQ(rig.status(rig.raw), kStatusTooLarge);
    EXPECT_GT(rig.status(rig.raw), 0);
}

TEST(LiveCard, SilenceIsNoEnd) {
    const InterruptCounter interrupts;
    Rig rig(AtEnd::kStop);
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(poll(rig.card, rig.decode).empty());
    }
    rig.arrive({shfe_change(1, 1)});
    EXPECT_EQ(poll(rig.card, rig.decode), decode_payload(1, 1));
    EXPECT_EQ(interrupts.count(), 0);
}

TEST(LiveCard, InterruptsOnceWhenTheNetworkIsOverAndAllIsRead) {
    const InterruptCounter interrupts;
    Rig rig(AtEnd::kStop);
    Stream stream;
    rig.arrive({shfe_change(1, 1), stream.next(more())});
    rig.network->over = true;
    EXPECT_EQ(poll(rig.card, rig.decode), decode_payload(1, 1));
    EXPECT_TRUE(poll(rig.card, rig.decode).empty());
    EXPECT_EQ(interrupts.count(), 0); // a raw frame is still unread
    EXPECT_FALSE(poll(rig.card, rig.raw).empty());
    EXPECT_TRUE(poll(rig.card, rig.raw).empty());
    EXPECT_TRUE(poll(rig.card, rig.decode).empty());
    EXPECT_EQ(interrupts.count(), 1);
}

} // namespace
} // namespace softcard
