#include "exchange_sim/session_options.h"

#include <gtest/gtest.h>

namespace exchange_sim {
namespace {

TEST(SessionOptions, EmptyTextGivesTheDefaults) {
    const ParsedOptions parsed = parse_session_options("  # nothing but a remark\n");
    ASSERT_TRUE(parsed.ok()) << parsed.error;
    EXPECT_EQ(parsed.options.seed, 1u);
    EXPECT_EQ(parsed.options.instruments, 400u);
    EXPECT_EQ(parsed.options.changes, 1'000'000u);
    EXPECT_EQ(parsed.options.shfe.line_a, (wirekit::Endpoint{0xEF042A48, 21000}));
    EXPECT_EQ(parsed.options.shfe.line_b, (wirekit::Endpoint{0xEF032A47, 21000}));
    EXPECT_EQ(parsed.options.ine.line_a, (wirekit::Endpoint{0xEF033447, 25000}));
    EXPECT_EQ(parsed.options.ine.line_b, (wirekit::Endpoint{0xEF043448, 25000}));
}

TEST(SessionOptions, PairsAreSeparatedByBlanksCommasSemicolonsAndLines) {
    const ParsedOptions parsed =
        parse_session_options("seed=7,instruments=20\nrate=5000 # per second, seed=9\n;lines=b"
                              "\tfeeds=shfe shfe2ps_ip_a=239.1.2.3:21001 first_round_ms=1.5");
    ASSERT_TRUE(parsed.ok()) << parsed.error;
    EXPECT_EQ(parsed.options.seed, 7u);
    EXPECT_EQ(parsed.options.instruments, 20u);
    EXPECT_EQ(parsed.options.rate, 5000u);
    EXPECT_EQ(parsed.options.lines, Lines::kB);
    EXPECT_EQ(parsed.options.feeds, Feeds::kShfe);
    EXPECT_EQ(parsed.options.shfe.line_a, (wirekit::Endpoint{0xEF010203, 21001}));
    EXPECT_EQ(parsed.options.first_round_ns, 1'500'000u);
}

TEST(SessionOptions, MapsAreTakenLikeText) {
    const ParsedOptions parsed = parse_session_options(
        std::map<std::string, std::string>{{"seed", "3"}, {"start", "21:00:01"}, {"rounds", "2"}});
    ASSERT_TRUE(parsed.ok()) << parsed.error;
    EXPECT_EQ(parsed.options.seed, 3u);
    EXPECT_EQ(parsed.options.start_second, 75601u);
    EXPECT_EQ(parsed.options.rounds, 2u);
    EXPECT_FALSE(parse_session_options(std::map<std::string, std::string>{{"sede", "3"}}).ok());
}

TEST(SessionOptions, SecondsAloneLiftTheBoundOnChanges) {
    EXPECT_EQ(parse_session_options("seconds=2.5").options.changes, 0u);
    EXPECT_EQ(parse_session_options("seconds=2.5").options.seconds_ns, 2'500'000'000u);
    EXPECT_EQ(parse_session_options("seconds=2.5 changes=10").options.changes, 10u);
}

struct RefusedCase {
    const char* text;
    const char* why;
};

const RefusedCase kRefused[] = {
    {"seed", "no value"},
    {"seed=", "no number"},
    {"seed=-1", "below zero"},
    {"seed=1x", "something behind the number"},
    {"seed=18446744073709551616", "beyond 64 bits"},
    {"instruments=0", "none"},
    {"instruments=1", "two feeds need two"},
    {"instruments=20481", "more than there are numbers"},
    {"feeds=ine instruments=4097", "more than INE has numbers"},
    {"options_percent=60 spreads_percent=50", "more than all"},
    {"feeds=none", "no such choice"},
    {"lines=c", "no such choice"},
    {"rate=0", "nothing would happen"},
    {"seconds=1.0000000001", "finer than a nanosecond"},
    {"seconds=1.x", "no decimal"},
    {"date=20260230", "no such day"},
    {"date=20261301", "no such month"},
    {"start=24:00:00", "no such hour"},
    {"start=9:00:00", "hours have two digits"},
    {"shfe2ps_ip_a=239.1.2:1", "three parts"},
    {"shfe2ps_ip_a=239.1.2.3.4:1", "five parts"},
    {"shfe2ps_ip_a=239.1.2.256:1", "no byte"},
    {"shfe2ps_ip_a=239.1.2.3", "no port"},
    {"shfe2ps_ip_a=239.1.2.3:0", "no such port"},
    {"shfe2ps_topic_id=32768", "topics are signed 16-bit numbers"},
    {"shfe2ps_topic_id=5000", "INE's topic"},
    {"ine_client_port=50001", "SHFE's port"},
};

TEST(SessionOptions, RefusesWhatItCannotMeanAndSaysSo) {
    for (const RefusedCase& refused : kRefused) {
        EXPECT_FALSE(parse_session_options(refused.text).ok())
            << refused.text << ": " << refused.why;
    }
}

TEST(SessionOptions, ErrorsListTheKnownKeys) {
    const std::string unknown = parse_session_options("sede=1").error;
    EXPECT_NE(unknown.find("unknown key 'sede'"), std::string::npos) << unknown;
    EXPECT_NE(unknown.find("instruments"), std::string::npos);
    const std::string bad = parse_session_options("rate=fast").error;
    EXPECT_NE(bad.find("'fast'"), std::string::npos) << bad;
    EXPECT_NE(bad.find("known keys: seed"), std::string::npos);
    EXPECT_NE(session_options_help().find("md2ps_snap_port"), std::string::npos);
}

TEST(SessionOptions, MidnightIsTheExchanges) {
    SessionOptions options;
    EXPECT_EQ(session_midnight(options), 1768406400); // 2026-01-14 16:00:00 UTC
    options.date = 20000101;
    EXPECT_EQ(session_midnight(options), 946656000);
    options.date = 20240229;
    EXPECT_EQ(session_midnight(options), 1709136000);
}

} // namespace
} // namespace exchange_sim
