// What the dissector says about change numbers.

#include "dissection.h"

#include "wirekit/mirp.h"

#include <gtest/gtest.h>

using wirekit::Bytes;
using wirekit::decode_buffer;
using wireshark_test::Dissection;

namespace {

using Frames = std::vector<int>;
using Texts = std::vector<std::string>;

Bytes change(uint32_t number, uint32_t instrument = 3) {
    return decode_buffer().instrument(instrument).change_no(number).highest(1).bytes();
}

TEST(Sequence, ARunOfChangesHasNoNotes) {
    Dissection dissection;
    for (uint32_t number = 10; number < 20; ++number) {
        dissection.line_a(change(number));
        dissection.line_a(change(number + 100, 4));
    }
    EXPECT_EQ(dissection.frames("_ws.expert"), Frames{});
}

TEST(Sequence, AGapIsAWarningWithItsSize) {
    Dissection dissection;
    dissection.line_a(change(10));
    dissection.line_a(change(11));
    dissection.line_a(change(15));
    dissection.line_a(change(17));
    dissection.line_a(change(18));
    EXPECT_EQ(dissection.frames("vorn.gap"), (Frames{3, 4}));
    EXPECT_EQ(dissection.frames("_ws.expert.severity == 0x600000"), (Frames{3, 4}));
    EXPECT_EQ(dissection.values("vorn.missing"), (Texts{"3", "1"}));
    EXPECT_EQ(dissection.values("_ws.expert.message", "vorn.gap"),
              (Texts{"changes 12 to 14 of instrument 3 missing: the feed takes a fresh snapshot",
                     "change 16 of instrument 3 missing: the feed takes a fresh snapshot"}));
    const Texts info = dissection.info();
    EXPECT_NE(info[2].find("[3 missing]"), std::string::npos) << info[2];
    // The same in two passes.
    EXPECT_EQ(dissection.run({"-2", "-Y", "vorn.gap", "-T", "fields", "-e", "frame.number"}),
              (Texts{"3", "4"}));
}

TEST(Sequence, TheOtherLineIsANoteAndNoGap) {
    Dissection dissection;
    for (uint32_t number = 1; number <= 3; ++number) {
        dissection.line_a(change(number));
        dissection.line_b(change(number));
    }
    EXPECT_EQ(dissection.frames("vorn.gap"), Frames{});
    EXPECT_EQ(dissection.frames("vorn.duplicate"), (Frames{2, 4, 6}));
    EXPECT_EQ(dissection.frames("_ws.expert.severity >= 0x600000"), Frames{}); // warnings
    EXPECT_EQ(dissection.values("vorn.duplicate_of"), (Texts{"1", "3", "5"}));
}

TEST(Sequence, WhatTheOtherLineBringsIsMissingOnOneLineOnly) {
    Dissection dissection;
    dissection.line_a(change(1));
    dissection.line_b(change(1));
    dissection.line_b(change(2)); // line A loses it
    dissection.line_a(change(3));
    dissection.line_b(change(3));
    EXPECT_EQ(dissection.frames("vorn.gap"), Frames{});
    EXPECT_EQ(dissection.frames("vorn.line_gap"), (Frames{4}));
}

TEST(Sequence, AChangeThatComesTooLateIsANote) {
    Dissection dissection;
    dissection.line_a(change(1));
    dissection.line_a(change(3));
    dissection.line_b(change(2));
    EXPECT_EQ(dissection.frames("vorn.gap"), (Frames{2}));
    EXPECT_EQ(dissection.frames("vorn.late"), (Frames{3}));
    EXPECT_EQ(dissection.frames("vorn.duplicate"), Frames{});
}

TEST(Sequence, TheExchangesCountApart) {
    Dissection dissection;
    dissection.line_a(decode_buffer().topic(1000).instrument(3).change_no(1).bytes());
    dissection.line_a(decode_buffer().topic(5000).instrument(3).change_no(900).bytes());
    dissection.line_a(decode_buffer().topic(1000).instrument(3).change_no(2).bytes());
    EXPECT_EQ(dissection.frames("_ws.expert"), Frames{});
}

} // namespace
