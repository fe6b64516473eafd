// Start-up: what a run does before any data flows, and everything that can keep it from flowing.

#include "CommonLog.h"
#include "feed_fixture.h"
#include "tests/support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Call = ScriptedCard::Call;

// Before any test has set it.
void (*const initial_callback)(instrument*) = update_md;

TEST(UpdateCallback, IsNullUntilItIsSet) {
    EXPECT_EQ(initial_callback, nullptr);
}

TEST(UpdateCallback, IsWhatWasSetLast) {
    void (*const saved)(instrument*) = update_md;
    const auto first = [](instrument*) {};
    const auto second = [](instrument*) {};
    set_update_md_callback(first);
    EXPECT_EQ(update_md, static_cast<void (*)(instrument*)>(first));
    set_update_md_callback(second);
    EXPECT_EQ(update_md, static_cast<void (*)(instrument*)>(second));
    set_update_md_callback(nullptr);
    EXPECT_EQ(update_md, nullptr);
    set_update_md_callback(saved);
}

TEST(FeedStart, WithTheRunFlagDownLogsTheVersionAndEnds) {
    FeedFixture feed;
    feed.keep_running = 0;
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.log, ElementsAre(kVersionLine));
    EXPECT_EQ(feed.log_mask_after, 31);
    EXPECT_THAT(feed.card.calls(), IsEmpty());
    EXPECT_THAT(feed.card.stores(), IsEmpty());
    EXPECT_EQ(feed.card.polls(0), 0U);
    EXPECT_THAT(feed.updates, IsEmpty());
}

TEST(FeedStart, WithTheRunFlagDownDoesNotNeedAConfiguration) {
    FeedFixture feed;
    feed.keep_running = 0;
    feed.config.clear(); // no file
    EXPECT_EQ(feed.run(), 0);
    EXPECT_THAT(feed.log, ElementsAre(kVersionLine));
}

TEST(FeedStart, AllocatesTheTableOnceAlignedForDoubles) {
    FeedFixture feed;
    feed.keep_running = 0;
    EXPECT_EQ(feed.run(), 0);
    const system_calls::Allocation allocation = system_calls::allocation_of(6881296);
    EXPECT_EQ(allocation.requests, 1);
    EXPECT_EQ(allocation.alignment % 8, 0U);
    EXPECT_NE(allocation.block, nullptr);
}

TEST(FeedStart, WithoutMemoryForTheTableFails) {
    FeedFixture feed;
    system_calls::refuse_allocation(6881296);
    EXPECT_EQ(feed.run(), -1);
    EXPECT_THAT(feed.log, ElementsAre("E ExanicMdImpl vorn_recv failed to allocate share memor"));
    EXPECT_THAT(feed.card.calls(), IsEmpty());
    EXPECT_THAT(feed.card.stores(), IsEmpty());
}

TEST(FeedStart, LogsEverythingUntilTheConfigurationSaysOtherwise) {
    FeedFixture feed;
    feed.log_mask_before = 0;
    feed.config = config_text(feed.cpu(), "log_level = 1\nine2ps = no\nshfe2ps = no\n");
    EXPECT_EQ(feed.run(), -1);
    EXPECT_THAT(feed.log,
                ElementsAre(kVersionLine,
                            "I ConfigParse _LoadConfig read configure file: " + feed.config_path,
                            "E ExanicMdImpl vorn_recv all SHFE and INE are disabled"));
}

// --- The configuration refuses.

struct ConfigCase {
    const char* name;
    const char* config; // null: no file
    std::vector<std::string> log;
};

class FeedStartConfig : public testing::TestWithParam<ConfigCase> {};

TEST_P(FeedStartConfig, FailsBeforeTheCardIsTouched) {
    const ConfigCase& row = GetParam();
    FeedFixture feed;
    feed.config = row.config == nullptr ? "" : row.config;
    feed.keep_running = 7;
    EXPECT_EQ(feed.run(), -1);
    std::vector<std::string> expected = {
        kVersionLine, "I ConfigParse _LoadConfig read configure file: " + feed.config_path};
    for (std::string line : row.log) {
        if (line.back() == ' ') {
            line += feed.config_path;
        }
        expected.push_back(line);
    }
    expected.emplace_back("E ExanicMdImpl vorn_recv failed to initialize config data");
    EXPECT_THAT(feed.log, ElementsAreArray(expected));
    EXPECT_THAT(feed.card.calls(), IsEmpty());
    EXPECT_THAT(feed.card.stores(), IsEmpty());
    EXPECT_EQ(feed.keep_running, 7) << "the run flag is read, never written";
}

INSTANTIATE_TEST_SUITE_P(
    Files, FeedStartConfig,
    testing::Values(
        ConfigCase{"Missing", nullptr, {"E ConfigParse _LoadConfig unable to open config file: "}},
        ConfigCase{
            "NoDevice", "[config]\ninsts = all\n", {"E ConfigParse InitConfig null device name"}},
        ConfigCase{"NoInstruments",
                   "[config]\ndevice = exanic0\n",
                   {"E ConfigParse InitConfig no subscribed instrument"}}),
    [](const auto& row) { return std::string(row.param.name); });

// --- The card refuses.

struct CardCase {
    const char* name;
    Call call;
    int port;
    const char* message;
    std::vector<std::string> calls;
};

class FeedStartCard : public testing::TestWithParam<CardCase> {};

TEST_P(FeedStartCard, FailsAndReleasesNothing) {
    const CardCase& row = GetParam();
    FeedFixture feed;
    feed.card.fail(row.call, "Permission denied", row.port);
    EXPECT_EQ(feed.run(), -1);
    EXPECT_THAT(feed.log,
                ElementsAre(kVersionLine,
                            "I ConfigParse _LoadConfig read configure file: " + feed.config_path,
                            "I ExanicDevFunc _BindCpu set CPU[" + std::to_string(feed.cpu()) +
                                "] affinity successful",
                            std::string("E ExanicDevFunc InitDev get [exanic0] ") + row.message +
                                " failed, Permission denied",
                            "E ExanicMdImpl vorn_recv failed to initialize network device"));
    EXPECT_EQ(feed.card.calls(), row.calls);
    EXPECT_THAT(feed.card.stores(), IsEmpty());
    EXPECT_EQ(feed.card.polls(0) + feed.card.polls(1), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, FeedStartCard,
    testing::Values(
        CardCase{"Handle", Call::kAcquireHandle, -1, "handle", {"acquire_handle exanic0"}},
        CardCase{"Registers", Call::kRegisters, -1, "registers", {"acquire_handle exanic0"}},
        CardCase{"TcpRing",
                 Call::kRxBuffer,
                 1,
                 "tcp rx buffer",
                 {"acquire_handle exanic0", "acquire_rx 1 0"}},
        CardCase{"UdpRing",
                 Call::kRxBuffer,
                 0,
                 "udp rx buffer",
                 {"acquire_handle exanic0", "acquire_rx 1 0", "acquire_rx 0 0"}}),
    [](const auto& row) { return std::string(row.param.name); });

// --- No feed.

TEST(FeedStart, WithoutAnEnabledFeedFailsAndKeepsTheCard) {
    for (const char* const switches :
         {"shfe2ps = no\nine2ps = no\n", "shfe2ps =\nine2ps = 1\nshfe4ps = enabled\n"
                                         "ine4ps = enabled\n"}) {
        FeedFixture feed;
        feed.config = config_text(feed.cpu(), switches);
        EXPECT_EQ(feed.run(), -1);
        EXPECT_THAT(feed.log_at("EW"),
                    ElementsAre("E ExanicMdImpl vorn_recv all SHFE and INE are disabled"));
        EXPECT_EQ(feed.log.back(), "E ExanicMdImpl vorn_recv all SHFE and INE are disabled");
        EXPECT_THAT(feed.card.calls(),
                    ElementsAre("acquire_handle exanic0", "acquire_rx 1 0", "acquire_rx 0 0"));
        support::expect_stores(feed.card.stores(), support::bring_up_stores({}, 1));
        EXPECT_EQ(feed.card.polls(0), 0U) << "no data path is opened, nothing is polled";
    }
}

TEST(FeedStart, MayBeTriedAgainInTheSameProcess) {
    FeedFixture feed;
    feed.card.fail(Call::kAcquireHandle, "Device busy");
    EXPECT_EQ(feed.run(), -1);
    feed.card.fail(Call::kAcquireHandle, "");
    feed.cycles = {{{}, snapshot_frames(kShfe, {rebar()}), {}}};
    feed.config = shfe_config(feed.cpu());
    EXPECT_EQ(feed.run(), 0);
}

} // namespace
