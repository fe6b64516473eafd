#include "wirekit/ethernet.h"

#include <gtest/gtest.h>
#include <random>

namespace wirekit {
namespace {

using Kind = ParsedFrame::Kind;

// The sum as the definition has it: one 16-bit word after the other.
uint16_t plain_checksum(std::span<const uint8_t> bytes, uint32_t sum = 0) {
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        sum += static_cast<uint32_t>(bytes[i] << 8 | (i + 1 < bytes.size() ? bytes[i + 1] : 0));
    }
    while (sum >> 16 != 0) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

Bytes some_bytes(std::size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    for (uint8_t& byte : bytes) {
        byte = static_cast<uint8_t>(random());
    }
    return bytes;
}

TEST(Checksum, EqualsTheSumOfWordsForEveryLength) {
    for (std::size_t size = 0; size < 200; ++size) {
        const Bytes bytes = some_bytes(size, static_cast<uint32_t>(size));
        EXPECT_EQ(fold_checksum(add_checksum(0, bytes)), plain_checksum(bytes)) << size;
        EXPECT_EQ(fold_checksum(add_checksum(0x1FFFE, bytes)), plain_checksum(bytes, 0x1FFFE));
    }
    const Bytes full(65535, 0xFF);
    EXPECT_EQ(fold_checksum(add_checksum(0, full)), plain_checksum(full));
}

TEST(Checksum, KnownIpv4Header) {
    const Bytes header = {0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11,
                          0xB8, 0x61, 0xC0, 0xA8, 0x00, 0x01, 0xC0, 0xA8, 0x00, 0xC7};
    EXPECT_EQ(fold_checksum(add_checksum(0, header)), 0);
}

TEST(TcpSegment, StandsByteByByte) {
    const uint8_t payload[] = {0xAB, 0xCD, 0xEF};
    const Bytes frame = tcp_segment()
                            .from(0x0A000001, 33022)
                            .to(0x0A000002, 50001)
                            .seq(0x01020304)
                            .ack(0x0A0B0C0D)
                            .flags(kTcpPsh | kTcpAck)
                            .payload(payload)
                            .bytes();
    ASSERT_EQ(frame.size(), 14u + 20 + 20 + 3);
    EXPECT_EQ(get_be16(&frame[12]), 0x0800);
    EXPECT_EQ(frame[14], 0x45);
    EXPECT_EQ(get_be16(&frame[16]), 43); // total length
    EXPECT_EQ(get_be16(&frame[20]), 0x4000);
    EXPECT_EQ(frame[22], 64); // time to live
    EXPECT_EQ(frame[23], 6);
    EXPECT_EQ(plain_checksum({&frame[14], 20}), 0);
    EXPECT_EQ(get_be32(&frame[26]), 0x0A000001u);
    EXPECT_EQ(get_be32(&frame[30]), 0x0A000002u);
    EXPECT_EQ(get_be16(&frame[34]), 33022);
    EXPECT_EQ(get_be16(&frame[36]), 50001);
    EXPECT_EQ(get_be32(&frame[38]), 0x01020304u);
    EXPECT_EQ(get_be32(&frame[42]), 0x0A0B0C0Du);
    EXPECT_EQ(frame[46], 0x50);
    EXPECT_EQ(frame[47], 0x18);
    EXPECT_EQ(frame[54], 0xAB);
    // Pseudo-header: addresses, protocol, TCP length; an odd last byte counts as a high byte.
    EXPECT_EQ(plain_checksum({&frame[34], 23}, 0x0A00 + 1 + 0x0A00 + 2 + 6 + 23), 0);
}

TEST(TcpSegment, OptionsMoveWhatFollowsAndPaddingIsNotPayload) {
    const uint8_t payload[] = {1, 2, 3, 4};
    const Bytes frame =
        tcp_segment().ip_options(8).tcp_options(12).payload(payload).padding(6).bytes();
    ASSERT_EQ(frame.size(), 14u + 28 + 32 + 4 + 6);
    EXPECT_EQ(frame[14], 0x47);
    EXPECT_EQ(frame[14 + 28 + 12], 0x80);
    EXPECT_EQ(frame[14 + 28 + 20], 1);
    EXPECT_EQ(get_be16(&frame[16]), 28 + 32 + 4);
    const ParsedFrame parsed = parse_frame(frame);
    EXPECT_EQ(parsed.kind, Kind::kTcp);
    EXPECT_TRUE(parsed.checksum_ok);
    EXPECT_EQ(Bytes(parsed.payload.begin(), parsed.payload.end()), Bytes(payload, payload + 4));
}

TEST(TcpSegment, BrokenChecksumDiffersInOneBit) {
    const Bytes good = tcp_segment().bytes();
    const Bytes bad = tcp_segment().bad_checksum().bytes();
    int different_bits = 0;
    for (std::size_t i = 0; i < good.size(); ++i) {
        different_bits += std::popcount(static_cast<unsigned>(good[i] ^ bad[i]));
    }
    EXPECT_EQ(different_bits, 1);
    EXPECT_TRUE(parse_frame(good).checksum_ok);
    EXPECT_FALSE(parse_frame(bad).checksum_ok);
}

TEST(UdpDatagram, GoesToTheGroupsMulticastAddress) {
    const uint8_t payload[] = {7};
    // The group's top bit of the low 24 is not part of the address: 239.132.42.72 and 239.4.42.72
    // share one.
    const Bytes frame = udp_datagram().to(0xEF842A48, 21000).payload(payload).bytes();
    EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 6), (Bytes{0x01, 0x00, 0x5E, 0x04, 0x2A, 0x48}));
    EXPECT_EQ(frame[6] & 0x03, 0x02); // a station, locally administered
    EXPECT_EQ(frame[23], 17);
    EXPECT_EQ(get_be16(&frame[36]), 21000);
    EXPECT_EQ(get_be16(&frame[38]), 9);
    EXPECT_EQ(frame.size(), 14u + 20 + 8 + 1);
    EXPECT_EQ(plain_checksum({&frame[14], 20}), 0);
    const ParsedFrame parsed = parse_frame(frame);
    EXPECT_EQ(parsed.kind, Kind::kUdp);
    EXPECT_EQ(parsed.to, (Endpoint{0xEF842A48, 21000}));
    EXPECT_EQ(parsed.from, (Endpoint{0x0A010101, 40000}));
    EXPECT_TRUE(parsed.checksum_ok);
    EXPECT_NE(get_be16(&frame[40]), 0);
}

TEST(UdpDatagram, ChecksumZeroIsSentAsAllOnes) {
    // A payload word that brings the sum to all ones: its checksum would be zero, which means
    // "none".
    Bytes payload = {0, 0};
    const Bytes first = udp_datagram().payload(payload).bytes();
    put_be16(payload.data(), get_be16(&first[40]));
    const Bytes frame = udp_datagram().payload(payload).bytes();
    EXPECT_EQ(get_be16(&frame[40]), 0xFFFF);
    EXPECT_TRUE(parse_frame(frame).checksum_ok);
}

TEST(UdpDatagram, WithoutChecksumIsTakenAsRight) {
    const uint8_t payload[] = {1, 2, 3};
    Bytes frame = udp_datagram().payload(payload).bytes();
    put_be16(&frame[40], 0);
    EXPECT_TRUE(parse_frame(frame).checksum_ok);
    put_be16(&frame[40], 1);
    EXPECT_FALSE(parse_frame(frame).checksum_ok);
}

TEST(BulkFraming, MakesTheSameFramesAsTheBuilders) {
    Bytes frame(3000, 0xAA);
    for (const std::size_t size : {0u, 1u, 24u, 1472u}) {
        const Bytes payload = some_bytes(size, 3);
        write_udp_frame(frame, {0x0A010101, 40000}, {0xEF042A48, 21000}, 0, payload);
        EXPECT_EQ(frame, udp_datagram().payload(payload).bytes()) << size;
        write_tcp_frame(frame, {0x0A010101, 33022}, {0x0A010102, 50001}, 0, 77, 88, kTcpAck,
                        payload);
        EXPECT_EQ(frame, tcp_segment().seq(77).ack(88).payload(payload).bytes()) << size;
    }
    write_udp_frame(frame, {1, 2}, {3, 4}, 0xBEEF, {});
    EXPECT_EQ(get_be16(&frame[18]), 0xBEEF);
    EXPECT_EQ(plain_checksum({&frame[14], 20}), 0);
}

TEST(ParseFrame, ReadsSequenceAndFlags) {
    const ParsedFrame parsed =
        parse_frame(tcp_segment().seq(0xFFFFFFF0).flags(kTcpRst | kTcpAck).bytes());
    EXPECT_EQ(parsed.kind, Kind::kTcp);
    EXPECT_EQ(parsed.tcp_seq, 0xFFFFFFF0u);
    EXPECT_EQ(parsed.tcp_flags, kTcpRst | kTcpAck);
    EXPECT_TRUE(parsed.payload.empty());
    EXPECT_EQ(parsed.from, (Endpoint{0x0A010101, 33022}));
    EXPECT_EQ(parsed.to, (Endpoint{0x0A010102, 50001}));
}

TEST(ParseFrame, CutOffFramesAreNeverRightAndNeverReadBeyondTheirEnd) {
    const Bytes payload = some_bytes(40, 9);
    for (const Bytes& whole : {tcp_segment().ip_options(4).tcp_options(4).payload(payload).bytes(),
                               udp_datagram().payload(payload).bytes()}) {
        for (std::size_t size = 0; size < whole.size(); ++size) {
            // A heap block of exactly this size, so that a sanitizer sees a read beyond it.
            const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
            const ParsedFrame parsed = parse_frame(cut);
            EXPECT_FALSE(parsed.checksum_ok) << size;
            if (parsed.kind != Kind::kOther) {
                EXPECT_LT(parsed.payload.size(), payload.size());
                EXPECT_LE(parsed.payload.data() + parsed.payload.size(), cut.data() + cut.size());
            }
        }
    }
}

struct DamageCase {
    const char* name;
    std::size_t at;
    uint8_t value;
    const char* why;
};

const DamageCase kDamageCases[] = {
    // name             byte value   why
    {"EtherType", 12, 0x86, "not IPv4"},
    {"Version", 14, 0x65, "IPv6 has another header"},
    {"HeaderLength", 14, 0x44, "an IPv4 header has at least 20 bytes"},
    {"TotalLength", 17, 0x13, "shorter than its own header"},
    {"MoreFragments", 20, 0x20, "part of a packet"},
    {"FragmentOffset", 21, 0x01, "part of a packet"},
    {"Protocol", 23, 0x01, "neither TCP nor UDP"},
};

TEST(ParseFrame, ForeignAndDamagedHeadersAreOther) {
    for (const DamageCase& damage : kDamageCases) {
        for (Bytes frame : {tcp_segment().bytes(), udp_datagram().bytes()}) {
            frame[16] = 0; // high byte of the total length
            frame[damage.at] = damage.value;
            EXPECT_EQ(parse_frame(frame).kind, Kind::kOther) << damage.name << ": " << damage.why;
        }
    }
    Bytes short_tcp = tcp_segment().bytes();
    short_tcp[46] = 0x40;
    EXPECT_EQ(parse_frame(short_tcp).kind, Kind::kOther);
    short_tcp[46] = 0xF0;
    EXPECT_EQ(parse_frame(short_tcp).kind, Kind::kOther);
    Bytes short_udp = udp_datagram().bytes();
    put_be16(&short_udp[38], 7);
    EXPECT_EQ(parse_frame(short_udp).kind, Kind::kOther);
}

TEST(ParseFrame, UdpLengthBoundsThePayloadToo) {
    const Bytes payload = some_bytes(10, 4);
    Bytes frame = udp_datagram().payload(payload).bytes();
    put_be16(&frame[38], 8 + 6);
    EXPECT_EQ(parse_frame(frame).payload.size(), 6u);
    put_be16(&frame[38], 8 + 11);
    EXPECT_EQ(parse_frame(frame).payload.size(), 10u);
    EXPECT_FALSE(parse_frame(frame).checksum_ok);
}

TEST(ParseFrame, TakesAnyBytes) {
    std::mt19937 random(20260115);
    const Bytes tcp = tcp_segment().payload(some_bytes(30, 1)).bytes();
    const Bytes udp = udp_datagram().payload(some_bytes(30, 2)).bytes();
    for (int round = 0; round < 20000; ++round) {
        Bytes frame = round % 2 == 0 ? tcp : udp;
        for (auto flips = random() % 6; flips-- > 0;) {
            frame[random() % frame.size()] = static_cast<uint8_t>(random());
        }
        frame.resize(random() % (frame.size() + 1));
        frame.shrink_to_fit();
        const ParsedFrame parsed = parse_frame(frame);
        ASSERT_LE(parsed.payload.size(), frame.size());
    }
}

} // namespace
} // namespace wirekit
