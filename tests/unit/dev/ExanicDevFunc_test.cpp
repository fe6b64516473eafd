// Handle, receive buffers, switches: what is acquired and released, in which order, and what is
// said when the card refuses.

#include "dev_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using support::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using Call = ScriptedCard::Call;

TEST(ExanicDev, HoldsNothingUntilItIsBroughtUp) {
    const DevFixture fixture;
    EXPECT_EQ(fixture.dev.GetRegisters(), nullptr);
    EXPECT_EQ(fixture.dev.GetTcpRxBuffer(), nullptr);
    EXPECT_EQ(fixture.dev.GetUdpRxBuffer(), nullptr);
    EXPECT_THAT(fixture.card.calls(), IsEmpty());
    EXPECT_THAT(fixture.card.stores(), IsEmpty());
}

TEST(ExanicDev, AcquiresTheHandleThenTheRawRingThenTheDecodeRing) {
    DevFixture fixture;
    fixture.config.device = "enp1s0";
    const LogCapture capture;
    EXPECT_EQ(fixture.dev.InitDev(), 0);
    EXPECT_THAT(fixture.card.calls(),
                ElementsAre("acquire_handle enp1s0", "acquire_rx 1 0", "acquire_rx 0 0"));
    EXPECT_EQ(fixture.dev.GetRegisters(), fixture.card.registers());
    ASSERT_NE(fixture.dev.GetTcpRxBuffer(), nullptr);
    ASSERT_NE(fixture.dev.GetUdpRxBuffer(), nullptr);
    // Which is which shows when they are polled.
    char buffer[2048];
    fixture.card.push(1, {0xAA});
    EXPECT_EQ(::exanic_receive_frame(fixture.dev.GetUdpRxBuffer(), buffer, 2048, nullptr), 0);
    EXPECT_EQ(::exanic_receive_frame(fixture.dev.GetTcpRxBuffer(), buffer, 2048, nullptr), 1);
}

TEST(ExanicDev, LogsTheBindingAndTheFirmware) {
    DevFixture fixture;
    fixture.config.cpucore = 1;
    system_calls::set_processors(2);
    fixture.card.set_reg(1, 0x0102ABCD);
    fixture.card.set_reg(2, 0xF0000001);
    const LogCapture capture;
    EXPECT_EQ(fixture.dev.InitDev(), 0);
    EXPECT_THAT(
        capture.summary(),
        ElementsAre("I ExanicDevFunc _BindCpu set CPU[1] affinity successful",
                    "I ExanicDevFunc _InitReg FPGA version: 102abcd, update data: f0000001"));
}

// --- Refusals.

struct RefusalCase {
    const char* name;
    Call call;
    int port;
    const char* message; // %s: what the library says
    std::vector<std::string> calls;
    std::vector<std::string> released; // by a later ReleaseDev
};

class ExanicDevRefusal : public testing::TestWithParam<RefusalCase> {};

TEST_P(ExanicDevRefusal, IsLoggedAndReleasesNothing) {
    const RefusalCase& row = GetParam();
    DevFixture fixture;
    enable(fixture.config, 0x05);
    fixture.mask.mask = 0xA5;
    fixture.config.device = "card 100%s%n";
    fixture.card.fail(row.call, "No such device %d%n", row.port);
    std::vector<std::string> expected_calls = row.calls;
    {
        const LogCapture capture;
        EXPECT_EQ(fixture.dev.InitDev(), -1);
        EXPECT_THAT(capture.summary(),
                    ElementsAre("I ExanicDevFunc _BindCpu set CPU[0] affinity successful",
                                std::string("E ExanicDevFunc InitDev get [card 100%s%n] ") +
                                    row.message + " failed, No such device %d%n"));
    }
    EXPECT_EQ(fixture.card.calls(), expected_calls);
    EXPECT_THAT(fixture.card.stores(), IsEmpty()) << "no register is touched";
    EXPECT_EQ(fixture.mask.mask, 0xA5) << "the mask is left as it was";

    fixture.dev.ReleaseDev();
    expected_calls.insert(expected_calls.end(), row.released.begin(), row.released.end());
    EXPECT_EQ(fixture.card.calls(), expected_calls) << "what was acquired can still be released";
}

constexpr char kHandle[] = "acquire_handle card 100%s%n";

INSTANTIATE_TEST_SUITE_P(
    Calls, ExanicDevRefusal,
    testing::Values(
        RefusalCase{"Handle", Call::kAcquireHandle, -1, "handle", {kHandle}, {}},
        RefusalCase{"Registers", Call::kRegisters, -1, "registers", {kHandle}, {"release_handle"}},
        RefusalCase{"TcpRing",
                    Call::kRxBuffer,
                    1,
                    "tcp rx buffer",
                    {kHandle, "acquire_rx 1 0"},
                    {"release_handle"}},
        RefusalCase{"UdpRing",
                    Call::kRxBuffer,
                    0,
                    "udp rx buffer",
                    {kHandle, "acquire_rx 1 0", "acquire_rx 0 0"},
                    {"release_rx 1", "release_handle"}}),
    [](const auto& row) { return std::string(row.param.name); });

// --- Release.

TEST(ExanicDevRelease, GoesInReverseOrderOnce) {
    DevFixture fixture;
    const LogCapture capture(0);
    ASSERT_EQ(fixture.dev.InitDev(), 0);
    fixture.dev.ReleaseDev();
    const auto expected = ElementsAre("acquire_handle exanic0", "acquire_rx 1 0", "acquire_rx 0 0",
                                      "release_rx 0", "release_rx 1", "release_handle");
    EXPECT_THAT(fixture.card.calls(), expected);
    EXPECT_EQ(fixture.dev.GetTcpRxBuffer(), nullptr);
    EXPECT_EQ(fixture.dev.GetUdpRxBuffer(), nullptr);
    fixture.dev.ReleaseDev();
    EXPECT_THAT(fixture.card.calls(), expected) << "nothing is held any more";
}

TEST(ExanicDevRelease, OfADeviceNeverAcquiredDoesNothing) {
    DevFixture fixture;
    fixture.dev.ReleaseDev();
    EXPECT_THAT(fixture.card.calls(), IsEmpty());
    EXPECT_THAT(fixture.card.stores(), IsEmpty());
}

TEST(ExanicDevRelease, TouchesNoRegister) {
    DevFixture fixture;
    const LogCapture capture(0);
    ASSERT_EQ(fixture.dev.InitDev(), 0);
    fixture.card.clear_stores();
    fixture.dev.ReleaseDev();
    EXPECT_THAT(fixture.card.stores(), IsEmpty());
}

// --- A second bring-up, as the feed's restart makes it.

TEST(ExanicDevRestart, AcquiresEverythingAnewAndReleasesNothing) {
    DevFixture fixture;
    enable(fixture.config, 0x05);
    const LogCapture capture(0);
    ASSERT_EQ(fixture.dev.InitDev(), 0);
    exanic_rx_t* const first_tcp = fixture.dev.GetTcpRxBuffer();
    exanic_rx_t* const first_udp = fixture.dev.GetUdpRxBuffer();
    enable(fixture.config, 0x04);
    ASSERT_EQ(fixture.dev.InitDev(), 0);
    EXPECT_THAT(fixture.card.calls(),
                ElementsAre("acquire_handle exanic0", "acquire_rx 1 0", "acquire_rx 0 0",
                            "acquire_handle exanic0", "acquire_rx 1 0", "acquire_rx 0 0"));
    EXPECT_NE(fixture.dev.GetTcpRxBuffer(), first_tcp);
    EXPECT_NE(fixture.dev.GetUdpRxBuffer(), first_udp);
    EXPECT_EQ(fixture.mask.mask, 0x04) << "the mask starts from 0 every time";
    fixture.dev.ReleaseDev();
    EXPECT_EQ(fixture.card.calls().size(), 9U) << "the last set alone is held";
}

// --- Switches.

struct SwitchCase {
    const char* name;
    void (CExanicDevFunc::*operation)();
    uint32_t word;
    uint32_t value;
};

class ExanicDevSwitch : public testing::TestWithParam<SwitchCase> {};

TEST_P(ExanicDevSwitch, IsOneStore) {
    const SwitchCase& row = GetParam();
    DevFixture fixture;
    const LogCapture capture(31);
    ASSERT_EQ(fixture.dev.InitDev(), 0);
    fixture.card.clear_stores();
    const std::size_t logged = capture.lines().size();
    (fixture.dev.*row.operation)();
    EXPECT_THAT(fixture.card.stores(), ElementsAre(RegisterStore{row.word, row.value}));
    EXPECT_EQ(fixture.card.unusual_stores(), 0U);
    EXPECT_EQ(capture.lines().size(), logged);
}

INSTANTIATE_TEST_SUITE_P(
    Switches, ExanicDevSwitch,
    testing::Values(SwitchCase{"StartOrigData", &CExanicDevFunc::StartOrigData, 512, 1},
                    SwitchCase{"StopOrigData", &CExanicDevFunc::StopOrigData, 512, 0},
                    SwitchCase{"StartDecodeData", &CExanicDevFunc::StartDecodeData, 513, 1},
                    SwitchCase{"StopDecodeData", &CExanicDevFunc::StopDecodeData, 513, 0},
                    SwitchCase{"StartAllIne", &CExanicDevFunc::StartAllIne, 514, 1},
                    SwitchCase{"StopAllIne", &CExanicDevFunc::StopAllIne, 514, 0},
                    SwitchCase{"StartAllShfe", &CExanicDevFunc::StartAllShfe, 515, 1},
                    SwitchCase{"StopAllShfe", &CExanicDevFunc::StopAllShfe, 515, 0}),
    [](const auto& row) { return std::string(row.param.name); });

} // namespace
