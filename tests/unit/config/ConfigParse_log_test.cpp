// What InitConfig writes to the log, byte for byte.

#include "config/ConfigParse.h"
#include "config_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::ElementsAre;

std::string read_line(const Loaded& loaded) {
    return "I ConfigParse _LoadConfig read configure file: " + loaded.path;
}

constexpr char kEveryKey[] = "[config]\n"
                             "device = exanic3\n"
                             "insts = rb2601, ag2602\n"
                             "shfe2ps_ip_a = 10.0.0.1:1\n"
                             "shfe2ps_ip_b = 10.0.0.2:2\n"
                             "shfe4ps_ip_a = 10.0.0.3:3\n"
                             "shfe4ps_ip_b = 10.0.0.4:4\n"
                             "ine2ps_ip_a = 10.0.0.5:5\n"
                             "ine2ps_ip_b = 10.0.0.6:6\n"
                             "ine4ps_ip_a = 10.0.0.7:7\n"
                             "ine4ps_ip_b = 10.0.0.8:8\n"
                             "shfe2ps_topic_id = 11\n"
                             "shfe4ps_topic_id = -12\n"
                             "ine2ps_topic_id = 13\n"
                             "ine4ps_topic_id = 40000\n"
                             "md2ps_snap_port = 65535\n"
                             "md4ps_snap_port = 16\n"
                             "cpucore = -2\n"
                             "options = norecv\n"
                             "split_all_field = 200\n"
                             "shfe2ps = enabled\n"
                             "timeout_cnt = 21\n"
                             "shield_price_check = 1\n";

constexpr char kEveryKeyLine[] =
    "configure param: device: exanic3, insts: rb2601, ag2602,\n"
    "shfe2ps_ip_a: 10.0.0.1:1, shfe2ps_ip_b: 10.0.0.2:2, shfe4ps_ip_a: 10.0.0.3:3, "
    "shfe4ps_ip_b: 10.0.0.4:4,ine2ps_ip_b: 10.0.0.6:6, ine2ps_ip_a: 10.0.0.5:5, "
    "ine4ps_ip_b: 10.0.0.8:8, ine4ps_ip_a: 10.0.0.7:7,\n"
    "hfe2ps_topic_id: 11, hfe4ps_topic_id: -12, ne2ps_topic_id: 13, ne4ps_topic_id: -25536,"
    "md2ps_snap_port: 65535, md4ps_snap_port: 16, cpucore: -2, recvall: 0, options: 0, "
    "split_all_field: -56,\n"
    "shfe2ps: 1, shfe4ps: 0, ine2ps: 0, ine4ps: 0,timeout_cnt: 21, log_level: ";

TEST(ConfigLog, AtLevel8ShowsTheParametersAlone) {
    const Loaded loaded = load(std::string(kEveryKey) + "log_level = 8\n");
    EXPECT_EQ(loaded.result, 0);
    EXPECT_THAT(loaded.log, ElementsAre(read_line(loaded), "D ConfigParse InitConfig " +
                                                               std::string(kEveryKeyLine) + "8"));
}

TEST(ConfigLog, OfDefaultsShowsThemInTheSameOrder) {
    const Loaded loaded = load("[config]\ndevice = d\ninsts = all\nine2ps = enabled\n"
                               "log_level = 15\n");
    EXPECT_THAT(
        loaded.log,
        ElementsAre(
            read_line(loaded),
            "D ConfigParse InitConfig configure param: device: d, insts: all,\n"
            "shfe2ps_ip_a: 239.4.42.72:21000, shfe2ps_ip_b: 239.3.42.71:21000, "
            "shfe4ps_ip_a: 239.3.2.3:21101, shfe4ps_ip_b: 239.4.2.4:21101,"
            "ine2ps_ip_b: 239.4.52.72:25000, ine2ps_ip_a: 239.3.52.71:25000, "
            "ine4ps_ip_b: 239.3.151.91:25101, ine4ps_ip_a: 239.4.151.92:25101,\n"
            "hfe2ps_topic_id: 1000, hfe4ps_topic_id: 1101, ne2ps_topic_id: 5000, "
            "ne4ps_topic_id: 5101,md2ps_snap_port: 33022, md4ps_snap_port: 22000, cpucore: 0, "
            "recvall: 1, options: 1, split_all_field: 1,\n"
            "shfe2ps: 0, shfe4ps: 0, ine2ps: 1, ine4ps: 0,timeout_cnt: 10, log_level: 15"));
}

TEST(ConfigLog, AtLevel31ShowsOneLinePerInstrumentInOrder) {
    const Loaded loaded = load(std::string(kEveryKey) + "log_level = 31\n");
    EXPECT_THAT(loaded.log,
                ElementsAre(read_line(loaded),
                            "D ConfigParse InitConfig " + std::string(kEveryKeyLine) + "31",
                            "X ConfigParse InitConfig inst: rb2601",
                            "X ConfigParse InitConfig inst: ag2602"));
}

TEST(ConfigLog, AtLevel15ShowsNoInstruments) {
    const Loaded loaded = load(std::string(kEveryKey) + "log_level = 15\n");
    EXPECT_THAT(loaded.log, ElementsAre(read_line(loaded), "D ConfigParse InitConfig " +
                                                               std::string(kEveryKeyLine) + "15"));
}

TEST(ConfigLog, AtLevel16ShowsTheInstrumentsAlone) {
    const Loaded loaded = load(std::string(kEveryKey) + "log_level = 16\n");
    EXPECT_THAT(loaded.log, ElementsAre(read_line(loaded), "X ConfigParse InitConfig inst: rb2601",
                                        "X ConfigParse InitConfig inst: ag2602"));
}

TEST(ConfigLog, AtANegativeLevelShowsTheParametersButNoInstruments) {
    // All bits are set, but the number is not greater than 7.
    const Loaded loaded = load(std::string(kEveryKey) + "log_level = -1\n");
    EXPECT_THAT(loaded.log, ElementsAre(read_line(loaded), "D ConfigParse InitConfig " +
                                                               std::string(kEveryKeyLine) + "-1"));
}

TEST(ConfigLog, AtTheDefaultLevelShowsTheFileNameAlone) {
    const Loaded loaded = load(kEveryKey);
    EXPECT_THAT(loaded.log, ElementsAre(read_line(loaded)));
}

TEST(ConfigLog, ReportsFailuresBehindTheParameters) {
    const Loaded loaded = load("[config]\ninsts = a\nlog_level = 31\n");
    ASSERT_EQ(loaded.log.size(), 4U);
    EXPECT_EQ(loaded.log[2], "X ConfigParse InitConfig inst: a");
    EXPECT_EQ(loaded.log[3], "E ConfigParse InitConfig null device name");
}

TEST(ConfigLog, TakesNoValueForAFormat) {
    const Loaded loaded = load("[config]\ndevice = 100%n%s%d\ninsts = %s, %n%n\nlog_level = 31\n");
    ASSERT_EQ(loaded.log.size(), 4U);
    EXPECT_THAT(loaded.log[1], testing::HasSubstr("device: 100%n%s%d, insts: %s, %n%n,\nshfe2ps"));
    EXPECT_EQ(loaded.log[2], "X ConfigParse InitConfig inst: %s");
    EXPECT_EQ(loaded.log[3], "X ConfigParse InitConfig inst: %n%n");
}

TEST(ConfigLog, CutsAParameterLineOfMoreThan4095Bytes) {
    const std::string name(6000, 'i');
    const Loaded loaded = load("[config]\ndevice = x\ninsts = " + name + "\nlog_level = 31\n");
    EXPECT_EQ(loaded.result, 0);
    ASSERT_EQ(loaded.log.size(), 3U);
    const std::string origin = "D ConfigParse InitConfig ";
    const std::string start = "configure param: device: x, insts: ";
    EXPECT_EQ(loaded.log[1], origin + start + std::string(4095 - start.size(), 'i'));
    EXPECT_EQ(loaded.log[2], "X ConfigParse InitConfig inst: " +
                                 std::string(4095 - std::string("inst: ").size(), 'i'));
}

TEST(ConfigLog, IsFilteredByTheMaskSetBeforeUntilTheFileSetsItsOwn) {
    const Loaded loaded = load("[config]\ndevice = x\ninsts = a\nlog_level = 16\n", 1);
    EXPECT_THAT(loaded.log, ElementsAre("X ConfigParse InitConfig inst: a"));
}

TEST(ConfigLog, WithTheLevelOffAMissingFileFailsWithoutALine) {
    ExanicMdConfigData data;
    CConfigParse parser(data);
    const support::LogCapture capture(0);
    EXPECT_EQ(parser.InitConfig("/nowhere/vorn.ini"), -1);
    EXPECT_EQ(capture.text(), "");
}

} // namespace
