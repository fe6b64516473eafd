// The firmware's set-up: every register store of a bring-up, in order.

#include "dev/FpgaRegisters.h"
#include "dev_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using support::LogCapture;
using testing::ElementsAre;

// Stores of the multicast lines in DevFixture's configuration.
const std::vector<RegisterStore> kShfe2ps = {
    {16, 0xEF010203}, {18, 2001}, {20, 0xEF010204}, {22, 2002}};
const std::vector<RegisterStore> kShfe4ps = {
    {16, 0xEF020203}, {18, 4001}, {20, 0xEF020204}, {22, 4002}};
const std::vector<RegisterStore> kIne2ps = {
    {17, 0xEF030203}, {19, 2003}, {21, 0xEF030204}, {23, 2004}};
const std::vector<RegisterStore> kIne4ps = {
    {17, 0xEF040203}, {19, 4003}, {21, 0xEF040204}, {23, 4004}};

struct FeedCase {
    const char* name;
    unsigned feeds;
    const std::vector<RegisterStore>* shfe;
    const std::vector<RegisterStore>* ine;
    uint8_t mask;
};

class BringUp : public testing::TestWithParam<FeedCase> {};

TEST_P(BringUp, ProgramsOneFeedOfAnExchangeAndClearsTheTables) {
    const FeedCase& row = GetParam();
    DevFixture fixture;
    enable(fixture.config, row.feeds);
    fixture.mask.mask = 0xFF;
    for (uint32_t word = 16; word <= 23; ++word) {
        fixture.card.set_reg(word, 0xDEAD0000 + word);
    }
    const LogCapture capture(7);
    ASSERT_EQ(fixture.dev.InitDev(), 0);

    std::vector<RegisterStore> lines;
    for (const auto* stores : {row.shfe, row.ine}) {
        if (stores != nullptr) {
            lines.insert(lines.end(), stores->begin(), stores->end());
        }
    }
    expect_stores(fixture.card.stores(), bring_up_stores(lines, 1));
    EXPECT_EQ(fixture.card.unusual_stores(), 0U) << "every access is one aligned 32-bit store";
    EXPECT_EQ(fixture.card.dropped_stores(), 0U);
    EXPECT_EQ(fixture.mask.mask, row.mask);
    if (row.shfe == nullptr) {
        EXPECT_EQ(fixture.card.reg(16), 0xDEAD0010) << "registers of a disabled feed are left";
    }
    if (row.ine == nullptr) {
        EXPECT_EQ(fixture.card.reg(23), 0xDEAD0017);
    }
    for (const uint32_t data_path : {512U, 513U}) {
        EXPECT_EQ(fixture.card.reg(data_path), 0U) << "the data paths are still off";
    }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Feeds, BringUp,
    testing::Values(
        FeedCase{"None",           0x00, nullptr,   nullptr,  0x00},
        FeedCase{"Shfe2ps",        0x01, &kShfe2ps, nullptr,  0x01},
        FeedCase{"Shfe4ps",        0x02, &kShfe4ps, nullptr,  0x02},
        FeedCase{"Shfe4psBefore2", 0x03, &kShfe4ps, nullptr,  0x02},
        FeedCase{"Ine2ps",         0x04, nullptr,   &kIne2ps, 0x04},
        FeedCase{"Both2ps",        0x05, &kShfe2ps, &kIne2ps, 0x05},
        FeedCase{"Shfe4psIne2ps",  0x06, &kShfe4ps, &kIne2ps, 0x06},
        FeedCase{"Shfe24Ine2ps",   0x07, &kShfe4ps, &kIne2ps, 0x06},
        FeedCase{"Ine4ps",         0x08, nullptr,   &kIne4ps, 0x08},
        FeedCase{"Shfe2psIne4ps",  0x09, &kShfe2ps, &kIne4ps, 0x09},
        FeedCase{"Both4ps",        0x0A, &kShfe4ps, &kIne4ps, 0x0A},
        FeedCase{"Shfe24Ine4ps",   0x0B, &kShfe4ps, &kIne4ps, 0x0A},
        FeedCase{"Ine4psBefore2",  0x0C, nullptr,   &kIne4ps, 0x08},
        FeedCase{"Shfe2psIne24",   0x0D, &kShfe2ps, &kIne4ps, 0x09},
        FeedCase{"Shfe4psIne24",   0x0E, &kShfe4ps, &kIne4ps, 0x0A},
        FeedCase{"All",            0x0F, &kShfe4ps, &kIne4ps, 0x0A}),
    [](const auto& row) { return std::string(row.param.name); });
// clang-format on

TEST(BringUp, SleepsOneMicrosecondAfterTheResetPulse) {
    DevFixture fixture;
    enable(fixture.config, 0x01);
    std::vector<useconds_t> sleeps;
    std::vector<RegisterStore> before;
    system_calls::on_sleep([&](useconds_t microseconds) {
        sleeps.push_back(microseconds);
        before = fixture.card.stores();
    });
    const LogCapture capture(0);
    ASSERT_EQ(fixture.dev.InitDev(), 0);
    EXPECT_THAT(sleeps, ElementsAre(1U));
    EXPECT_THAT(before, ElementsAre(RegisterStore{5, 1}, RegisterStore{5, 0}));
}

TEST(BringUp, LeavesEveryOtherRegisterAlone) {
    DevFixture fixture;
    enable(fixture.config, 0x0F);
    const LogCapture capture(0);
    ASSERT_EQ(fixture.dev.InitDev(), 0);
    const std::vector<uint32_t> written = {5,   16,  17,  18,   19,   20,   21,   22,  23,
                                           514, 515, 528, 1398, 1792, 1793, 1796, 1797};
    for (const RegisterStore& store : fixture.card.stores()) {
        ASSERT_THAT(written, testing::Contains(store.word));
    }
}

TEST(BringUp, SignExtendsTheSplitField) {
    struct Row {
        int8_t value;
        uint32_t stored;
    };
    for (const Row& row : {Row{0, 0}, Row{127, 127}, Row{-1, 0xFFFFFFFF}, Row{-128, 0xFFFFFF80}}) {
        DevFixture fixture;
        fixture.config.split_all_field = row.value;
        const LogCapture capture(0);
        ASSERT_EQ(fixture.dev.InitDev(), 0);
        expect_stores(fixture.card.stores(), bring_up_stores({}, row.stored));
    }
}

TEST(BringUp, WritesZerosForALineWithoutAColon) {
    DevFixture fixture;
    enable(fixture.config, 0x05);
    fixture.config.shfe2ps_ip_a = "239.1.2.3";
    fixture.config.ine2ps_ip_b = "";
    const LogCapture capture(31);
    ASSERT_EQ(fixture.dev.InitDev(), 0);
    expect_stores(fixture.card.stores(), bring_up_stores({{16, 0},
                                                          {18, 0},
                                                          {20, 0xEF010204},
                                                          {22, 2002},
                                                          {17, 0xEF030203},
                                                          {19, 2003},
                                                          {21, 0},
                                                          {23, 0}},
                                                         1));
    EXPECT_EQ(fixture.mask.mask, 0x05);
    EXPECT_EQ(capture.summary("EW").size(), 0U) << "bad addresses are not reported";
}

// --- One line's address and port.

struct AddressCase {
    const char* name;
    const char* text;
    uint32_t ip;
    uint32_t port;
};

class SetIpAndPort : public testing::TestWithParam<AddressCase> {};

TEST_P(SetIpAndPort, WritesTheAddressInHostOrderThenThePort) {
    const AddressCase& row = GetParam();
    DevFixture fixture;
    fixture.dev.m_pRegisters = fixture.card.registers();
    const LogCapture capture;
    fixture.dev._SetIpAndPort(17, 19, row.text);
    EXPECT_THAT(fixture.card.stores(),
                ElementsAre(RegisterStore{17, row.ip}, RegisterStore{19, row.port}));
    EXPECT_EQ(capture.text(), "");
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Texts, SetIpAndPort,
    testing::Values(
        AddressCase{"Plain",            "239.1.2.3:21000",       0xEF010203, 21000},
        AddressCase{"NoColon",          "239.1.2.3",             0,          0},
        AddressCase{"NoColonNoAddress", "none",                  0,          0},
        AddressCase{"Empty",            "",                      0,          0},
        AddressCase{"ColonAlone",       ":",                     0xFFFFFFFF, 0},
        AddressCase{"NoAddress",        ":21000",                0xFFFFFFFF, 21000},
        AddressCase{"NoPort",           "239.1.2.3:",            0xEF010203, 0},
        AddressCase{"BadPort",          "239.1.2.3:port",        0xEF010203, 0},
        AddressCase{"PortThenText",     "239.1.2.3:80x",         0xEF010203, 80},
        AddressCase{"SecondColon",      "239.1.2.3:5:6",         0xEF010203, 5},
        AddressCase{"PortAbove16Bits",  "239.1.2.3:70000",       0xEF010203, 70000},
        AddressCase{"NegativePort",     "239.1.2.3:-1",          0xEF010203, 0xFFFFFFFF},
        AddressCase{"HexPortIsNone",    "239.1.2.3:0x50",        0xEF010203, 0},
        AddressCase{"BlankBeforePort",  "239.1.2.3: 80",         0xEF010203, 80},
        AddressCase{"BadAddress",       "not an address:80",     0xFFFFFFFF, 80},
        AddressCase{"FivePartAddress",  "1.2.3.4.5:80",          0xFFFFFFFF, 80},
        AddressCase{"OctetTooLarge",    "239.1.2.256:80",        0xFFFFFFFF, 80},
        AddressCase{"AllOnes",          "255.255.255.255:80",    0xFFFFFFFF, 80},
        AddressCase{"Zero",             "0.0.0.0:80",            0,          80},
        AddressCase{"ThreePartAddress", "1.2.3:80",              0x01020003, 80}),
    [](const auto& row) { return std::string(row.param.name); });
// clang-format on

// --- The map itself.

TEST(FpgaRegisters, HaveTheirWords) {
    EXPECT_EQ(EXANIC_FPGA_CONFIG_OFFSET, 0U);
    EXPECT_EQ(EXANIC_FPGA_VERSION, 1U);
    EXPECT_EQ(EXANIC_FPGA_DATA, 2U);
    EXPECT_EQ(EXANIC_FPGA_RESET, 5U);
    EXPECT_EQ(EXANIC_FPGA_SNAP_TIME, 12U);
    EXPECT_EQ(EXANIC_FPGA_SHFE_IP_A, 16U);
    EXPECT_EQ(EXANIC_FPGA_INE_IP_A, 17U);
    EXPECT_EQ(EXANIC_FPGA_SHFE_PORT_A, 18U);
    EXPECT_EQ(EXANIC_FPGA_INE_PORT_A, 19U);
    EXPECT_EQ(EXANIC_FPGA_SHFE_IP_B, 20U);
    EXPECT_EQ(EXANIC_FPGA_INE_IP_B, 21U);
    EXPECT_EQ(EXANIC_FPGA_SHFE_PORT_B, 22U);
    EXPECT_EQ(EXANIC_FPGA_INE_PORT_B, 23U);
    EXPECT_EQ(EXANIC_FPGA_ORIG_DATA_SW, 512U);
    EXPECT_EQ(EXANIC_FPGA_DECODE_SW, 513U);
    EXPECT_EQ(EXANIC_FPGA_ALL_INE_SW, 514U);
    EXPECT_EQ(EXANIC_FPGA_ALL_SHFE_SW, 515U);
    EXPECT_EQ(EXANIC_FPGA_START_PKT_NO, 528U);
    EXPECT_EQ(EXANIC_FPGA_SPLIT_ALL_FIELD, 1398U);
    EXPECT_EQ(EXANIC_FPGA_SHFE_ADDR_WR, 1792U);
    EXPECT_EQ(EXANIC_FPGA_SHFE_DATA_WR, 1793U);
    EXPECT_EQ(EXANIC_FPGA_SHFE_ADDR_RD, 1794U);
    EXPECT_EQ(EXANIC_FPGA_SHFE_DATA_RD, 1795U);
    EXPECT_EQ(EXANIC_FPGA_INE_ADDR_WR, 1796U);
    EXPECT_EQ(EXANIC_FPGA_INE_DATA_WR, 1797U);
    EXPECT_EQ(EXANIC_FPGA_INE_ADDR_RD, 1798U);
    EXPECT_EQ(EXANIC_FPGA_INE_DATA_RD, 1799U);
    EXPECT_EQ(EXANIC_FPGA_INE_OFFSET, 4096U);
    EXPECT_EQ(EXANIC_FPGA_SHFE_OFFSET, 8192U);
    EXPECT_EQ(EXANIC_RECV_PORT_ORIG, 1);
    EXPECT_EQ(EXANIC_RECV_PORT_DECODE, 0);
}

} // namespace
