#include "tools/vorn/tap/tap_order.h"

#include "tools/vorn/fanout/ack_inbox.h"

#include <gtest/gtest.h>

using namespace vorn_cli;

namespace {

constexpr char kCopper[] = "md.shfe.cu2603";

UpdateId update(uint32_t change_no, const char* label = "day1") {
    return {label, change_no, false};
}
UpdateId value(uint32_t change_no) {
    return {"day1", change_no, true};
}

TEST(TapOrder, LetsEachUpdateOutOnceAndInOrder) {
    TapOrder order;
    EXPECT_EQ(order.judge(kCopper, update(1)), TapVerdict::kNewest);
    EXPECT_EQ(order.judge(kCopper, update(2)), TapVerdict::kNewest);
    EXPECT_EQ(order.judge(kCopper, update(2)), TapVerdict::kRepeated);
    EXPECT_EQ(order.judge(kCopper, update(1)), TapVerdict::kRepeated);
    EXPECT_EQ(order.judge(kCopper, update(6)), TapVerdict::kNewest);
    EXPECT_EQ(order.judge("md.shfe.au2603", update(1)), TapVerdict::kNewest);
    EXPECT_EQ(order.updates(), 4u);
    EXPECT_EQ(order.repeated(), 2u);
    EXPECT_EQ(order.missing(), 3u);
}

TEST(TapOrder, CountsAnewInAnotherSession) {
    TapOrder order;
    EXPECT_EQ(order.judge(kCopper, update(500)), TapVerdict::kNewest);
    EXPECT_EQ(order.judge(kCopper, update(1, "day2")), TapVerdict::kNewest);
    EXPECT_EQ(order.judge(kCopper, update(501)), TapVerdict::kNewest);
    EXPECT_EQ(order.missing(), 0u);
}

TEST(TapOrder, LetsAValueOutOnlyWhenItIsNewer) {
    TapOrder order;
    EXPECT_EQ(order.judge(kCopper, value(10)), TapVerdict::kNewest);
    EXPECT_EQ(order.judge(kCopper, value(10)), TapVerdict::kRepeated);
    EXPECT_EQ(order.judge(kCopper, update(11)), TapVerdict::kNewest);
    EXPECT_EQ(order.judge(kCopper, value(11)), TapVerdict::kRepeated);
    EXPECT_EQ(order.judge(kCopper, value(12)), TapVerdict::kNewest);
}

TEST(TapOrder, LetsAnUpdateOutThatAValueWasFasterThan) {
    TapOrder order;
    order.judge(kCopper, update(7));
    order.judge(kCopper, value(10));
    EXPECT_EQ(order.judge(kCopper, update(8)), TapVerdict::kLate);
    EXPECT_EQ(order.judge(kCopper, update(9)), TapVerdict::kLate);
    EXPECT_EQ(order.judge(kCopper, update(10)), TapVerdict::kNewest) << "and more of it is known";
    EXPECT_EQ(order.missing(), 0u);
}

TEST(TapOrder, LetsAnEventOutOnce) {
    TapOrder order;
    EXPECT_TRUE(order.is_new_event("day1/event/a/1/5"));
    EXPECT_FALSE(order.is_new_event("day1/event/a/1/5"));
    EXPECT_TRUE(order.is_new_event("day1/event/b/1/5"));
}

TEST(Acknowledgement, IsReadAsTheServersWriteIt) {
    const std::pair<const char*, AckResult> cases[] = {
        {R"({"stream":"VORN", "seq":5})", AckResult::kStored},
        {R"({"stream":"VORN","domain":"x","seq":5})", AckResult::kStored},
        {R"({"stream":"VORN", "seq":5,"duplicate": true})", AckResult::kDuplicate},
        {R"({"error":{"code":400,"err_code":10071,"description":"wrong last sequence: 3"},)"
         R"("stream":"VORN","seq":0})",
         AckResult::kSuperseded},
        {R"({"error":{"code":503,"err_code":10077,"description":"maximum bytes exceeded"},)"
         R"("stream":"VORN","seq":0})",
         AckResult::kRefused},
        {"", AckResult::kRefused},
        {"+OK", AckResult::kRefused},
        {R"({"error":7})", AckResult::kRefused},
    };
    for (const auto& [text, result] : cases) {
        std::string reason;
        EXPECT_EQ(parse_ack(text, reason), result) << text;
        EXPECT_EQ(reason.empty(), result != AckResult::kRefused) << text;
    }
    std::string reason;
    parse_ack(cases[4].first, reason);
    EXPECT_EQ(reason, "maximum bytes exceeded");
}

} // namespace
