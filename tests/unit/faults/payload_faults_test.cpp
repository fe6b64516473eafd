// Faults of what a decode buffer says.

#include "streams.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace faults {
namespace {

using namespace testing;

using wirekit::Bytes;
using wirekit::get_le16;
using wirekit::get_le32;

Bytes payload(const Sent& frame) {
    const auto parsed = frame.parsed();
    return {parsed.payload.begin(), parsed.payload.end()};
}

// The victims as they were and as they are: both copies of one change.
Difference damaged_on_both_lines(const char* fault, uint64_t seed = 1) {
    Difference found = difference(session(), filtered(session(), fault, seed));
    EXPECT_EQ(found.lost.size(), 2u) << fault;
    EXPECT_EQ(found.added.size(), 2u) << fault;
    EXPECT_EQ(found.lost.at(0).change(), found.lost.at(1).change()) << fault;
    EXPECT_NE(found.lost.at(0).parsed().to, found.lost.at(1).parsed().to) << fault;
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(found.lost[i].parsed().to, found.added.at(i).parsed().to) << fault;
        EXPECT_EQ(found.lost[i].timestamp_ns, found.added[i].timestamp_ns) << fault;
    }
    return found;
}

TEST(Truncate, EndsInsideTheHeaderBehindTheInstrument) {
    std::vector<std::size_t> sizes;
    for (uint64_t seed = 1; seed < 20; ++seed) {
        const Difference found = damaged_on_both_lines("truncate", seed);
        for (std::size_t i = 0; i < 2; ++i) {
            const Bytes before = payload(found.lost[i]);
            const Bytes cut = payload(found.added[i]);
            EXPECT_GE(cut.size(), 18u);
            EXPECT_LT(cut.size(), 24u);
            EXPECT_TRUE(std::equal(cut.begin(), cut.end(), before.begin()));
            sizes.push_back(cut.size());
        }
    }
    EXPECT_NE(*std::min_element(sizes.begin(), sizes.end()),
              *std::max_element(sizes.begin(), sizes.end()));
}

TEST(BadBook, CrossesTheBookBehindTheTrueFields) {
    const Difference found = damaged_on_both_lines("bad-book");
    for (std::size_t i = 0; i < 2; ++i) {
        const Bytes before = payload(found.lost[i]);
        const Bytes with = payload(found.added[i]);
        ASSERT_EQ(with.size(), before.size() + 32);
        EXPECT_TRUE(std::equal(before.begin(), before.end(), with.begin()));
        const uint8_t* const bid = &with[before.size()];
        const uint8_t* const ask = bid + 16;
        for (const uint8_t* field : {bid, ask}) {
            EXPECT_EQ(get_le16(field), 0x1001);
            EXPECT_EQ(field[3], 1);  // best level
            EXPECT_EQ(field[12], 2); // overwrite
            EXPECT_EQ(get_le32(field + 8), 1u);
        }
        EXPECT_EQ(bid[2], 0);
        EXPECT_EQ(ask[2], 1);
        EXPECT_GT(static_cast<int32_t>(get_le32(bid + 4)), static_cast<int32_t>(get_le32(ask + 4)));
    }
}

TEST(UnknownField, StandsBehindTheTrueFieldsOfAChange) {
    const Difference found = difference(session(), filtered(session(), "unknown-field@0.05:1"));
    Stream changes;
    std::copy_if(found.added.begin(), found.added.end(), std::back_inserter(changes),
                 [](const Sent& frame) { return frame.change().has_value(); });
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[0].change(), changes[1].change());
    for (const Sent& frame : changes) {
        const Bytes with = payload(frame);
        const auto before =
            std::find_if(found.lost.begin(), found.lost.end(), [&frame](const Sent& each) {
                return each.change() == frame.change() && each.parsed().to == frame.parsed().to;
            });
        ASSERT_NE(before, found.lost.end());
        const Bytes true_fields = payload(*before);
        ASSERT_EQ(with.size(), true_fields.size() + 48);
        EXPECT_TRUE(std::equal(true_fields.begin(), true_fields.end(), with.begin()));
        const uint8_t* const extra = &with[true_fields.size()];
        EXPECT_EQ(extra[2], 7);                  // neither bid nor ask
        EXPECT_EQ(extra[16 + 12], 9);            // neither insert, overwrite nor delete
        EXPECT_EQ(get_le16(extra + 32), 0x7F01); // no field
    }
}

// The extra datagram goes in front of the true one and differs in `size` bytes at `offset`.
void expect_extra(const Stream& after, std::size_t offset, std::size_t size, std::size_t count) {
    const Difference found = difference(session(), after);
    EXPECT_TRUE(found.lost.empty());
    ASSERT_EQ(found.added.size(), count);
    for (const std::size_t at : found.at) {
        Bytes extra = payload(after[at]);
        const Bytes victim = payload(after[at + 1]);
        EXPECT_EQ(after[at].parsed().to, after[at + 1].parsed().to);
        ASSERT_EQ(extra.size(), victim.size());
        EXPECT_NE(extra, victim);
        std::copy_n(victim.begin() + static_cast<std::ptrdiff_t>(offset), size,
                    extra.begin() + static_cast<std::ptrdiff_t>(offset));
        EXPECT_EQ(extra, victim);
    }
}

TEST(WrongTopic, AddsADatagramOfATopicThatNobodyKnows) {
    const Stream after = filtered(session(), "wrong-topic:2");
    expect_extra(after, 0, 2, 2);
    for (const std::size_t at : difference(session(), after).at) {
        EXPECT_EQ(get_le16(payload(after[at]).data()), 0x7FFF);
    }
}

TEST(BigNumber, AddsAChangeOfAnInstrumentBeyondAllLimitsWhileARoundIsUnderWay) {
    const Stream after = filtered(session(), "big-number:2");
    expect_extra(after, 14, 4, 2);
    for (const std::size_t at : difference(session(), after).at) {
        EXPECT_GE(get_le32(&payload(after[at])[14]), 20480u);
        EXPECT_GT(after[at].timestamp_ns, at_seconds(0.01));
        EXPECT_LT(after[at].timestamp_ns, first_rounds_end());
    }
}

TEST(BigNumber, ComesAtAnyTimeThatIsAskedFor) {
    const Stream after = filtered(session(), "big-number@0.03");
    expect_extra(after, 14, 4, 1);
    EXPECT_GE(after[difference(session(), after).at.at(0)].timestamp_ns, at_seconds(0.03));
}

} // namespace
} // namespace faults
