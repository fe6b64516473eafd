// Streams cut anywhere, and input that is not what it should be.

#include "dissection.h"

#include "exchange_sim/session.h"
#include "wirekit/ethernet.h"
#include "wirekit/mdqp.h"
#include "wirekit/mirp.h"

#include <gtest/gtest.h>
#include <map>
#include <random>

using wirekit::Bytes;
using wirekit::decode_buffer;
using wirekit::mdqp_message;
using wireshark_test::Dissection;

namespace {

using Frames = std::vector<int>;
using Texts = std::vector<std::string>;

// All values of all frames, one after another.
Texts flat(const Texts& lines) {
    Texts all;
    for (const std::string& line : lines) {
        for (std::size_t at = 0; at <= line.size();) {
            const std::size_t end = std::min(line.find(',', at), line.size());
            all.push_back(line.substr(at, end - at));
            at = end + 1;
        }
    }
    return all;
}

TEST(Robustness, MessagesAreJoinedAcrossSegments) {
    Bytes stream;
    Texts expected;
    for (int32_t number = 0; number < 40; ++number) {
        wirekit::append(stream, mdqp_message(number == 39 ? wirekit::kFlagLast : wirekit::kFlagMore)
                                    .snap(1000, number)
                                    .deal({.inst_no = number, .change_no = number})
                                    .packet_no(number)
                                    .bytes());
        expected.push_back(std::to_string(number));
    }
    for (const std::size_t size : {1448u, 700u, 193u, 97u, 13u}) {
        Dissection dissection;
        dissection.segments(stream, size);
        EXPECT_EQ(flat(dissection.values("vorn.snap_no")), expected) << size;
        EXPECT_EQ(flat(dissection.values("vorn.change_no")), expected) << size;
        EXPECT_EQ(dissection.frames("_ws.malformed || vorn.not_a_message || vorn.truncated"),
                  Frames{})
            << size;
    }
}

TEST(Robustness, SeveralMessagesOfAFrameAreAllNamed) {
    Dissection dissection;
    Bytes stream = mdqp_message(wirekit::kFlagMore).snap(1000, 1).packet_no(1).bytes();
    wirekit::append(
        stream,
        mdqp_message(wirekit::kFlagMore).deal({.inst_no = 7, .change_no = 9}).packet_no(2).bytes());
    wirekit::append(stream, mdqp_message(wirekit::kFlagLast).packet_no(3).bytes());
    const Bytes first(stream.begin(), stream.begin() + 50);
    const Bytes rest(stream.begin() + 50, stream.end());
    dissection.segment(first);
    dissection.segment(rest);
    const Texts info = dissection.info();
    ASSERT_EQ(info.size(), 2u);
    EXPECT_EQ(info[0], "SHFE snapshot 1");
    EXPECT_EQ(info[1], "SHFE 7 change 9; SHFE end of snapshot");
}

TEST(Robustness, ASegmentThatBeginsNoMessageIsNamed) {
    Dissection dissection;
    dissection.segment(Bytes(100, 0x55));
    dissection.segment(mdqp_message(wirekit::kFlagMore).snap(1000, 1).packet_no(1).bytes());
    EXPECT_EQ(dissection.frames("vorn.not_a_message"), (Frames{1}));
    EXPECT_EQ(dissection.frames("vorn.snap_no"), (Frames{2}));
    EXPECT_EQ(dissection.frames("_ws.malformed"), Frames{});
}

TEST(Robustness, UnknownFieldsAreNamed) {
    Dissection dissection;
    dissection.segment(mdqp_message(wirekit::kFlagMore)
                           .snap(1000, 1)
                           .field(0x0777, 3, Bytes{1, 2, 3})
                           .field(0x0031, 2, Bytes{1, 2}) // skipped by the feed without a word
                           .packet_no(1)
                           .bytes());
    dissection.line_a(decode_buffer().change_no(1).raw(Bytes{7, 7, 1, 2}).bytes());
    dissection.line_a(decode_buffer().change_no(2).field_id(4).bytes());
    dissection.line_a(decode_buffer().topic(9).change_no(3).bytes());
    dissection.line_a(decode_buffer().change_no(3).price_change(2, 11, 0, 0, 4).bytes());
    EXPECT_EQ(dissection.frames("vorn.unknown_field"), (Frames{1, 2}));
    EXPECT_EQ(dissection.values("vorn.field_id", "frame.number == 1"),
              (Texts{"0x1001,0x0777,0x0031,0x1004"}));
    EXPECT_EQ(dissection.frames("vorn.not_incremental"), (Frames{3}));
    EXPECT_EQ(dissection.frames("vorn.other_topic"), (Frames{4}));
    EXPECT_EQ(dissection.frames("vorn.bad_value"), (Frames{5}));
    EXPECT_EQ(dissection.frames("_ws.malformed"), Frames{});
}

TEST(Robustness, TruncatedFieldsAreNamed) {
    Dissection dissection;
    // A field that says it is longer than its message, one that is too short for its kind, the
    // begin of a field header.
    dissection.segment(mdqp_message(wirekit::kFlagMore).field(0x0102, 154, Bytes(20)).bytes());
    dissection.segment(
        mdqp_message(wirekit::kFlagMore).field(0x0103, 5, Bytes(5)).packet_no(1).bytes());
    dissection.segment(mdqp_message(wirekit::kFlagMore).packet_no(1).raw(Bytes{1, 16}).bytes());
    Bytes cut = decode_buffer().change_no(1).deal(1, 2, 3, 4).bytes();
    cut.resize(cut.size() - 1);
    dissection.line_a(cut);
    cut.resize(20); // less than a header
    dissection.line_a(cut);
    EXPECT_EQ(dissection.frames("vorn.truncated"), (Frames{1, 2, 3, 4, 5}));
    EXPECT_EQ(dissection.info().back(), "20 bytes, too short for a decode buffer");
    EXPECT_EQ(dissection.frames("_ws.malformed"), Frames{});
}

// Lua errors and malformed packets would show in the tree; run() and the filter look for them.
TEST(Robustness, NoiseRaisesNoErrors) {
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto damage = [&](Bytes bytes) {
        for (int n = static_cast<int>(random() % 4); n > 0 && !bytes.empty(); --n) {
            bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
        }
        if (random() % 3 == 0) {
            bytes.resize(random() % (bytes.size() + 1));
        }
        return bytes;
    };
    const Bytes message = mdqp_message(wirekit::kFlagMore)
                              .snap(1000, 1)
                              .inst({.inst_id = "cu2603", .inst_no = 1})
                              .deal({.inst_no = 1})
                              .price(1, '0', 1, 1)
                              .order_totals(1, 2, 3, 4, 5)
                              .packet_no(1)
                              .bytes();
    const Bytes buffer = decode_buffer()
                             .insert(wirekit::Side::kBid, 1, 1, 1)
                             .deal(1, 1, 1, 1)
                             .highest(1)
                             .ask_totals(1, 1)
                             .bytes();
    Dissection dissection;
    for (uint16_t i = 0; i < 1500; ++i) {
        // A connection for each, so that none waits for the rest of another's message.
        dissection.segment(damage(message), 33022, static_cast<uint16_t>(20000 + i));
        dissection.line_a(damage(buffer));
        Bytes noise(random() % 200);
        for (uint8_t& byte : noise) {
            byte = static_cast<uint8_t>(random());
        }
        dissection.line_b(noise);
    }
    EXPECT_NE(dissection.tree().find("Snapshot message (MDQP)"), std::string::npos);
    EXPECT_EQ(dissection.frames("_ws.malformed"), Frames{});
}

TEST(Robustness, ASimulatedSessionIsUnderstoodWhole) {
    exchange_sim::SessionOptions options;
    options.instruments = 60;
    options.changes = 3000;
    exchange_sim::Session session(options);
    Dissection dissection;
    for (exchange_sim::WireFrame frame; session.next(frame);) {
        dissection.frame({frame.bytes.begin(), frame.bytes.end()});
    }
    EXPECT_EQ(dissection.frames("_ws.malformed || vorn.gap || vorn.unknown_field || "
                                "vorn.truncated || vorn.not_a_message || vorn.bad_value || "
                                "vorn.other_topic"),
              Frames{});
    EXPECT_EQ(dissection.frames("udp && !vorn").size(), 0u);
    // Both lines carry every change once.
    const std::size_t changes = session.counters().changes;
    EXPECT_EQ(dissection.frames("vorn.mirp.field_id == 3").size(), session.counters().datagrams);
    EXPECT_EQ(dissection.frames("vorn.duplicate").size(), session.counters().datagrams - changes);
    std::map<std::string, int> listed;
    for (const std::string& inst_id : flat(dissection.values("vorn.inst_id", "tcp"))) {
        ++listed[inst_id];
    }
    for (const auto& instrument : session.instruments()) {
        EXPECT_TRUE(listed.contains(instrument.id)) << instrument.id;
    }
}

} // namespace
