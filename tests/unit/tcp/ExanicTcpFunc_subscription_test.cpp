// Which instruments are subscribed, what subscribing writes into the card, and the counts.

#include "tests/support/scripted_card.h"
#include "tests/unit/tcp/segment_script.h"

namespace tcp_test {
namespace {

using support::RegisterStore;
using support::ScriptedCard;
using wirekit::mdqp_message;

class Subscription : public SnapshotChannel {
protected:
    Subscription() : card_(ScriptedCard::instance()) {
        card_.reset(); // records register stores
        core->InitTcp(card_.registers(), nullptr);
    }
    ~Subscription() override { card_.reset(); }

    // True when the identifier is subscribed under the list.
    bool takes(const std::vector<std::string>& list, const std::string& inst_id) {
        config.recvall = 0;
        config.listen_insts = list;
        config.total_listen_cnt = static_cast<uint32_t>(list.size());
        return takes_as_configured(inst_id);
    }
    bool takes_as_configured(const std::string& inst_id) {
        card_.clear_stores();
        slot(9) = instrument{};
        slot(9).inst_id[0] = ' '; // not subscribed
        parse_as(SHFE_2PS, mdqp_message().inst({.inst_id = inst_id, .inst_no = 9}).bytes());
        const bool subscribed = slot(9).inst_id[0] != ' ';
        EXPECT_EQ(card_.stores().size(), subscribed ? 2u : 0u);
        return subscribed;
    }
    Log entry(EMdqpDataType type, int32_t number, const std::string& levels = "EWI") {
        return logged(
            [&] {
                parse_as(type,
                         mdqp_message().inst({.inst_id = "cu2601", .inst_no = number}).bytes());
            },
            levels);
    }

    ScriptedCard& card_;
};

TEST_F(Subscription, TheListIsMatchedByProductOrByInstrument) {
    const struct {
        std::vector<std::string> list;
        const char* inst_id;
        bool subscribed;
        const char* why;
    } rows[] = {
        {{"cu"}, "cu2601", true, "a product code"},
        {{"cu"}, "cu", true, "the identifier is the product code"},
        {{"cu"}, "cu2601C70000", true, "options of the product too"},
        {{"cu"}, "c", false, "shorter than the product code"},
        {{"cu"}, "al2601", false, "another product"},
        {{"cu"}, "CU2601", false, "case counts"},
        {{"cu"}, "acu260", false, "only at the beginning"},
        {{"cu2601"}, "cu2601", true, "an instrument"},
        {{"cu2601"}, "cu2601C70000", true, "the first six characters are it"},
        {{"cu2601"}, "cu2602", false, "another month"},
        {{"cu2601"}, "cu260", false, "compared whole, and shorter"},
        {{"cu260"}, "cu2601", false, "five characters are no product and not the first six"},
        {{"cu260"}, "cu260", true, "an identifier shorter than six is compared whole"},
        {{"c"}, "cu2601", false, "one character is no product code"},
        {{"c"}, "c", true, "compared whole"},
        {{"cu2"}, "cu2601", false, "three characters are no product code"},
        {{"cu2601C70000"}, "cu2601C70000", false, "an entry of more than six never matches"},
        {{"cu26011"}, "cu26011", false, "an entry of more than six never matches"},
        {{""}, "cu2601", false, "an empty entry matches no identifier"},
        {{}, "cu2601", false, "nothing is listened to"},
        {{"al", "zn2601", "cu"}, "cu2601", true, "the third entry"},
        {{"al", "zn2601", "cu"}, "zn2601", true, "the second entry"},
        {{"al", "zn2601", "cu"}, "zn2602", false, "no entry"},
        {{"cu", "cu"}, "cu2601", true, "the first entry; written once"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.inst_id) + ": " + row.why);
        EXPECT_EQ(takes(row.list, row.inst_id), row.subscribed);
    }
}

TEST_F(Subscription, OnlyTheCountedEntriesAreLookedAt) {
    config.recvall = 0;
    config.listen_insts = {"al", "cu"};
    config.total_listen_cnt = 1;
    EXPECT_FALSE(takes_as_configured("cu2601"));
    EXPECT_TRUE(takes_as_configured("al2601"));
    config.total_listen_cnt = 0;
    EXPECT_FALSE(takes_as_configured("al2601"));
}

TEST_F(Subscription, ReceivingAllNeedsNoList) {
    for (const int value : {1, 2, -1}) {
        config.recvall = static_cast<int8_t>(value);
        EXPECT_TRUE(takes_as_configured("anything")) << value;
    }
}

TEST_F(Subscription, OptionsAreSkippedEntirely) {
    config.options = 0;
    for (const char* const inst_id : {"cu2501C70000", "cu25011"}) {
        const ChannelState before = state();
        session().em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
        const Log log = logged(
            [&] {
                parse_as(SHFE_2PS, mdqp_message()
                                       .inst({.inst_id = inst_id,
                                              .volume_multiple = 3,
                                              .price_tick = 3,
                                              .codec_price = 3,
                                              .inst_no = 16384})
                                       .bytes());
            },
            "WDX");
        session().em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
        // Before the number is looked at: no warning about it.
        EXPECT_EQ(last(log),
                  line('X', "_ParseMdqp",
                       std::string("do not subscribe options, instrumentID: ") + inst_id));
        EXPECT_EQ(only(log, "exceed"), Log{});
        EXPECT_EQ(difference(before), "");
        EXPECT_EQ(card_.stores().size(), 0u);
    }
    EXPECT_TRUE(takes_as_configured("cu2501"));
    EXPECT_EQ(calc->priceTick[9], 1.0);
    for (const int value : {1, -1}) {
        config.options = static_cast<int8_t>(value);
        EXPECT_TRUE(takes_as_configured("cu2501C70000"));
    }
}

TEST_F(Subscription, TheSeventhByteAloneMakesAnOption) {
    config.options = 0;
    Bytes bytes = mdqp_message().inst({.inst_id = "cu", .inst_no = 9}).bytes();
    bytes[12 + 6] = 'x'; // behind the identifier's end
    EXPECT_EQ(last(logged([&] { parse_as(SHFE_2PS, bytes); })),
              line('X', "_ParseMdqp", "do not subscribe options, instrumentID: cu"));
    bytes = mdqp_message().inst({.inst_id = "cu", .inst_no = 9}).bytes();
    bytes[12 + 7] = 'x';
    parse_as(SHFE_2PS, bytes);
    EXPECT_STREQ(reinterpret_cast<char*>(slot(9).inst_id), "cu");
}

TEST_F(Subscription, WritesTheNumberAsReceivedAndThenOne) {
    auto shfe = mdqp_message();
    shfe.inst({.inst_id = "a", .inst_no = 0})
        .inst({.inst_id = "b", .inst_no = 16383})
        .inst({.inst_id = "c", .inst_no = 5});
    auto ine = mdqp_message();
    ine.inst({.inst_id = "d", .inst_no = 4095}).inst({.inst_id = "e", .inst_no = 0});
    for (const bool fourps : {false, true}) {
        card_.clear_stores();
        parse_as(fourps ? SHFE_4PS : SHFE_2PS, shfe.bytes());
        parse_as(fourps ? INE_4PS : INE_2PS, ine.bytes());
        EXPECT_EQ(card_.stores(), (std::vector<RegisterStore>{{1792, 0},
                                                              {1793, 1},
                                                              {1792, 16383},
                                                              {1793, 1},
                                                              {1792, 5},
                                                              {1793, 1},
                                                              {1796, 4095},
                                                              {1797, 1},
                                                              {1796, 0},
                                                              {1797, 1}}));
    }
}

TEST_F(Subscription, NamesTheInstrument) {
    EXPECT_EQ(entry(INE_2PS, 77, "D"),
              Log{line('D', "_ParseMdqp", "instrument [cu2601] subscribed, inst_no [77]")});
}

TEST_F(Subscription, ScalingIsKeptForEveryInstrument) {
    EXPECT_FALSE(takes({"al"}, "cu2601"));
    EXPECT_EQ(calc->priceTick[9], 1.0);
    EXPECT_EQ(calc->volumeMulti[9], 1);
    EXPECT_EQ(table->shfe_inst_cnt, 10);
}

TEST_F(Subscription, AnEarlierSubscriptionIsNotTakenBack) {
    EXPECT_TRUE(takes({"cu"}, "cu2601"));
    config.listen_insts = {"al"};
    parse_as(SHFE_2PS, mdqp_message().inst({.inst_id = "zn2601", .inst_no = 9}).bytes());
    EXPECT_STREQ(reinterpret_cast<char*>(slot(9).inst_id), "cu2601");
}

TEST_F(Subscription, CountsAreTheHighestNumberPlusOne) {
    config.recvall = 0;
    const struct {
        EMdqpDataType type;
        int32_t number;
        int32_t shfe;
        int32_t ine;
    } rows[] = {{SHFE_2PS, 5, 6, 0},          {SHFE_4PS, 3, 6, 0},         {SHFE_2PS, 6, 7, 0},
                {INE_2PS, 0, 7, 1},           {INE_4PS, 0, 7, 1},          {INE_2PS, 10, 7, 11},
                {SHFE_2PS, -1, 7, 11},        {INE_2PS, -1, 7, 11},        {SHFE_2PS, 16384, 7, 11},
                {SHFE_2PS, 16383, 16384, 11}, {INE_2PS, 4095, 16384, 4096}};
    for (const auto& row : rows) {
        entry(row.type, row.number);
        EXPECT_EQ(table->shfe_inst_cnt, row.shfe) << row.number;
        EXPECT_EQ(table->ine_inst_cnt, row.ine) << row.number;
    }
    // Other fields count nothing.
    subscribe(16383, "x");
    table->shfe_inst_cnt = 0;
    parse_as(SHFE_2PS, mdqp_message().deal({.inst_no = 16383}).price(16383, '0', 1, 1).bytes());
    EXPECT_EQ(table->shfe_inst_cnt, 0);
}

TEST_F(Subscription, TheFillLevelIsWarnedOfOncePerExchange) {
    EXPECT_EQ(entry(SHFE_2PS, 12799), Log{});
    EXPECT_TRUE(core->shfe_cnt_80_flag);
    EXPECT_EQ(
        entry(SHFE_2PS, 12800),
        Log{line('W', "_ParseMdqp", "shfe_inst_cnt is [12801] more than 80% max cnt[12800]")});
    EXPECT_FALSE(core->shfe_cnt_80_flag);
    EXPECT_EQ(entry(SHFE_2PS, 12801), Log{});
    EXPECT_EQ(entry(INE_4PS, 3199), Log{});
    EXPECT_EQ(entry(INE_4PS, 3300),
              Log{line('W', "_ParseMdqp", "ine_inst_cnt is [3301] more than 80% max cnt[3200]")});
    EXPECT_EQ(entry(INE_2PS, 4000), Log{});
    EXPECT_FALSE(core->ine_cnt_80_flag);
    EXPECT_TRUE(core->shfe_cnt_flag);
    EXPECT_TRUE(core->ine_cnt_flag);
}

TEST_F(Subscription, TheWarningNeedsAGrowingCount) {
    table->shfe_inst_cnt = 13000;
    EXPECT_EQ(entry(SHFE_2PS, 12900), Log{});
    EXPECT_TRUE(core->shfe_cnt_80_flag);
}

TEST_F(Subscription, NoWarningAfterAClean) {
    core->_Cleandata();
    EXPECT_EQ(entry(SHFE_2PS, 12800), Log{});
    EXPECT_EQ(entry(SHFE_2PS, 16384), Log{});
    EXPECT_EQ(entry(INE_2PS, 3200), Log{});
    EXPECT_EQ(entry(INE_2PS, 4096), Log{});
    EXPECT_EQ(table->shfe_inst_cnt, 12801);
}

} // namespace
} // namespace tcp_test
