#include "softcard/firmware/paced_card.h"

#include "support.h"

#include <gtest/gtest.h>

namespace softcard {
namespace {

using test::Bytes;
using namespace test;

// Fast enough for the whole script to have arrived by the second poll.
constexpr double kAtOnce = 1e12;
// So slow that only the first frame arrives within a test, or a lifetime.
constexpr double kNever = 1e-9;

struct Rig {
    explicit Rig(std::vector<Bytes> frames, double speed = kAtOnce, AtEnd at_end = AtEnd::kIdle)
        : window(new_window()), registers(window->program_view()),
          card(std::move(window), std::make_unique<ScriptSource>(std::move(frames)), at_end, speed),
          decode(card.new_reader(0)), raw(card.new_reader(1)) {
        program_lines(registers);
        switch_on(registers);
    }

    std::unique_ptr<RegisterWindow> window;
    volatile uint32_t* registers;
    PacedCard card;
    Reader decode;
    Reader raw;
};

// Polls until a frame comes.
Bytes next_frame(Card& card, Reader& reader) {
    Bytes bytes;
    while (bytes.empty()) {
        bytes = poll(card, reader);
    }
    return bytes;
}

std::vector<Bytes> changes(uint32_t count) {
    std::vector<Bytes> frames;
    for (uint32_t i = 0; i < count; ++i) {
        frames.push_back(shfe_change(1, i));
    }
    return frames;
}

TEST(PacedCard, DeliversEveryFrameInOrder) {
    Rig rig(changes(3000), 1e4); // 0.3 seconds' worth in 0.3 milliseconds, or as fast as it goes
    for (uint32_t i = 0; i < 3000; ++i) {
        ASSERT_EQ(next_frame(rig.card, rig.decode), decode_payload(1, i));
    }
    EXPECT_TRUE(poll(rig.card, rig.decode).empty());
}

TEST(PacedCard, LetsThePathsGoTheirOwnWays) {
    Stream stream;
    const Bytes one = stream.next(more()), end = stream.next(last()), two = stream.next(more());
    Rig rig({one, shfe_change(1, 1), end, shfe_change(1, 2), two});
    EXPECT_EQ(next_frame(rig.card, rig.decode), decode_payload(1, 1));
    EXPECT_EQ(next_frame(rig.card, rig.decode), decode_payload(1, 2));
    EXPECT_EQ(next_frame(rig.card, rig.raw), one);
    EXPECT_EQ(next_frame(rig.card, rig.raw), end);
    EXPECT_EQ(next_frame(rig.card, rig.raw), two); // no hold at the end of a round
}

TEST(PacedCard, WaitsForTheTimeOfAFrame) {
    Rig rig(changes(2), kNever);
    EXPECT_EQ(next_frame(rig.card, rig.decode), decode_payload(1, 0)); // the clock starts with it
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(poll(rig.card, rig.decode).empty());
    }
}

TEST(PacedCard, StartsItsClockWhenAPathIsSwitchedOn) {
    Rig rig(changes(1), kNever);
    rig.registers[kRawSwitchWord] = 0;
    rig.registers[kDecodeSwitchWord] = 0;
    EXPECT_TRUE(poll(rig.card, rig.decode).empty());
    rig.registers[kDecodeSwitchWord] = 1;
    EXPECT_EQ(next_frame(rig.card, rig.decode), decode_payload(1, 0));
}

TEST(PacedCard, LosesWhatArrivesWhileAPathIsOff) {
    Stream stream;
    Rig rig({shfe_change(1, 1), stream.next(more()), shfe_change(1, 2)});
    rig.registers[kRawSwitchWord] = 0;
    EXPECT_EQ(next_frame(rig.card, rig.decode), decode_payload(1, 1));
    EXPECT_EQ(next_frame(rig.card, rig.decode), decode_payload(1, 2));
    rig.registers[kRawSwitchWord] = 1;
    EXPECT_TRUE(poll(rig.card, rig.raw).empty());
}

TEST(PacedCard, GoesOnArrivingInReset) {
    Rig rig(changes(3));
    poll(rig.card, rig.raw); // starts the clock
    rig.decode = rig.card.new_reader(0);
    rig.registers[kResetWord] = 1;
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(poll(rig.card, rig.decode).empty());
    }
    rig.registers[kResetWord] = 0;
    EXPECT_TRUE(poll(rig.card, rig.decode).empty());
}

TEST(PacedCard, StartsANewReaderAtNow) {
    Rig rig(changes(3));
    EXPECT_EQ(next_frame(rig.card, rig.decode), decode_payload(1, 0));
    poll(rig.card, rig.raw);
    Reader late = rig.card.new_reader(0);
    EXPECT_TRUE(poll(rig.card, late).empty());
    EXPECT_EQ(next_frame(rig.card, rig.decode), decode_payload(1, 1));
}

TEST(PacedCard, LapsAReaderThatIsTooSlow) {
    constexpr uint32_t kFrames = 40'000; // each takes one of 16384 chunks
    Rig rig(changes(kFrames));
    char buffer[2048];
    uint32_t delivered = 0, lapped = 0;
    while (lapped == 0) {
        const ssize_t status = rig.card.receive(rig.decode, buffer, sizeof(buffer), nullptr);
        delivered += status > 0 ? 1 : 0;
        lapped += status == kStatusLapped ? 1 : 0;
        ASSERT_TRUE(status >= 0 || status == kStatusLapped) << status;
        ASSERT_LT(delivered, kFrames);
    }
    EXPECT_GT(delivered, 0u);
}

TEST(PacedCard, TellsOfAFrameThatDoesNotFit) {
    Rig rig(changes(2));
    char buffer[8];
    ssize_t status = 0;
    while (status == 0) {
        status = rig.card.receive(rig.decode, buffer, sizeof(buffer), nullptr);
    }
    EXPECT_EQ(status, kStatusTooLarge);
    EXPECT_EQ(next_frame(rig.card, rig.decode), decode_payload(1, 1));
}

TEST(PacedCard, InterruptsOnceWhenAllIsRead) {
    const InterruptCounter interrupts;
    Stream stream;
    Rig rig({shfe_change(1, 1), stream.next(more()), shfe_change(1, 2)}, kAtOnce, AtEnd::kStop);
    next_frame(rig.card, rig.decode);
    next_frame(rig.card, rig.decode);
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(poll(rig.card, rig.decode).empty());
    }
    EXPECT_EQ(interrupts.count(), 0); // a raw frame is still unread
    next_frame(rig.card, rig.raw);
    EXPECT_EQ(interrupts.count(), 0);
    EXPECT_TRUE(poll(rig.card, rig.raw).empty());
    EXPECT_EQ(interrupts.count(), 1);
    EXPECT_TRUE(poll(rig.card, rig.decode).empty());
    EXPECT_EQ(interrupts.count(), 1);
}

TEST(PacedCard, DoesNotWaitForAReaderWhosePathIsOff) {
    const InterruptCounter interrupts;
    Stream stream;
    Rig rig({stream.next(more()), shfe_change(1, 1)}, kAtOnce, AtEnd::kStop);
    next_frame(rig.card, rig.decode);
    rig.registers[kRawSwitchWord] = 0;
    EXPECT_TRUE(poll(rig.card, rig.decode).empty());
    EXPECT_EQ(interrupts.count(), 1);
}

} // namespace
} // namespace softcard
