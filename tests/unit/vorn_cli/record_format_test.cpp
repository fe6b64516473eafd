// What a recording's bytes are: captures, decode buffers back on the wire, rows.

#include "tools/vorn/exit_code.h"
#include "tools/vorn/record/csv_row.h"
#include "tools/vorn/record/decode_wrapper.h"
#include "tools/vorn/record/open_recorder.h"
#include "tools/vorn/record/pcap_format.h"
#include "wirekit/mirp.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>

using namespace vorn_cli;

namespace {

TEST(PcapFormat, IsANanosecondCaptureOfEthernet) {
    const std::string head = pcap_file_head();
    const auto* const bytes = reinterpret_cast<const uint8_t*>(head.data());
    ASSERT_EQ(head.size(), 24u);
    EXPECT_EQ(wirekit::get_le32(bytes), 0xA1B23C4Du);
    EXPECT_EQ(wirekit::get_le16(bytes + 4), 2);
    EXPECT_EQ(wirekit::get_le16(bytes + 6), 4);
    EXPECT_EQ(wirekit::get_le32(bytes + 16), 65535u);
    EXPECT_EQ(wirekit::get_le32(bytes + 20), 1u);
}

TEST(PcapFormat, ARecordHasTimeLengthsAndFrame) {
    std::string block = "before";
    append_pcap_record(block, 1'768'438'800'987'654'321, std::span<const char>("frame", 5));
    ASSERT_EQ(block.size(), 6u + 16 + 5);
    const auto* const bytes = reinterpret_cast<const uint8_t*>(block.data()) + 6;
    EXPECT_EQ(wirekit::get_le32(bytes), 1'768'438'800u);
    EXPECT_EQ(wirekit::get_le32(bytes + 4), 987'654'321u);
    EXPECT_EQ(wirekit::get_le32(bytes + 8), 5u);
    EXPECT_EQ(wirekit::get_le32(bytes + 12), 5u);
    EXPECT_EQ(block.substr(22), "frame");
}

struct WrapCase {
    const char* name;
    const char* ini;
    int topic;
    wirekit::Endpoint to;
};

const WrapCase kWrapCases[] = {
    {"Shfe", "ine2ps = enabled\nshfe2ps = enabled\n", 1000, {0xEF042A48, 21000}},
    {"Ine", "ine2ps = enabled\nshfe2ps = enabled\n", 5000, {0xEF033447, 25000}},
    {"FourPsTopicOfShfe", "shfe2ps = enabled\n", 1101, {0xEF042A48, 21000}},
    {"ConfiguredGroup", "shfe2ps_ip_a = 239.1.2.3:77\n", 1000, {0xEF010203, 77}},
    {"ConfiguredTopic", "ine2ps_topic_id = 12\n", 12, {0xEF033447, 25000}},
    {"LineBWhenAIsNoAddress", "ine2ps_ip_a = none\n", 5000, {0xEF043448, 25000}},
    {"LineBWhenAHasNoPort", "ine2ps_ip_a = 239.1.1.1:x\n", 5000, {0xEF043448, 25000}},
    {"UnknownTopicToTheEnabledFeed", "ine2ps = enabled\n", 999, {0xEF033447, 25000}},
    {"UnknownTopicToShfeFirst", "ine2ps = enabled\nshfe2ps = enabled\n", 999, {0xEF042A48, 21000}},
};

class Wrapping : public testing::TestWithParam<WrapCase> {};

TEST_P(Wrapping, PutsTheBufferOnItsGroup) {
    DecodeWrapper wrapper(effective_config(read_ini(std::string("[config]\n") + GetParam().ini)));
    const auto buffer = wirekit::decode_buffer()
                            .topic(static_cast<uint16_t>(GetParam().topic))
                            .change_no(8)
                            .bytes();
    const auto frame = wrapper.wrap({reinterpret_cast<const char*>(buffer.data()), buffer.size()});
    const auto parsed =
        wirekit::parse_frame({reinterpret_cast<const uint8_t*>(frame.data()), frame.size()});
    EXPECT_EQ(parsed.kind, wirekit::ParsedFrame::Kind::kUdp);
    EXPECT_EQ(parsed.to, GetParam().to);
    EXPECT_TRUE(parsed.checksum_ok);
    EXPECT_TRUE(std::ranges::equal(parsed.payload, buffer));
}

INSTANTIATE_TEST_SUITE_P(Cases, Wrapping, testing::ValuesIn(kWrapCases),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(DecodeWrapper, ABufferTooShortForATopicIsWrappedToo) {
    DecodeWrapper wrapper(effective_config(IniFile{}));
    EXPECT_EQ(wrapper.wrap(std::span<const char>("x", 1)).size(), 14u + 20 + 8 + 1);
}

instrument sample() {
    instrument record{};
    std::memcpy(record.inst_id, "ABCDEFGHIJKLMNOP", 16); // without NUL
    record.type = 1;
    record.update_time = 4'000'000'000u;
    record.update_milli_sec = 999;
    record.change_no = 0xFFFFFFFFu; // as signed, like the volume
    record.volume = 0x80000000u;
    record.last_px = 0.125;
    record.turnover = 1e300;
    record.open_interest = -0.0;
    record.highest_price = std::nan("");
    record.lowest_price = -INFINITY;
    for (int i = 0; i < 10; ++i) {
        record.bid_px[i] = 100.005 - i;
        record.bid_vol[i] = -i;
        record.ask_px[i] = 101.0 + i;
        record.ask_vol[i] = 1000 + i;
    }
    record.bid_totvol = INT32_MIN;
    record.ask_totamount = 2.5e-3;
    return record;
}

TEST(CsvRow, IsWrittenAsTheRecorderWritesIt) {
    std::string row = "before|";
    append_csv_row(row, sample());
    char turnover[400];
    std::snprintf(turnover, sizeof(turnover), "%.2f", 1e300);
    EXPECT_EQ(row, std::string("before|1,ABCDEFGHIJKLMNOP,4000000000,999,-1,0.12,-2147483648,") +
                       turnover +
                       ",-0.00,0,100.00,-1,99.00,-2,98.00,-3,97.00,-4,96.00,1000,101.00,1001,"
                       "102.00,1002,103.00,1003,104.00,1004,105.00,-2147483648,0.00,0,0.00,nan,"
                       "-inf\n");
}

TEST(CsvRow, TheLongestRowIsWhole) {
    instrument record = sample();
    double* const prices[] = {&record.last_px,       &record.turnover,      &record.open_interest,
                              &record.bid_totamount, &record.ask_totamount, &record.highest_price,
                              &record.lowest_price};
    for (double* price : prices) {
        *price = -1.7e308;
    }
    for (int i = 0; i < 10; ++i) {
        record.bid_px[i] = record.ask_px[i] = -1.7e308;
    }
    std::string row;
    append_csv_row(row, record);
    EXPECT_GT(row.size(), 5000u);
    EXPECT_EQ(row.back(), '\n');
    EXPECT_EQ(std::count(row.begin(), row.end(), ','), 34);
}

TEST(CsvRow, AnIdentifierEndsAtItsFirstZeroByte) {
    instrument record{};
    std::memcpy(record.inst_id, "cu2603\0hidden", 13);
    std::string row;
    append_csv_row(row, record);
    EXPECT_TRUE(row.starts_with("0,cu2603,0,0,0,0.00,")) << row;
}

TEST(CsvRow, TheHeaderNamesItsColumns) {
    EXPECT_EQ(csv_header().size(), 391u);
    EXPECT_TRUE(csv_header().starts_with("type,inst_id,update_time,"));
    EXPECT_TRUE(csv_header().ends_with(",highest_price,lowest_price\n"));
}

TEST(Amounts, HaveUnits) {
    EXPECT_EQ(parse_size("--x", ""), 0u);
    EXPECT_EQ(parse_size("--x", "77"), 77u);
    EXPECT_EQ(parse_size("--x", "64K"), 65536u);
    EXPECT_EQ(parse_size("--x", "500M"), 500u << 20);
    EXPECT_EQ(parse_size("--x", "8G"), uint64_t{8} << 30);
    EXPECT_EQ(parse_duration("--x", "30s"), 30'000'000'000u);
    EXPECT_EQ(parse_duration("--x", "15m"), 900'000'000'000u);
    EXPECT_EQ(parse_duration("--x", "1h"), 3'600'000'000'000u);
    for (const char* wrong : {"0", "x", "-1", "1 G", "1T", "99999999999G", "1.5G", "G"}) {
        EXPECT_THROW(parse_size("--x", wrong), Failure) << wrong;
    }
    for (const char* wrong : {"0s", "5", "1d", "9999999999h"}) {
        EXPECT_THROW(parse_duration("--x", wrong), Failure) << wrong;
    }
}

} // namespace
