// Frames that a source says were lost to slow readers.

#include "softcard/firmware/paced_card.h"
#include "softcard/firmware/step_card.h"

#include "support.h"

#include <gtest/gtest.h>

namespace softcard {
namespace {

using namespace test;

// A script in which some frames are the first behind a loss.
class LossySource final : public FrameSource {
public:
    struct Entry {
        Bytes bytes;
        bool reader_lapped;
    };
    explicit LossySource(std::vector<Entry> entries) : entries_(std::move(entries)) {}

    bool next(SourceFrame& frame) override {
        if (at_ == entries_.size()) {
            return false;
        }
        frame = {1'700'000'000'000'000'000, entries_[at_].bytes, entries_[at_].reader_lapped};
        ++at_;
        return true;
    }

private:
    std::vector<Entry> entries_;
    std::size_t at_ = 0;
};

template <typename CardType, typename... More>
struct Rig {
    explicit Rig(std::vector<LossySource::Entry> entries, More... more)
        : window(new_window()), registers(window->program_view()),
          card(std::move(window), std::make_unique<LossySource>(std::move(entries)), AtEnd::kIdle,
               more...),
          decode(card.new_reader(0)), raw(card.new_reader(1)) {
        program_lines(registers);
        switch_on(registers);
    }

    ssize_t status(Reader& reader) {
        std::array<char, 2048> buffer;
        return card.receive(reader, buffer.data(), buffer.size(), nullptr);
    }

    std::unique_ptr<RegisterWindow> window;
    volatile uint32_t* registers;
    CardType card;
    Reader decode;
    Reader raw;
};

constexpr double kAtOnce = 1e12;

TEST(LappedReader, HearsOfItOnceBeforeTheNextFrame) {
    Rig<StepCard> rig(
        {{shfe_change(1, 1), false}, {shfe_change(1, 5), true}, {shfe_change(1, 6), false}});
    EXPECT_EQ(poll(rig.card, rig.decode), decode_payload(1, 1));
    EXPECT_EQ(rig.status(rig.decode), kStatusLapped);
    EXPECT_EQ(poll(rig.card, rig.decode), decode_payload(1, 5));
    EXPECT_EQ(poll(rig.card, rig.decode), decode_payload(1, 6));
    EXPECT_EQ(rig.status(rig.decode), 0);
}

TEST(LappedReader, IsToldOnBothPathsThatAreOn) {
    Stream stream;
    const Bytes segment = stream.next(more());
    Rig<StepCard> rig({{shfe_change(1, 5), true}, {segment, false}});
    EXPECT_EQ(rig.status(rig.decode), kStatusLapped);
    EXPECT_EQ(poll(rig.card, rig.decode), decode_payload(1, 5));
    EXPECT_EQ(rig.status(rig.raw), kStatusLapped);
    EXPECT_EQ(poll(rig.card, rig.raw), segment);
    EXPECT_EQ(rig.status(rig.decode), 0);
}

TEST(LappedReader, LosesNoFrameThatComesAfterTheMark) {
    Stream stream;
    const Bytes segment = stream.next(more());
    Rig<StepCard> rig({{segment, true}, {shfe_change(1, 5), false}});
    // The decode path's reader finds the mark first; the raw one's frame waits for it.
    EXPECT_EQ(rig.status(rig.decode), kStatusLapped);
    EXPECT_EQ(rig.status(rig.decode), 0);
    EXPECT_EQ(rig.status(rig.raw), kStatusLapped);
    EXPECT_EQ(poll(rig.card, rig.raw), segment);
    EXPECT_EQ(poll(rig.card, rig.decode), decode_payload(1, 5));
}

TEST(LappedReader, OfAPathThatWasOffHearsNothing) {
    Rig<StepCard> rig({{shfe_change(1, 5), true}, {shfe_change(1, 6), false}});
    end_snapshot(rig.registers);
    rig.registers[kAllShfeSwitchWord] = 1;
    EXPECT_EQ(rig.status(rig.decode), kStatusLapped);
    rig.registers[kRawSwitchWord] = 1;
    EXPECT_EQ(rig.status(rig.raw), 0);
}

TEST(LappedReader, LeavesNothingToTheReaderAfterIt) {
    Rig<StepCard> rig({{shfe_change(1, 5), true}});
    EXPECT_EQ(rig.status(rig.decode), kStatusLapped);
    Reader fresh = rig.card.new_reader(1);
    EXPECT_EQ(rig.status(fresh), 0);
}

TEST(LappedReader, HearsOfItInPacedModeToo) {
    Rig<PacedCard, double> rig({{shfe_change(1, 5), true}, {shfe_change(1, 6), false}}, kAtOnce);
    ssize_t status = 0;
    while (status == 0) { // until the frames have arrived
        status = rig.status(rig.decode);
    }
    EXPECT_EQ(status, kStatusLapped);
}

} // namespace
} // namespace softcard
