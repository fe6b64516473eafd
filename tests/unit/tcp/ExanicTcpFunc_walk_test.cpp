// The walk over a message's fields: where it begins and ends, what it says of each field, how a
// feed's last message ends it.

#include "tests/unit/tcp/segment_script.h"

namespace tcp_test {
namespace {

using wirekit::mdqp_message;

class MessageWalk : public SnapshotChannel {
protected:
    Log parsed(EMdqpDataType type, const Bytes& message, const std::string& levels = "EWIDX") {
        return logged([&] { parse_as(type, message); }, levels);
    }
    static std::string said(char level, const std::string& text) {
        return line(level, "_ParseMdqp", text);
    }
    static std::string field_line(const std::string& id, std::size_t size) {
        return said('X', "field_id: 0x" + id + ", field_size: " + std::to_string(size));
    }
};

TEST_F(MessageWalk, NamesTheMessageAndEveryField) {
    auto message = wirekit::MdqpMessageBuilder(wirekit::kFlagMore, 0x32, -4711);
    message.snap(1000, 5).field(0x31, 3, Bytes(3)).field(0x32, 0, {}).packet_no(8);
    message.inst({.inst_id = "cu2601",
                  .volume_multiple = 5,
                  .price_tick = 10,
                  .codec_price = 71000.5,
                  .inst_no = 12});
    message.deal({.inst_no = 12,
                  .last_price = 70990.25,
                  .volume = 17,
                  .turnover = 1e9,
                  .open_interest = 333,
                  .update_time = "10:04:05",
                  .update_mill_sec = 500,
                  .change_no = 91});
    message.price(12, '0', 70980, 3).order_totals(12, 1, 2.0, 3, 4.0);
    message.field(0x1002, 1, Bytes(1)).field(0x1003, 2, Bytes(2)).packet_no(9);
    const Log log = parsed(SHFE_2PS, message.bytes());
    const std::size_t body = message.size() - 8;
    EXPECT_EQ(
        log, (Log{said('X', "MDQP flag: 0x11, type_id: 0x32, length: " + std::to_string(body) +
                                ", requset_id: -4711"),
                  field_line("1001", 6), field_line("31", 3), field_line("32", 0),
                  field_line("1004", 4), said('X', "packet_no: 8"), field_line("101", 112),
                  said('X', "inst_id: cu2601, inst_no: 12, vol_multi: 5, price_tick: 10.000000, "
                            "codec_price: 71000.500000"),
                  said('D', "instrument [cu2601] subscribed, inst_no [12]"), field_line("102", 154),
                  said('X', "last_price: 70990.250000, volume: 17, turnover: 1000000000.000000, "
                            "open_interest: 333.000000, change_no: 91, update_time: 10:04:05, "
                            "update_mill_sec: 500"),
                  field_line("103", 17), field_line("104", 28), field_line("1002", 1),
                  field_line("1003", 2)})); // the trailing packet number is not decoded
}

TEST_F(MessageWalk, NamesATypeAsTheSignedNumberThatItIs) {
    const Bytes message = wirekit::MdqpMessageBuilder(0xFE, -128, 1).bytes();
    EXPECT_EQ(parsed(SHFE_2PS, message),
              Log{said('X', "MDQP flag: 0xfe, type_id: 0xffffff80, length: 0, requset_id: 1")});
}

TEST_F(MessageWalk, AFieldThatBeginsInTheLastEightBytesOfTheBodyIsNotDecoded) {
    // A packet number behind `lead` bytes of filler field, with `behind` bytes after it.
    for (std::size_t behind = 0; behind <= 12; ++behind) {
        SCOPED_TRACE(std::to_string(behind) + " bytes behind");
        table->shfe_pktno = 0;
        auto message = mdqp_message();
        message.field(0x1002, 20, Bytes(20, 0x55)).packet_no(7).raw(Bytes(behind, 0x55));
        parse_as(SHFE_2PS, message.bytes());
        // It begins 8 + behind bytes before the end of the body.
        EXPECT_EQ(table->shfe_pktno, behind == 0 ? 0 : 7);
    }
}

TEST_F(MessageWalk, TheLengthInTheHeaderIsTheOnlyBound) {
    auto message = mdqp_message();
    message.packet_no(1).packet_no(2).packet_no(3).packet_no(4).packet_no(5);
    for (uint16_t length = 0; length <= 60; ++length) {
        SCOPED_TRACE("length " + std::to_string(length));
        table->shfe_pktno = 0;
        parse_as(SHFE_2PS, message.length(length).bytes());
        // Field i begins at 8 * i; it is decoded when that is below the length.
        const int decoded = length <= 8 ? 0 : std::min(5, (length - 1) / 8);
        EXPECT_EQ(table->shfe_pktno, decoded);
    }
}

TEST_F(MessageWalk, ABodyOfEightBytesOrLessHasNoFieldsButMayFinishTheFeed) {
    for (std::size_t body = 0; body <= 8; ++body) {
        SCOPED_TRACE("body of " + std::to_string(body));
        finished.mask = 0;
        session().init = 1;
        auto message = mdqp_message(wirekit::kFlagLast);
        message.raw(Bytes(body, 0xFF));
        EXPECT_EQ(parsed(INE_2PS, message.bytes(), "EWI"),
                  Log{said('I', "ine2ps init finished, total instruments:0")});
        EXPECT_EQ(finished.mask, 0x04);
        EXPECT_EQ(session().init, 0);
    }
}

TEST_F(MessageWalk, TheNextFieldLiesWhereTheSizeSaysWhateverTheRecordIs) {
    // A record is decoded by its own layout also when the field's size differs; the walk follows
    // the size.
    auto message = mdqp_message();
    message.inst({.inst_id = "cu2601", .inst_no = 12});
    subscribe(12, "cu2601");
    Bytes totals(28, 0);
    wirekit::put_le32(totals.data(), 12);
    wirekit::put_le32(totals.data() + 4, 77);
    message.field(0x0104, 8, totals); // the walk goes on 8 bytes behind the header
    // There stand the 20 bytes that are left of the record: two fields with ids of 0, sizes of 0...
    const Log log = parsed(SHFE_2PS, message.packet_no(3).raw(Bytes(9, 0)).bytes(), "E");
    EXPECT_EQ(slot(12).bid_totvol, 77);
    EXPECT_EQ(log, (Log(static_cast<std::size_t>(log.size()), said('E', "unknown fieldID: 00"))));
    EXPECT_GE(log.size(), 5u);
    EXPECT_EQ(table->shfe_pktno, 3);
}

TEST_F(MessageWalk, UnknownFieldsAreNamedAndSkipped) {
    const struct {
        uint16_t id;
        const char* printed;
    } rows[] = {{0x0000, "00"},   {0x0001, "01"},   {0x000F, "0f"},   {0x0030, "30"},
                {0x0033, "33"},   {0x0100, "100"},  {0x0105, "105"},  {0x1000, "1000"},
                {0x1005, "1005"}, {0x3100, "3100"}, {0xFFFF, "ffff"}, {0x0401, "401"}};
    const ChannelState before = state();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.printed);
        auto message = mdqp_message();
        message.field(row.id, 30, Bytes(30, 0xFF));
        EXPECT_EQ(logged([&] { parse(message.bytes()); }, "EWID"),
                  Log{said('E', std::string("unknown fieldID: ") + row.printed)});
        EXPECT_EQ(difference(before), "");
    }
    // And what follows is decoded.
    auto message = mdqp_message();
    message.field(0x99, 3, Bytes(3)).packet_no(4).raw(Bytes(8));
    parse_as(SHFE_2PS, message.bytes());
    EXPECT_EQ(table->shfe_pktno, 4);
}

TEST_F(MessageWalk, FieldsWithoutUseAreSkippedSilently) {
    const ChannelState before = state();
    for (const uint16_t id : std::initializer_list<uint16_t>{0x31, 0x32, 0x1001, 0x1002, 0x1003}) {
        for (const std::size_t size : {0u, 1u, 6u, 40u}) {
            auto message = mdqp_message();
            message.field(id, static_cast<uint16_t>(size), Bytes(size, 0xFF))
                .raw(Bytes{0x31, 0, 5, 0, 1, 2, 3, 4, 5});
            EXPECT_EQ(logged([&] { parse(message.bytes()); }, "EWID"), Log{}) << id << " " << size;
        }
    }
    EXPECT_EQ(difference(before), "");
}

TEST_F(MessageWalk, SixteenThousandFieldsWithoutDataAreWalked) {
    auto message = mdqp_message();
    for (int i = 0; i < 16383; ++i) {
        message.field(0x1002, 0, {});
    }
    EXPECT_EQ(message.size(), 65540u);
    const Log log = parsed(SHFE_2PS, message.bytes());
    // Header line and fields; the last two begin in the last eight bytes.
    EXPECT_EQ(log.size(), 1u + 16381u);
}

TEST_F(MessageWalk, ThePacketNumberGoesToTheExchangeOfTheFeed) {
    const struct {
        EMdqpDataType type;
        int32_t shfe;
        int32_t ine;
        const char* why;
    } rows[] = {
        {SHFE_2PS, -9, 0, "SHFE"},
        {SHFE_4PS, -9, 0, "SHFE"},
        {INE_2PS, 0, -9, "INE"},
        {INE_4PS, 0, -9, "INE"},
        {MDQP_DATA_TYPE_UNKNOW, 0, -9, "of no feed: what is not SHFE is INE"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        table->shfe_pktno = table->ine_pktno = 0;
        EXPECT_EQ(at(parsed(row.type, mdqp_message().packet_no(-9).raw(Bytes(8, 1)).bytes()), 2),
                  said('X', "packet_no: -9"));
        EXPECT_EQ(table->shfe_pktno, row.shfe);
        EXPECT_EQ(table->ine_pktno, row.ine);
    }
}

TEST_F(MessageWalk, TheUnknownFeedStoresNothingButThePacketNumber) {
    subscribe(0, "aa");
    subscribe(20479, "bb");
    const ChannelState before = state();
    auto message = mdqp_message();
    message.inst({.inst_id = "cu2601", .inst_no = 0}).deal({.inst_no = 0, .last_price = 1});
    message.price(0, '0', 1.0, 1).order_totals(0, 1, 1.0, 1, 1.0).packet_no(5).raw(Bytes(8));
    EXPECT_EQ(parsed(MDQP_DATA_TYPE_UNKNOW, message.bytes(), "EWID"), Log{});
    EXPECT_EQ(table->ine_pktno, 5);
    table->ine_pktno = 0;
    EXPECT_EQ(difference(before), "");
}

TEST_F(MessageWalk, TheLastMessageSetsTheFeedsBitAndEndsTheSession) {
    const struct {
        EMdqpDataType type;
        uint8_t bit;
        const char* text;
    } rows[] = {
        {SHFE_2PS, 0x01, "shfe2ps init finished, total instruments:123"},
        {SHFE_4PS, 0x02, "shfe4ps init finished, total instruments:123"},
        {INE_2PS, 0x04, "ine2ps init finished, total instruments:45"},
        {INE_4PS, 0x08, "ine4ps init finished, total instruments:45"},
        {MDQP_DATA_TYPE_UNKNOW, 0x00, ""},
    };
    table->shfe_inst_cnt = 123;
    table->ine_inst_cnt = 45;
    for (const auto& row : rows) {
        for (const uint8_t already : std::initializer_list<uint8_t>{0x00, 0x0F, 0xF0}) {
            SCOPED_TRACE(std::to_string(row.type) + " on " + std::to_string(already));
            finished.mask = already;
            session().init = 1;
            session().frag_flag = 1;
            session().lost_buf_size = 3;
            const Log log = parsed(row.type, mdqp_message(wirekit::kFlagLast).bytes(), "EWID");
            EXPECT_EQ(log, row.bit != 0 ? Log{said('I', row.text)} : Log{});
            EXPECT_EQ(finished.mask, already | row.bit);
            EXPECT_EQ(session().init, 0);
            // The session keeps what it holds and its feed.
            EXPECT_EQ(session().frag_flag, 1);
            EXPECT_EQ(session().lost_buf_size, 3u);
            EXPECT_EQ(session().em_dqp_data_type, row.type);
            session().frag_flag = 0;
            session().lost_buf_size = 0;
        }
    }
}

TEST_F(MessageWalk, OnlyFlagOneEndsTheFeed) {
    for (unsigned flag = 0; flag < 256; ++flag) {
        finished.mask = 0;
        session().init = 1;
        parse_as(SHFE_4PS, mdqp_message(static_cast<uint8_t>(flag)).bytes());
        EXPECT_EQ(finished.mask, flag == 1 ? 0x02 : 0x00) << flag;
        EXPECT_EQ(session().init, flag == 1 ? 0 : 1) << flag;
    }
}

TEST_F(MessageWalk, TheMessageIsDecodedBeforeTheFeedIsFinished) {
    auto message = mdqp_message(wirekit::kFlagLast);
    message.inst({.inst_id = "cu2601", .inst_no = 6});
    EXPECT_EQ(parsed(SHFE_2PS, message.bytes(), "I"),
              Log{said('I', "shfe2ps init finished, total instruments:7")});
}

TEST_F(MessageWalk, TheSessionIndexSelectsTheFeed) {
    session(7).em_dqp_data_type = INE_2PS;
    session(8).em_dqp_data_type = SHFE_2PS;
    parse(mdqp_message().packet_no(70).raw(Bytes(8)).bytes(), 7);
    parse(mdqp_message(wirekit::kFlagLast).packet_no(80).raw(Bytes(8)).bytes(), 8);
    EXPECT_EQ(table->ine_pktno, 70);
    EXPECT_EQ(table->shfe_pktno, 80);
    EXPECT_EQ(finished.mask, 0x01);
}

// A record may run past its message: what lies behind is what follows in memory, then zeros.
TEST_F(MessageWalk, RecordsThatRunPastTheMessageReadWhatFollows) {
    subscribe(5, "cu2601");
    // The totals' record is cut behind its number and the first volume.
    auto message = mdqp_message();
    Bytes cut(9, 0);
    wirekit::put_le32(cut.data(), 5);
    wirekit::put_le32(cut.data() + 4, 55);
    cut[8] = 0x01; // lowest byte of the amount
    message.field(0x0104, 28, cut);
    slot(5).ask_totvol = 9;
    slot(5).ask_totamount = 9.0;
    parse_as(SHFE_2PS, message.bytes());
    EXPECT_EQ(slot(5).bid_totvol, 55);
    EXPECT_EQ(slot(5).bid_totamount, 4.9406564584124654e-324);
    EXPECT_EQ(slot(5).ask_totvol, 0);
    EXPECT_EQ(slot(5).ask_totamount, 0.0);
}

TEST_F(MessageWalk, EveryFieldAtTheVeryEndOfAMessageStaysInItsMemory) {
    // The latest place where a field may begin: nine bytes before the end. A sanitizer sees any
    // access behind the slack.
    for (const uint16_t id :
         std::initializer_list<uint16_t>{0x0101, 0x0102, 0x0103, 0x0104, 0x1004, 0x1001, 0x7777}) {
        for (const EMdqpDataType type : {SHFE_2PS, INE_2PS}) {
            auto message = mdqp_message();
            message.inst({.inst_id = "cu2601", .inst_no = 0}).field(id, 0xFFFF, Bytes(5, 0));
            parse_as(type, message.bytes());
        }
    }
    EXPECT_EQ(table->shfe_inst_cnt, 1);
    EXPECT_EQ(table->ine_inst_cnt, 1);
}

} // namespace
} // namespace tcp_test
