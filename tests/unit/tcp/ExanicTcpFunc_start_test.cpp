// Session start: which segment begins a snapshot, for which feed, and what it leaves behind.

#include "tests/unit/tcp/segment_script.h"

namespace tcp_test {
namespace {

// Session start: payloads are built field by field, because the walk looks at each of them.
class SessionStart : public Reassembly {
protected:
    static wirekit::MdqpMessageBuilder first_message() {
        return wirekit::mdqp_message(wirekit::kFlagMore);
    }
    static Bytes filler(std::size_t size) { return Bytes(size, 0x55); }
    static std::string walk_failed(int iter, std::size_t payload) {
        return line('W', "_PacketHandler",
                    "invalid field data, break field iteration, iter=" + std::to_string(iter) +
                        " payloadSize=" + std::to_string(payload));
    }
    static std::string topic_line(int topic, int snap_no, uint16_t port = kPort) {
        return line('X', "_PacketHandler",
                    "topic ID: " + std::to_string(topic) + ", snap No: " + std::to_string(snap_no) +
                        ", TCP dst port: " + std::to_string(port));
    }

    void expect_unstarted() {
        EXPECT_EQ(session().init, 0);
        EXPECT_EQ(session().em_dqp_data_type, MDQP_DATA_TYPE_UNKNOW);
        EXPECT_EQ(session().frag_flag, 0);
        EXPECT_EQ(table->shfe_pktno, 0);
        EXPECT_EQ(table->ine_pktno, 0);
    }
};

TEST_F(SessionStart, RecordsWhereTheStreamComesFromAndWhereItStands) {
    EXPECT_EQ(session().frag_buf, nullptr);
    deliver(wirekit::tcp_segment()
                .from(0x01020304, kMd4psPort)
                .to(0xA0B0C0D0, kPort)
                .seq(0xFEDCBA98)
                .payload(start_message(kIne2psTopic))
                .bytes());
    EXPECT_EQ(session().src_host, 0x04030201u); // as found in the frame
    EXPECT_EQ(session().dst_host, 0xD0C0B0A0u);
    EXPECT_EQ(session().src_port, kMd4psPort);
    EXPECT_EQ(session().dst_port, kPort);
    EXPECT_EQ(session().current_seq, 0xFEDCBA98u);
    EXPECT_EQ(session().next_expt_seq, 0xFEDCBA98u + 60);
    EXPECT_EQ(session().init, 1);
    EXPECT_EQ(session().em_dqp_data_type, INE_2PS);
    EXPECT_NE(session().frag_buf, nullptr);
    EXPECT_EQ(session().frag_buf_offset, 0);
    EXPECT_EQ(session().frag_flag, 0);
    EXPECT_EQ(session().lost_flag, 0);
    EXPECT_EQ(session().lost_buf_size, 0u);
    EXPECT_EQ(session().lost_buf_head, nullptr);
}

TEST_F(SessionStart, LogsTheTopicAndThenDecodesTheMessage) {
    const Bytes payload =
        first_message().snap(kShfe2psTopic, -7).packet_no(12).field(0x1003, 22, filler(22)).bytes();
    const Log log = deliver_logged(segment(1, payload).bytes());
    EXPECT_EQ(log, (Log{topic_line(kShfe2psTopic, -7),
                        line('X', "_ParseMdqp",
                             "MDQP flag: 0x11, type_id: 0x32, length: 44, requset_id: 0"),
                        line('X', "_ParseMdqp", "field_id: 0x1001, field_size: 6"),
                        line('X', "_ParseMdqp", "field_id: 0x1004, field_size: 4"),
                        line('X', "_ParseMdqp", "packet_no: 12"),
                        line('X', "_ParseMdqp", "field_id: 0x1003, field_size: 22")}));
}

TEST_F(SessionStart, NeedsTheFirstFlagTheSnapshotTypeAnd45Bytes) {
    const struct {
        const char* name;
        uint8_t flag;
        uint8_t type;
        std::size_t size;
        bool starts;
        const char* why;
    } rows[] = {
        {"Smallest", 0x11, 0x32, 45, true, "all three hold"},
        {"Larger", 0x11, 0x32, 46, true, "all three hold"},
        {"TooShort", 0x11, 0x32, 44, false, "one byte short"},
        {"LastFlag", 0x01, 0x32, 60, false, "the last message does not begin a snapshot"},
        {"OtherBit", 0x10, 0x32, 60, false, "bit 0 is missing"},
        {"HighBit", 0x91, 0x32, 60, false, "nothing but 0x11 begins a snapshot"},
        {"AnotherBit", 0x13, 0x32, 60, false, "nothing but 0x11 begins a snapshot"},
        {"NoFlag", 0x00, 0x32, 60, false, "nothing but 0x11 begins a snapshot"},
        {"TypeBelow", 0x11, 0x31, 60, false, "another message type"},
        {"TypeAbove", 0x11, 0x33, 60, false, "another message type"},
        {"TypeHighBit", 0x11, 0xB2, 60, false, "another message type"},
    };
    uint16_t port = 100;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        Bytes payload = row.size < 45 ? first_message()
                                            .snap(kShfe2psTopic, 1)
                                            .packet_no(1)
                                            .field(0x1002, 14, filler(14))
                                            .bytes()
                                      : start_message(kShfe2psTopic, 1, row.size);
        ASSERT_EQ(payload.size(), row.size);
        payload[0] = row.flag;
        payload[1] = row.type;
        table->shfe_pktno = 0;
        ++port;
        const Log log = deliver_logged(segment(7000, payload, port).bytes());
        const TcpSession& now = session(port);
        EXPECT_EQ(now.init, row.starts ? 1 : 0);
        EXPECT_EQ(table->shfe_pktno, row.starts ? 1 : 0);
        EXPECT_EQ(now.em_dqp_data_type, row.starts ? SHFE_2PS : MDQP_DATA_TYPE_UNKNOW);
        EXPECT_EQ(now.next_expt_seq, row.starts ? 7000u + row.size : 0u);
        EXPECT_EQ(now.current_seq, row.starts ? 7000u : 0u);
        EXPECT_EQ(log.empty(), !row.starts);
        // Buffer and addresses are taken before the segment is judged.
        EXPECT_NE(now.frag_buf, nullptr);
        EXPECT_EQ(now.src_port, kMd2psPort);
        EXPECT_EQ(now.dst_port, port);
        EXPECT_EQ(now.src_host, 0x0101010Au);
        EXPECT_EQ(now.dst_host, 0x0201010Au);
    }
}

TEST_F(SessionStart, AFeedMustBeEnabledAndUnfinished) {
    const struct {
        int16_t topic;
        uint8_t bit;
        EMdqpDataType type;
    } feeds[] = {{kIne2psTopic, 0x04, INE_2PS},
                 {kShfe2psTopic, 0x01, SHFE_2PS},
                 {kShfe4psTopic, 0x02, SHFE_4PS},
                 {kIne4psTopic, 0x08, INE_4PS}};
    uint16_t port = 1000;
    for (const auto& feed : feeds) {
        for (uint8_t enabled_mask = 0; enabled_mask < 16; ++enabled_mask) {
            for (uint8_t finished_mask = 0; finished_mask < 16; ++finished_mask) {
                SCOPED_TRACE("topic " + std::to_string(feed.topic) + ", enabled " +
                             std::to_string(enabled_mask) + ", finished " +
                             std::to_string(finished_mask));
                set_masks(enabled_mask, finished_mask);
                ++port;
                deliver(segment(1, start_message(feed.topic), port).bytes());
                const bool open = (enabled_mask & feed.bit) != 0 && (finished_mask & feed.bit) == 0;
                EXPECT_EQ(session(port).init, open ? 1 : 0);
                EXPECT_EQ(session(port).em_dqp_data_type, open ? feed.type : MDQP_DATA_TYPE_UNKNOW);
                EXPECT_EQ(finished.mask, finished_mask);
            }
        }
    }
}

TEST_F(SessionStart, OneTopicForAllFeedsGoesToTheFirstThatIsOpen) {
    config.ine2ps_topic_id = config.shfe2ps_topic_id = config.shfe4ps_topic_id =
        config.ine4ps_topic_id = kShfe2psTopic;
    rebuild();
    uint16_t port = 1000;
    for (uint8_t finished_mask = 0; finished_mask < 16; ++finished_mask) {
        set_masks(0x0F, finished_mask);
        EMdqpDataType type = MDQP_DATA_TYPE_UNKNOW;
        if ((finished_mask & 0x04) == 0) {
            type = INE_2PS;
        } else if ((finished_mask & 0x01) == 0) {
            type = SHFE_2PS;
        } else if ((finished_mask & 0x02) == 0) {
            type = SHFE_4PS;
        } else if ((finished_mask & 0x08) == 0) {
            type = INE_4PS;
        }
        SCOPED_TRACE("finished " + std::to_string(finished_mask));
        ++port;
        deliver(segment(1, start_message(kShfe2psTopic), port).bytes());
        EXPECT_EQ(session(port).em_dqp_data_type, type);
    }
}

TEST_F(SessionStart, AnUnknownTopicDropsTheFrame) {
    const Log log = deliver_logged(segment(300, start_message(1234)).bytes());
    EXPECT_EQ(log, Log{topic_line(1234, 1)});
    expect_unstarted();
    EXPECT_EQ(session().current_seq, 300u);
    EXPECT_EQ(session().next_expt_seq, 360u);
}

TEST_F(SessionStart, ASnapFieldIsKnownByItsIdAndItsSize) {
    const Bytes topic = {0xE8, 0x03, 1, 0, 0, 0, 0}; // 1000
    const struct {
        const char* name;
        uint16_t id;
        uint16_t size;
        bool starts;
        const char* why;
    } rows[] = {
        {"Snap", 0x1001, 6, true, "id and size are right"},
        {"Shorter", 0x1001, 5, false, "the size is part of it"},
        {"Longer", 0x1001, 7, false, "the size is part of it"},
        {"IdBelow", 0x1000, 6, false, "another field"},
        {"IdAbove", 0x1002, 6, false, "another field"},
        {"LowByte", 0x0101, 6, false, "another field"},
    };
    uint16_t port = 100;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        const Bytes payload = first_message()
                                  .field(row.id, row.size, std::span(topic).first(row.size))
                                  .field(0x1002, 40, filler(40))
                                  .bytes();
        deliver(segment(1, payload, ++port).bytes());
        EXPECT_EQ(session(port).init, row.starts ? 1 : 0);
    }
}

TEST_F(SessionStart, AFieldWithoutDataRefusesTheStart) {
    for (int iter = 0; iter < 4; ++iter) {
        auto message = first_message();
        if (iter > 0) {
            message.snap(kShfe2psTopic, 1);
        }
        for (int i = 1; i < iter; ++i) {
            message.packet_no(i);
        }
        message.field(0x1002, 0, {});
        const Bytes payload = message.field(0x1002, 60, filler(60)).bytes();
        SCOPED_TRACE("field " + std::to_string(iter));
        const Log log = deliver_logged(segment(1, payload).bytes(), "EWID");
        EXPECT_EQ(log, Log{walk_failed(iter, payload.size())});
        expect_unstarted(); // also when the topic had matched before
    }
}

TEST_F(SessionStart, AsManyOneByteFieldsAsFitAreWalked) {
    auto message = first_message();
    message.snap(kShfe2psTopic, 1);
    const Bytes one = {0x55};
    for (int i = 0; i < 280; ++i) {
        message.field(0x1002, 1, one);
    }
    EXPECT_EQ(deliver_logged(segment(1, message.bytes()).bytes(), "EWID"), Log{});
    EXPECT_EQ(session().init, 1);
}

TEST_F(SessionStart, TheFirstTopicThatDoesNotMatchEndsTheWalk) {
    const Bytes payload = first_message()
                              .snap(1234, 1)
                              .snap(kShfe2psTopic, 2)
                              .packet_no(5)
                              .field(0x1002, 30, filler(30))
                              .bytes();
    EXPECT_EQ(deliver_logged(segment(1, payload).bytes()), Log{topic_line(1234, 1)});
    expect_unstarted();
}

TEST_F(SessionStart, EveryFurtherTopicIsJudgedAgain) {
    const struct {
        const char* name;
        int16_t second;
        EMdqpDataType type;
        const char* why;
    } rows[] = {
        {"Same", kShfe2psTopic, SHFE_2PS, "matches twice"},
        {"Another", kIne4psTopic, INE_4PS, "the later match counts"},
        {"Unknown", 1234, MDQP_DATA_TYPE_UNKNOW, "takes the first match back"},
    };
    uint16_t port = 100;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        const Bytes payload = first_message()
                                  .snap(kShfe2psTopic, 1)
                                  .snap(row.second, 2)
                                  .field(0x1002, 30, filler(30))
                                  .bytes();
        ++port;
        const Log log = deliver_logged(segment(1, payload, port).bytes());
        EXPECT_EQ(only(log, "topic ID"),
                  (Log{topic_line(kShfe2psTopic, 1, port), topic_line(row.second, 2, port)}));
        EXPECT_EQ(session(port).init, row.type == MDQP_DATA_TYPE_UNKNOW ? 0 : 1);
        EXPECT_EQ(session(port).em_dqp_data_type, row.type);
        EXPECT_EQ(only(log, "MDQP flag").size(), row.type == MDQP_DATA_TYPE_UNKNOW ? 0u : 1u);
    }
}

TEST_F(SessionStart, TheHeaderOfTheSecondMessageIsWalkedAsIfItWereAField) {
    // Flag and type become an id, the length becomes a size: a message without a body is a field
    // without data.
    const Bytes first = start_message();
    const Bytes empty = wirekit::mdqp_message().bytes();
    ASSERT_EQ(empty.size(), 8u);
    EXPECT_EQ(deliver_logged(segment(1, first + empty).bytes(), "EWID"), Log{walk_failed(3, 68)});
    expect_unstarted();
    // A body of one byte is a size of 1; what follows is aligned as it falls.
    EXPECT_EQ(
        deliver_logged(
            segment(1, first + wirekit::mdqp_message().raw(filler(1)).bytes() + filler(20)).bytes(),
            "EWID"),
        Log{});
    EXPECT_EQ(session().init, 1);
}

TEST_F(SessionStart, AfterTheSecondHeaderTheWalkIsFourBytesAhead) {
    // The walk lands on the last four bytes of the second message.
    const Bytes tails[] = {{0x02, 0x10, 0x00, 0x00},  // a size of 0
                           {0x02, 0x10, 0x01, 0x00}}; // a size of 1
    for (const Bytes& tail : tails) {
        const Bytes second = wirekit::mdqp_message().field(0x1002, 12, filler(8) + tail).bytes();
        const Bytes payload = start_message() + second;
        const Log log = deliver_logged(segment(1, payload).bytes(), "EWID");
        if (tail[2] == 0) {
            EXPECT_EQ(log, Log{walk_failed(4, payload.size())});
            expect_unstarted();
        } else {
            EXPECT_EQ(log, Log{});
            EXPECT_EQ(session().init, 1);
        }
    }
}

TEST_F(SessionStart, FewerThanFourBytesLeftEndTheWalkQuietly) {
    for (std::size_t left = 0; left <= 4; ++left) {
        SCOPED_TRACE(std::to_string(left) + " bytes left");
        core->ResetSession(session());
        // Zeros: were they read as a header, the size of 0 would refuse the start.
        const Bytes payload = start_message() + Bytes(left, 0);
        const Log log = deliver_logged(segment(1, payload).bytes(), "EWID");
        EXPECT_EQ(log, left < 4 ? Log{} : Log{walk_failed(3, 64)});
        EXPECT_EQ(session().init, left < 4 ? 1 : 0);
        EXPECT_EQ(session().frag_buf_offset, left < 4 ? static_cast<int>(left) : 0);
    }
}

TEST_F(SessionStart, ATopicWhoseDataLiesBehindThePayloadReadsZeros) {
    config.shfe4ps_topic_id = 0;
    const Bytes header_only = {0x01, 0x10, 6, 0};
    const Bytes payload = start_message() + header_only;
    const Log log = deliver_logged(segment(1, payload).bytes());
    EXPECT_EQ(only(log, "topic ID"), (Log{topic_line(kShfe2psTopic, 1), topic_line(0, 0)}));
    EXPECT_EQ(session().em_dqp_data_type, SHFE_4PS);
}

TEST_F(SessionStart, WithoutATopicMessagesAreDecodedUnderTheTypeAsItWas) {
    const Bytes payload = first_message().packet_no(77).field(0x1002, 40, filler(40)).bytes();
    deliver(segment(1, payload).bytes());
    EXPECT_EQ(session().init, 0);
    EXPECT_EQ(session().em_dqp_data_type, MDQP_DATA_TYPE_UNKNOW);
    EXPECT_EQ(table->ine_pktno, 77); // of no feed: the INE side
    EXPECT_EQ(session().next_expt_seq, 1 + payload.size());

    session().em_dqp_data_type = SHFE_4PS; // left over from an earlier snapshot
    deliver(segment(1, payload).bytes());
    EXPECT_EQ(session().init, 0);
    EXPECT_EQ(session().em_dqp_data_type, SHFE_4PS);
    EXPECT_EQ(table->shfe_pktno, 77);
}

TEST_F(SessionStart, TheJoiningBufferIsAllocatedOnceAndKept) {
    deliver(segment(1, start_message()).bytes());
    const uint8_t* const buffer = session().frag_buf;
    ASSERT_NE(buffer, nullptr);
    deliver(segment(61, plain_message(2, 40, wirekit::kFlagLast)).bytes());
    ASSERT_EQ(session().init, 0);
    EXPECT_EQ(session().frag_buf, buffer);
    deliver(segment(5000, start_message(kIne2psTopic)).bytes());
    EXPECT_EQ(session().init, 1);
    ASSERT_EQ(session().frag_buf, buffer);
    for (std::size_t i = 0; i < FRAG_BUF_SIZE; ++i) {
        ASSERT_EQ(session().frag_buf[i], 0) << i;
    }
}

TEST_F(SessionStart, AFirstMessageLongerThanItsSegmentIsKept) {
    const Stream stream = Stream().start(1, 500).message(2);
    // clang-format off
    play(stream, {
        {  0, 200, 200, 0, 200, {},     {}, "starts the session with a part"},
        {200, 499, 499, 0, 499, {},     {}, "still one byte short"},
        {499, 540, 540, 0,   0, {1, 2}, {}, "the last byte and one more message"},
    });
    // clang-format on
    EXPECT_EQ(session().init, 1);
}

TEST_F(SessionStart, TheLastMessageInTheStartingSegmentEndsTheSessionAtOnce) {
    const Stream stream = Stream().start(1).message(2, 40, wirekit::kFlagLast);
    deliver(stream.frame(0, 100));
    EXPECT_EQ(session().init, 0);
    EXPECT_EQ(finished.mask, 0x01);
    EXPECT_EQ(session().em_dqp_data_type, SHFE_2PS);
    // The feed is finished: the same snapshot does not start again.
    deliver(stream.frame(0, 100));
    EXPECT_EQ(session().em_dqp_data_type, MDQP_DATA_TYPE_UNKNOW);
    EXPECT_EQ(session().init, 0);
}

TEST_F(SessionStart, SessionsOfSeveralPortsDoNotDisturbEachOther) {
    const Stream shfe = Stream(1000).start(1).message(3, 100).message(5);
    const Stream ine = Stream(900000).start(2, 60, kIne2psTopic).message(4, 100).message(6);
    const std::vector<int> order = decoded_by([&] {
        deliver(shfe.frame(0, 60, 1));
        deliver(ine.frame(0, 100, 2));
        deliver(shfe.frame(60, 160, 1));
        deliver(ine.frame(100, 170, 2));
        deliver(shfe.frame(160, 200, 1));
        deliver(ine.frame(170, 200, 2));
    });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(table->shfe_pktno, 5);
    EXPECT_EQ(table->ine_pktno, 6);
}

} // namespace
} // namespace tcp_test
