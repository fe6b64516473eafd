// Frame checks: what reaches a session and what is turned away, with which line.

#include "tests/unit/tcp/segment_script.h"
#include "tests/unit/tcp/snapshot_model.h"

namespace tcp_test {
namespace {

constexpr uint32_t kNext = 70000; // next sequence number of the established session

std::string dropped(const std::string& text) {
    return line('X', "_PacketHandler", text);
}
const std::string kBadChecksum = line('D', "_PacketHandler", "tcp checksum is not correct");

// Recomputes the TCP checksum of a frame whose header was changed by hand.
void mend_checksum(Bytes& frame) {
    const std::size_t ip_size = (frame[14] & 0x0Fu) * 4u;
    const std::size_t tcp_size = wirekit::get_be16(frame.data() + 16) - ip_size;
    uint8_t* tcp = frame.data() + 14 + ip_size;
    wirekit::put_be16(tcp + 16, 0);
    uint8_t pseudo[12] = {};
    std::copy(frame.data() + 26, frame.data() + 34, pseudo);
    pseudo[9] = 6;
    wirekit::put_be16(pseudo + 10, static_cast<uint16_t>(tcp_size));
    const uint32_t sum =
        wirekit::add_checksum(wirekit::add_checksum(0, pseudo), std::span(tcp, tcp_size));
    wirekit::put_be16(tcp + 16, wirekit::fold_checksum(sum));
}

// An established session with a held segment and half a message, so that a rejected frame has
// something that it could spoil.
class FrameChecks : public Reassembly {
protected:
    FrameChecks() {
        deliver(segment(kNext - 60, start_message()).bytes());
        deliver(segment(kNext + 5000, plain_message(9)).bytes());
        before_ = state();
    }

    // A whole segment that the session expects. Its payload begins no message, so that an accepted
    // frame moves the sequence number and nothing else.
    static wirekit::TcpSegmentBuilder expected_segment(std::size_t payload_size = 66) {
        return segment(kNext, Bytes(payload_size, 0xA5));
    }

    // Delivers a frame; the log lines, and whether the sequence moved on (then it is put back).
    Log outcome(const Bytes& frame, bool& accepted) {
        const Log log = deliver_logged(frame);
        accepted = session().next_expt_seq != kNext;
        session().next_expt_seq = kNext;
        return log;
    }

    void expect_rejected(const Bytes& frame, const Log& said) {
        bool accepted = false;
        EXPECT_EQ(outcome(frame, accepted), said);
        EXPECT_FALSE(accepted);
        EXPECT_EQ(difference(before_), "");
    }

    void expect_accepted(const Bytes& frame, std::size_t payload_size) {
        EXPECT_EQ(deliver_logged(frame), Log{});
        EXPECT_EQ(session().next_expt_seq, kNext + payload_size);
        session().next_expt_seq = kNext;
        EXPECT_EQ(difference(before_), "");
    }

    ChannelState before_;
};

TEST_F(FrameChecks, EveryCutOfAFrameIsTurnedAwayWithItsLine) {
    const Bytes whole = expected_segment(66).bytes();
    ASSERT_EQ(whole.size(), 120u);
    for (std::size_t size = 15; size <= 120; ++size) {
        SCOPED_TRACE("frame of " + std::to_string(size) + " bytes");
        const Bytes frame(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        if (size < 34) {
            expect_rejected(
                frame, {dropped("packet too short for IP, packetLen=" + std::to_string(size))});
        } else if (size < 54) {
            expect_rejected(frame, {dropped("packet too short for TCP header")});
        } else if (size == 54) {
            expect_rejected(frame, {dropped("payloadSize<=0, max_payload=0")});
        } else if (size < 120) {
            expect_rejected(frame, {kBadChecksum});
        } else {
            expect_accepted(frame, 66);
        }
    }
}

TEST_F(FrameChecks, EveryWholeFrameLengthIsTaken) {
    for (std::size_t size = 55; size <= 120; ++size) {
        SCOPED_TRACE("frame of " + std::to_string(size) + " bytes");
        expect_accepted(expected_segment(size - 54).bytes(), size - 54);
    }
}

TEST_F(FrameChecks, EveryHeaderSizeAndLengthGetsTheLineOfItsFirstFailingCheck) {
    for (std::size_t ip_words = 0; ip_words <= 15; ++ip_words) {
        for (std::size_t tcp_words = 0; tcp_words <= 15; ++tcp_words) {
            const std::size_t ip = ip_words * 4;
            const std::size_t tcp = tcp_words * 4;
            Bytes whole = expected_segment(0)
                              .ip_options(ip < 20 ? 0 : ip - 20)
                              .tcp_options(tcp < 20 ? 0 : tcp - 20)
                              .payload(Bytes(10, 0xA5))
                              .bytes();
            const std::size_t real_ip = ip < 20 ? 20 : ip;
            whole[14] = static_cast<uint8_t>(0x40 | ip_words);
            whole[14 + real_ip + 12] = static_cast<uint8_t>(tcp_words << 4);
            if (ip >= 20 && tcp >= 20) {
                mend_checksum(whole);
            }
            for (std::size_t size = 34; size <= whole.size(); ++size) {
                SCOPED_TRACE("IP header " + std::to_string(ip) + ", TCP header " +
                             std::to_string(tcp) + ", frame " + std::to_string(size));
                Log said;
                bool right = false;
                if (ip < 20 || size < ip + 14) {
                    said = {dropped("invalid IP header, ip_hdr_len=" + std::to_string(ip) +
                                    " packetLen=" + std::to_string(size))};
                } else if (size < ip + 34) {
                    said = {dropped("packet too short for TCP header")};
                } else if (tcp < 20 || size < ip + tcp + 14) {
                    said = {dropped("invalid TCP header or truncated packet")};
                } else if (size == ip + tcp + 14) {
                    said = {dropped("payloadSize<=0, max_payload=0")};
                } else if (size < whole.size()) {
                    said = {kBadChecksum};
                } else {
                    right = true;
                }
                bool accepted = false;
                const Bytes frame(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
                EXPECT_EQ(outcome(frame, accepted), said);
                EXPECT_EQ(accepted, right);
            }
        }
    }
    EXPECT_EQ(difference(before_), "");
}

TEST_F(FrameChecks, OtherProtocolsAreNamedExceptTheOnesExpectedOnAnyNetwork) {
    for (int protocol = 0; protocol <= 255; ++protocol) {
        SCOPED_TRACE("protocol " + std::to_string(protocol));
        Bytes frame = expected_segment().bytes();
        frame[23] = static_cast<uint8_t>(protocol);
        const bool silent = protocol == 1 || protocol == 2 || protocol == 6 || protocol == 17;
        bool accepted = false;
        EXPECT_EQ(outcome(frame, accepted),
                  silent ? Log{} : Log{dropped("ip_p [" + std::to_string(protocol) + "]")});
        EXPECT_EQ(accepted, protocol == 6);
    }
    EXPECT_EQ(difference(before_), "");
}

TEST_F(FrameChecks, OtherEthernetTrafficIsTurnedAway) {
    Bytes tagged = expected_segment().bytes();
    const Bytes tag = {0x81, 0x00, 0x00, 0x64};
    tagged.insert(tagged.begin() + 12, tag.begin(), tag.end());
    expect_rejected(tagged, {dropped("invalid IP header, ip_hdr_len=0 packetLen=124")});

    Bytes arp(60, 0); // hardware type 1 stands where the IP header would begin
    arp[12] = 0x08;
    arp[13] = 0x06;
    arp[15] = 1;
    expect_rejected(arp, {dropped("invalid IP header, ip_hdr_len=0 packetLen=60")});

    Bytes ipv6(74, 0);
    ipv6[14] = 0x60;
    expect_rejected(ipv6, {dropped("invalid IP header, ip_hdr_len=0 packetLen=74")});

    const Bytes udp = wirekit::udp_datagram().payload(Bytes(66, 0x11)).bytes();
    expect_rejected(udp, {});
}

TEST_F(FrameChecks, TheSourcePortSelectsTheStream) {
    const struct {
        const char* name;
        uint16_t port;
        bool taken;
        const char* why;
    } rows[] = {
        {"Md2ps", kMd2psPort, true, "server port of the 2PS stream"},
        {"Md4ps", kMd4psPort, true, "server port of the 4PS stream"},
        {"Below", kMd2psPort - 1, false, "not an exchange port"},
        {"Between", kMd2psPort + 1, false, "not an exchange port"},
        {"Above", kMd4psPort + 1, false, "not an exchange port"},
        {"Zero", 0, false, "not an exchange port"},
        {"Highest", 65535, false, "not an exchange port"},
        {"Swapped", 0xFE80, false, "the 2PS port with its bytes exchanged"},
        {"Local", kPort, false, "the answer direction of the same connection"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        const Bytes frame = expected_segment().from(kExchangeIp, row.port).bytes();
        if (row.taken) {
            expect_accepted(frame, 66);
        } else {
            expect_rejected(frame, {});
        }
    }
}

TEST_F(FrameChecks, TheTotalLengthBoundsThePayload) {
    const struct {
        const char* name;
        uint16_t total;
        const char* said; // empty: accepted
        std::size_t payload;
        const char* why;
    } rows[] = {
        {"Zero", 0, "X payloadSize<=0, max_payload=66", 0, "shorter than its own headers"},
        {"IpHeader", 20, "X payloadSize<=0, max_payload=66", 0, "no TCP header announced"},
        {"BothHeaders", 40, "X payloadSize<=0, max_payload=66", 0, "a pure acknowledgement"},
        {"OneByte", 41, "", 1, "65 bytes of padding behind it"},
        {"OneShort", 105, "", 65, "one byte of padding"},
        {"Exact", 106, "", 66, "fills the frame"},
        {"OneMore", 107, "D tcp checksum is not correct", 0, "announces a byte that is not there"},
        {"Highest", 65535, "D tcp checksum is not correct", 0, "far more than is there"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        Bytes frame = expected_segment(66).bytes();
        wirekit::put_be16(frame.data() + 16, row.total);
        if (row.said[0] == '\0') {
            mend_checksum(frame);
            expect_accepted(frame, row.payload);
        } else {
            expect_rejected(frame, {line(row.said[0], "_PacketHandler", row.said + 2)});
        }
    }
}

TEST_F(FrameChecks, PaddingBehindThePacketIsNeitherPayloadNorChecked) {
    for (const std::size_t payload : {1u, 2u, 5u, 6u}) {
        Bytes frame = expected_segment(payload).padding(6 - payload).bytes();
        std::fill(frame.begin() + static_cast<std::ptrdiff_t>(54 + payload), frame.end(), 0xEE);
        ASSERT_EQ(frame.size(), 60u);
        SCOPED_TRACE("payload of " + std::to_string(payload));
        expect_accepted(frame, payload);
    }
}

TEST_F(FrameChecks, AWrongChecksumIsTurnedAwayWhicheverBitIsWrong) {
    for (const std::size_t payload : {1u, 2u, 65u, 66u}) { // odd and even sums
        const Bytes right = expected_segment(payload).bytes();
        for (std::size_t at = 26; at < right.size(); ++at) {
            if (at >= 34 && at < 36) {
                continue; // the source port: another check
            }
            if (at == 46) {
                continue; // the header size: another check
            }
            for (int bit = 0; bit < 8; ++bit) {
                Bytes frame = right;
                frame[at] = static_cast<uint8_t>(frame[at] ^ (1 << bit));
                SCOPED_TRACE("byte " + std::to_string(at) + " bit " + std::to_string(bit));
                bool accepted = false;
                EXPECT_EQ(outcome(frame, accepted), Log{kBadChecksum});
                EXPECT_FALSE(accepted);
            }
        }
    }
    EXPECT_EQ(difference(before_), "");
}

TEST_F(FrameChecks, CarriesOfTheChecksumAreFolded) {
    for (const std::size_t size : {1u, 2u, 1459u, 1460u}) {
        for (const int value : {0x00, 0xFF}) {
            SCOPED_TRACE(std::to_string(size) + " bytes of " + std::to_string(value));
            expect_accepted(segment(kNext, Bytes(size, static_cast<uint8_t>(value))).bytes(), size);
        }
    }
}

TEST_F(FrameChecks, BothFormsOfAZeroChecksumAreRight) {
    // Two bytes of payload are chosen so that the checksum comes out as 0.
    Bytes frame = segment(kNext, Bytes{0xA5, 0xA5, 0, 0}).bytes();
    const uint16_t checksum = wirekit::get_be16(frame.data() + 50);
    wirekit::put_be16(frame.data() + 56, checksum);
    mend_checksum(frame);
    ASSERT_EQ(wirekit::get_be16(frame.data() + 50), 0u);
    expect_accepted(frame, 4);
    wirekit::put_be16(frame.data() + 50, 0xFFFF); // the same sum
    expect_accepted(frame, 4);
}

TEST_F(FrameChecks, ASegmentOf2036BytesIsTheLongestThatIsChecked) {
    expect_accepted(expected_segment(2015).bytes(), 2015);
    expect_accepted(expected_segment(2016).bytes(), 2016);
    expect_rejected(expected_segment(2017).bytes(), {kBadChecksum}); // though it is right
    expect_rejected(expected_segment(2018).bytes(), {kBadChecksum});
    // The options of the TCP header count, those of the IP header do not.
    expect_accepted(expected_segment(1976).tcp_options(40).ip_options(40).bytes(), 1976);
    expect_rejected(expected_segment(1977).tcp_options(40).bytes(), {kBadChecksum});
}

TEST_F(FrameChecks, EveryValueOfEveryHeaderByteIsJudgedAsTheModelJudgesIt) {
    SnapshotModel model({.port_2ps = kMd2psPort, .port_4ps = kMd4psPort, .listen = {}});
    const Bytes right = expected_segment(12).bytes();
    for (std::size_t at = 0; at < 54; ++at) {
        for (int value = 0; value <= 255; ++value) {
            Bytes frame = right;
            frame[at] = static_cast<uint8_t>(value);
            model.log.clear();
            const bool reaches_session = model.check(frame);
            bool accepted = false;
            const Log log = outcome(frame, accepted);
            if (log != model.log || accepted != reaches_session) {
                ADD_FAILURE() << "byte " << at << " value " << value;
                EXPECT_EQ(log, model.log);
                EXPECT_EQ(accepted, reaches_session);
            }
        }
    }
    EXPECT_EQ(difference(before_), "");
}

TEST_F(FrameChecks, TheDestinationPortSelectsTheSession) {
    for (const uint16_t port : {uint16_t{0}, uint16_t{1}, uint16_t{0x5CC3}, uint16_t{65535}}) {
        SCOPED_TRACE("port " + std::to_string(port));
        deliver(segment(500, start_message(), port).bytes());
        EXPECT_EQ(session(port).init, 1);
        EXPECT_EQ(session(port).dst_port, port);
        EXPECT_EQ(session(port).next_expt_seq, 560u);
    }
    EXPECT_EQ(session().next_expt_seq, kNext);
}

} // namespace
} // namespace tcp_test
