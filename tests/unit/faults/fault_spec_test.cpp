#include "faults/fault_spec.h"

#include <gtest/gtest.h>

namespace faults {
namespace {

std::vector<FaultSpec> good(const std::string& text) {
    std::vector<FaultSpec> specs;
    std::string error;
    EXPECT_TRUE(parse_faults(text, specs, error)) << error;
    return specs;
}

std::string error_of(const std::string& text) {
    std::vector<FaultSpec> specs;
    std::string error;
    EXPECT_FALSE(parse_faults(text, specs, error)) << text;
    return error;
}

TEST(FaultSpec, AKindAloneIsOneFaultWhereItHasItsEffect) {
    for (const KindInfo& info : all_kinds()) {
        const std::vector<FaultSpec> expected = {{info.kind, std::nullopt, 1}};
        EXPECT_EQ(good(info.name), expected) << info.name;
        EXPECT_STREQ(name_of(info.kind), info.name);
    }
    EXPECT_EQ(all_kinds().size(), 18u);
}

TEST(FaultSpec, TimeIsInSecondsAndComesBeforeTheCount) {
    EXPECT_EQ(good("gap@2:3"), (std::vector<FaultSpec>{{Kind::kGap, 2'000'000'000, 3}}));
    EXPECT_EQ(good("gap@0"), (std::vector<FaultSpec>{{Kind::kGap, 0, 1}}));
    EXPECT_EQ(good("gap@0.25"), (std::vector<FaultSpec>{{Kind::kGap, 250'000'000, 1}}));
    EXPECT_EQ(good("line-a-loss@1e3:4294967295"),
              (std::vector<FaultSpec>{{Kind::kLineALoss, 1'000'000'000'000, 4294967295}}));
    EXPECT_EQ(good("rst-ack:7"), (std::vector<FaultSpec>{{Kind::kRstAck, std::nullopt, 7}}));
}

TEST(FaultSpec, APlusJoinsSeveral) {
    EXPECT_EQ(good("gap@1:2+duplicate+gap"),
              (std::vector<FaultSpec>{{Kind::kGap, 1'000'000'000, 2},
                                      {Kind::kDuplicate, std::nullopt, 1},
                                      {Kind::kGap, std::nullopt, 1}}));
}

TEST(FaultSpec, AnUnknownKindGetsAGuessAndTheList) {
    constexpr char kAll[] = "; there are gap, duplicate, reorder, line-a-loss, line-b-loss, "
                            "overflow, bad-checksum, truncate, tcp-loss, tcp-reorder, "
                            "tcp-duplicate, rst-ack, bad-book, price-check, wrong-topic, "
                            "unknown-field, big-number, late-snapshot";
    EXPECT_EQ(error_of("gpa"), std::string("unknown fault \"gpa\"") + kAll);
    EXPECT_EQ(error_of("gapp"), std::string("unknown fault \"gapp\", did you mean gap?") + kAll);
    EXPECT_EQ(error_of("line-loss@3"),
              std::string("unknown fault \"line-loss\", did you mean line-a-loss?") + kAll);
    EXPECT_EQ(error_of(""), std::string("unknown fault \"\"") + kAll);
    EXPECT_EQ(error_of("gap+"), std::string("unknown fault \"\"") + kAll);
    EXPECT_EQ(error_of("Gap"), std::string("unknown fault \"Gap\", did you mean gap?") + kAll);
}

TEST(FaultSpec, AWrongTimeOrCountIsNamed) {
    for (const char* text : {"gap@", "gap@x", "gap@-1", "gap@1s", "gap@nan", "gap@inf", "gap@1e10",
                             "gap@1@2", "gap@ 1", "gap@:2"}) {
        EXPECT_EQ(error_of(text), std::string("fault \"") + text +
                                      "\": behind @ stand seconds from the first frame, as in "
                                      "gap@2.5");
    }
    for (const char* text :
         {"gap:", "gap:0", "gap:-1", "gap:1.5", "gap:x", "gap:4294967296", "gap@1:2:3", "gap: 1"}) {
        EXPECT_EQ(error_of(text), std::string("fault \"") + text +
                                      "\": behind : stands a whole number from 1, as in gap:3");
    }
    EXPECT_EQ(error_of("gap:3@2"),
              "fault \"gap:3@2\": the time comes before the count, as in gap@2.5:3");
}

TEST(FaultSpec, OnlyAnOverflowHasNoPlaceInACapture) {
    for (const KindInfo& info : all_kinds()) {
        EXPECT_EQ(fits_into_a_capture(info.kind), info.kind != Kind::kOverflow) << info.name;
    }
}

} // namespace
} // namespace faults
