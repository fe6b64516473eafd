// The parameters: keys, conversions, defaults, errors.

#include "config/ConfigParse.h"
#include "config_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;

TEST(ConfigRecord, IsEmptyUntilItIsFilled) {
    const ExanicMdConfigData data{};
    EXPECT_EQ(describe(data),
              "device=\ninsts=\nshfe2ps_ip_a=\nshfe2ps_ip_b=\nshfe4ps_ip_a=\nshfe4ps_ip_b=\n"
              "ine2ps_ip_b=\nine2ps_ip_a=\nine4ps_ip_b=\nine4ps_ip_a=\ntotal_listen_cnt=0\n"
              "shfe2ps_topic_id=0\nshfe4ps_topic_id=0\nine2ps_topic_id=0\nine4ps_topic_id=0\n"
              "md2ps_snap_port=0\nmd4ps_snap_port=0\ncpucore=0\ntimeout_cnt=0\nrecvall=0\n"
              "options=0\nsplit_all_field=0\nshield_price_check=0\nshfe2ps=0\nshfe4ps=0\n"
              "ine2ps=0\nine4ps=0\nrecovery=0\n");
}

TEST(ConfigParse, GivesEveryAbsentKeyItsDefault) {
    const Loaded loaded = load("[config]\ndevice = exanic0\ninsts = all\n");
    EXPECT_EQ(loaded.result, 0);
    EXPECT_EQ(describe(loaded.data), describe(default_data()));
    EXPECT_EQ(loaded.mask, 7);
}

TEST(ConfigParse, WritesEveryFieldButThe4psSwitches) {
    const support::TempDir dir;
    const std::string path = dir.write("feed.ini", "[config]\ndevice = exanic0\ninsts = all\n");
    ExanicMdConfigData data{};
    for (std::string ExanicMdConfigData::*text :
         {&ExanicMdConfigData::device, &ExanicMdConfigData::insts,
          &ExanicMdConfigData::shfe2ps_ip_a, &ExanicMdConfigData::shfe2ps_ip_b,
          &ExanicMdConfigData::shfe4ps_ip_a, &ExanicMdConfigData::shfe4ps_ip_b,
          &ExanicMdConfigData::ine2ps_ip_a, &ExanicMdConfigData::ine2ps_ip_b,
          &ExanicMdConfigData::ine4ps_ip_a, &ExanicMdConfigData::ine4ps_ip_b}) {
        data.*text = "stale";
    }
    data.listen_insts = {"stale", "stale too"};
    data.total_listen_cnt = 77;
    data.shfe2ps_topic_id = data.shfe4ps_topic_id = data.ine2ps_topic_id = data.ine4ps_topic_id =
        77;
    data.md2ps_snap_port = data.md4ps_snap_port = 77;
    data.cpucore = data.timeout_cnt = 77;
    data.recvall = data.options = data.split_all_field = 77;
    data.shield_price_check = data.shfe2ps = data.ine2ps = true;
    data.shfe4ps = data.ine4ps = data.recovery = true;

    const support::LogCapture capture;
    EXPECT_EQ(CConfigParse(data).InitConfig(path), 0);

    ExanicMdConfigData expected = default_data();
    expected.shfe4ps = expected.ine4ps = true;
    EXPECT_EQ(describe(data), describe(expected));
}

// A test name made of the row's text; the index keeps equal ones apart.
std::string name_of(const std::string& text, std::size_t index) {
    std::string name = "Row" + std::to_string(index) + "_";
    for (const char c : text) {
        const bool allowed =
            (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        name.push_back(allowed ? c : '_');
    }
    return name;
}

// --- Single keys: what one line changes, and that it changes nothing else.

struct KeyCase {
    std::string line;
    std::function<void(ExanicMdConfigData&)> change;
};

class ConfigKey : public testing::TestWithParam<KeyCase> {};

TEST_P(ConfigKey, ChangesItsFieldAndNothingElse) {
    const Loaded loaded = load_with(GetParam().line + "\n");
    ExanicMdConfigData expected = default_data();
    GetParam().change(expected);
    EXPECT_EQ(describe(loaded.data), describe(expected)) << GetParam().line;
    EXPECT_EQ(loaded.result, 0) << GetParam().line;
}

using Data = ExanicMdConfigData;
#define SETS(field, value) [](Data& data) { data.field = value; }

// clang-format off
const std::vector<KeyCase> kTextKeys = {
    {"device = exanic7",                SETS(device, "exanic7")},
    {"device = a name with blanks",     SETS(device, "a name with blanks")},
    {"shfe2ps_ip_a = 1.2.3.4:5",        SETS(shfe2ps_ip_a, "1.2.3.4:5")},
    {"shfe2ps_ip_b = 1.2.3.4:6",        SETS(shfe2ps_ip_b, "1.2.3.4:6")},
    {"shfe4ps_ip_a = 1.2.3.4:7",        SETS(shfe4ps_ip_a, "1.2.3.4:7")},
    {"shfe4ps_ip_b = 1.2.3.4:8",        SETS(shfe4ps_ip_b, "1.2.3.4:8")},
    {"ine2ps_ip_a = 1.2.3.4:9",         SETS(ine2ps_ip_a, "1.2.3.4:9")},
    {"ine2ps_ip_b = 1.2.3.4:10",        SETS(ine2ps_ip_b, "1.2.3.4:10")},
    {"ine4ps_ip_a = 1.2.3.4:11",        SETS(ine4ps_ip_a, "1.2.3.4:11")},
    {"ine4ps_ip_b = 1.2.3.4:12",        SETS(ine4ps_ip_b, "1.2.3.4:12")},
    {"ine4ps_ip_b = not an address",    SETS(ine4ps_ip_b, "not an address")},
    {"shfe2ps_ip_a =",                  SETS(shfe2ps_ip_a, "")},
};
const std::vector<KeyCase> kNumberKeys = {
    {"shfe2ps_topic_id = 1",            SETS(shfe2ps_topic_id, 1)},
    {"shfe4ps_topic_id = 2",            SETS(shfe4ps_topic_id, 2)},
    {"ine2ps_topic_id = 3",             SETS(ine2ps_topic_id, 3)},
    {"ine4ps_topic_id = 4",             SETS(ine4ps_topic_id, 4)},
    {"md2ps_snap_port = 5",             SETS(md2ps_snap_port, 5)},
    {"md4ps_snap_port = 6",             SETS(md4ps_snap_port, 6)},
    {"cpucore = 7",                     SETS(cpucore, 7)},
    {"timeout_cnt = 8",                 SETS(timeout_cnt, 8)},
    {"split_all_field = 9",             SETS(split_all_field, 9)},
    // An empty value is present: no default, and no digits give 0.
    {"timeout_cnt =",                   SETS(timeout_cnt, 0)},
    {"shfe2ps_topic_id =",              SETS(shfe2ps_topic_id, 0)},
    {"md2ps_snap_port =",               SETS(md2ps_snap_port, 0)},
    {"split_all_field =",               SETS(split_all_field, 0)},
    // As far as the digits go.
    {"timeout_cnt = 12 periods",        SETS(timeout_cnt, 12)},
    {"timeout_cnt = 1 2",               SETS(timeout_cnt, 1)},
    {"timeout_cnt = 3.9",               SETS(timeout_cnt, 3)},
    {"timeout_cnt = 0x10",              SETS(timeout_cnt, 0)},
    {"timeout_cnt = 010",               SETS(timeout_cnt, 10)},
    {"timeout_cnt = +5",                SETS(timeout_cnt, 5)},
    {"timeout_cnt = -5",                SETS(timeout_cnt, -5)},
    {"timeout_cnt = --5",               SETS(timeout_cnt, 0)},
    {"timeout_cnt = - 5",               SETS(timeout_cnt, 0)},
    {"timeout_cnt = ten",               SETS(timeout_cnt, 0)},
    {"timeout_cnt = \v\f 6",            SETS(timeout_cnt, 6)},
    // Cut to the width of the field.
    {"md2ps_snap_port = 65535",         SETS(md2ps_snap_port, 65535)},
    {"md2ps_snap_port = 65536",         SETS(md2ps_snap_port, 0)},
    {"md2ps_snap_port = 70000",         SETS(md2ps_snap_port, 4464)},
    {"md4ps_snap_port = -1",            SETS(md4ps_snap_port, 65535)},
    {"shfe2ps_topic_id = 32767",        SETS(shfe2ps_topic_id, 32767)},
    {"shfe2ps_topic_id = 32768",        SETS(shfe2ps_topic_id, -32768)},
    {"ine2ps_topic_id = 65535",         SETS(ine2ps_topic_id, -1)},
    {"cpucore = 40000",                 SETS(cpucore, -25536)},
    {"cpucore = -1",                    SETS(cpucore, -1)},
    {"timeout_cnt = 65536",             SETS(timeout_cnt, 0)},
    {"split_all_field = 127",           SETS(split_all_field, 127)},
    {"split_all_field = 128",           SETS(split_all_field, -128)},
    {"split_all_field = 255",           SETS(split_all_field, -1)},
    {"split_all_field = 300",           SETS(split_all_field, 44)},
    {"split_all_field = -1",            SETS(split_all_field, -1)},
    // Beyond any integer: the nearest one, then cut.
    {"timeout_cnt = 99999999999999999999",  SETS(timeout_cnt, -1)},
    {"timeout_cnt = -99999999999999999999", SETS(timeout_cnt, 0)},
};
const std::vector<KeyCase> kSwitchKeys = {
    {"options = norecv",                SETS(options, 0)},
    {"options = Norecv",                SETS(options, 1)},
    {"options = norecv please",         SETS(options, 1)},
    {"options = recv",                  SETS(options, 1)},
    {"options =",                       SETS(options, 1)},
    {"shfe2ps = enabled",               SETS(shfe2ps, true)},
    {"shfe2ps = Enabled",               SETS(shfe2ps, false)},
    {"shfe2ps = enable",                SETS(shfe2ps, false)},
    {"shfe2ps = 1",                     SETS(shfe2ps, false)},
    {"shfe2ps =",                       SETS(shfe2ps, false)},
    {"ine2ps = enabled",                SETS(ine2ps, true)},
    {"ine2ps = true",                   SETS(ine2ps, false)},
    {"recovery = enabled",              SETS(recovery, true)},
    {"recovery = Enabled",              SETS(recovery, false)},
    {"recovery = 1",                    SETS(recovery, false)},
    {"recovery =",                      SETS(recovery, false)},
    // No key switches the 4PS feeds on.
    {"shfe4ps = enabled",               [](Data&) {}},
    {"ine4ps = enabled",                [](Data&) {}},
    {"shield_price_check = 1",          SETS(shield_price_check, true)},
    {"shield_price_check =  1",         SETS(shield_price_check, true)},
    {"shield_price_check = 1st",        SETS(shield_price_check, true)},
    {"shield_price_check = 01",         SETS(shield_price_check, true)},
    {"shield_price_check = 0",          SETS(shield_price_check, false)},
    {"shield_price_check = 2",          SETS(shield_price_check, false)},
    {"shield_price_check = -1",         SETS(shield_price_check, false)},
    {"shield_price_check = yes",        SETS(shield_price_check, false)},
    {"shield_price_check = true",       SETS(shield_price_check, false)},
    {"shield_price_check =",            SETS(shield_price_check, false)},
    {"recvall = 0",                     [](Data&) {}},
    {"an unknown key = 5",              [](Data&) {}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Text, ConfigKey, testing::ValuesIn(kTextKeys),
                         [](const auto& row) { return name_of(row.param.line, row.index); });
INSTANTIATE_TEST_SUITE_P(Number, ConfigKey, testing::ValuesIn(kNumberKeys),
                         [](const auto& row) { return name_of(row.param.line, row.index); });
INSTANTIATE_TEST_SUITE_P(Switch, ConfigKey, testing::ValuesIn(kSwitchKeys),
                         [](const auto& row) { return name_of(row.param.line, row.index); });

// --- The subscription.

struct InstsCase {
    std::string value;
    int8_t recvall;
    std::vector<std::string> items;
};

class ConfigInsts : public testing::TestWithParam<InstsCase> {};

TEST_P(ConfigInsts, IsSplitTrimmedAndCounted) {
    const InstsCase& row = GetParam();
    const Loaded loaded = load_with("insts = " + row.value + "\n");
    ExanicMdConfigData expected = default_data();
    expected.insts = row.value;
    expected.recvall = row.recvall;
    expected.listen_insts = row.items;
    expected.total_listen_cnt = static_cast<uint32_t>(row.items.size());
    EXPECT_EQ(describe(loaded.data), describe(expected)) << row.value;
    EXPECT_EQ(loaded.result, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Subscriptions, ConfigInsts,
    testing::Values(InstsCase{"all", 1, {"all"}}, InstsCase{"ALL", 0, {"ALL"}},
                    InstsCase{"all,", 0, {"all"}}, InstsCase{"all,rb2601", 0, {"all", "rb2601"}},
                    InstsCase{"rb2601", 0, {"rb2601"}},
                    InstsCase{"rb2601,, ag2602 ,,", 0, {"rb2601", "ag2602"}},
                    InstsCase{"rb2601, ,ag2602,,", 0, {"rb2601", "ag2602"}},
                    InstsCase{",\t,rb2601\t,\tag2602", 0, {"rb2601", "ag2602"}},
                    InstsCase{"b,a,b", 0, {"b", "a", "b"}},
                    InstsCase{"cu2601C70000, a name", 0, {"cu2601C70000", "a name"}},
                    InstsCase{"rb2601 ag2602", 0, {"rb2601 ag2602"}}),
    [](const auto& row) { return name_of(row.param.value, row.index); });

// --- The level mask.

struct LevelCase {
    std::string value;
    int mask;
};

class ConfigLogLevel : public testing::TestWithParam<LevelCase> {};

TEST_P(ConfigLogLevel, BecomesTheMaskOfTheLogger) {
    const Loaded loaded = load_with("log_level = " + GetParam().value + "\n");
    EXPECT_EQ(loaded.result, 0);
    EXPECT_EQ(loaded.mask, GetParam().mask);
    EXPECT_EQ(describe(loaded.data), describe(default_data()));
}

INSTANTIATE_TEST_SUITE_P(Levels, ConfigLogLevel,
                         testing::Values(LevelCase{"31", 31}, LevelCase{"0", 0}, LevelCase{"", 0},
                                         LevelCase{"debug", 0}, LevelCase{"1", 1},
                                         LevelCase{"-1", -1}, LevelCase{"15 and more", 15},
                                         LevelCase{"1024", 1024}),
                         [](const auto& row) { return name_of(row.param.value, row.index); });

TEST(ConfigLogLevelDefault, ReplacesAMaskSetBefore) {
    EXPECT_EQ(load("[config]\ndevice = x\ninsts = all\n", 16).mask, 7);
}

// --- What makes InitConfig fail.

TEST(ConfigParseFailure, OfAMissingFileTouchesNothing) {
    const support::TempDir dir;
    const std::string path = (dir.path() / "missing.ini").string();
    ExanicMdConfigData data{};
    data.device = "untouched";
    data.timeout_cnt = 42;
    data.listen_insts = {"untouched"};
    const std::string before = describe(data);
    const support::LogCapture capture(13);
    EXPECT_EQ(CConfigParse(data).InitConfig(path), -1);
    EXPECT_EQ(describe(data), before);
    EXPECT_THAT(capture.summary(),
                ElementsAre("I ConfigParse _LoadConfig read configure file: " + path,
                            "E ConfigParse _LoadConfig unable to open config file: " + path));
}

TEST(ConfigParseFailure, IsTheResultOfTheFileThatCannotBeRead) {
    const support::TempDir dir;
    ExanicMdConfigData data{};
    EXPECT_EQ(CConfigParse(data)._LoadConfig((dir.path() / "missing.ini").string()), -1);
}

TEST(ConfigParseFailure, OfAMissingFileLeavesTheMask) {
    ExanicMdConfigData data{};
    const support::LogCapture capture(13);
    EXPECT_EQ(CConfigParse(data).InitConfig("does/not/exist"), -1);
    EXPECT_EQ(load("", 13).mask, 7); // while a file that can be read sets it, even when it fails
}

TEST(ConfigParseFailure, OfAMissingDeviceLeavesTheRecordFilled) {
    const Loaded loaded = load("[config]\ninsts = all\n", 7);
    ExanicMdConfigData expected = default_data();
    expected.device = "";
    EXPECT_EQ(loaded.result, -1);
    EXPECT_EQ(describe(loaded.data), describe(expected));
    EXPECT_THAT(loaded.log,
                ElementsAre("I ConfigParse _LoadConfig read configure file: " + loaded.path,
                            "E ConfigParse InitConfig null device name"));
}

TEST(ConfigParseFailure, OfAMissingSubscriptionLeavesTheRecordFilled) {
    struct Row {
        std::string line;
        std::string value;
    };
    for (const Row& row :
         {Row{"", ""}, Row{"insts =\n", ""}, Row{"insts = , ,\t,,\n", ", ,\t,,"}}) {
        const Loaded loaded = load("[config]\ndevice = exanic0\n" + row.line, 7);
        ExanicMdConfigData expected = default_data();
        expected.insts = row.value;
        expected.recvall = 0;
        expected.listen_insts.clear();
        expected.total_listen_cnt = 0;
        EXPECT_EQ(loaded.result, -1);
        EXPECT_EQ(describe(loaded.data), describe(expected));
        EXPECT_THAT(loaded.log,
                    ElementsAre("I ConfigParse _LoadConfig read configure file: " + loaded.path,
                                "E ConfigParse InitConfig no subscribed instrument"));
    }
}

TEST(ConfigParseFailure, OfDeviceAndSubscriptionReportsTheDeviceOnly) {
    const Loaded loaded = load("", 7);
    EXPECT_EQ(loaded.result, -1);
    EXPECT_THAT(loaded.log,
                ElementsAre("I ConfigParse _LoadConfig read configure file: " + loaded.path,
                            "E ConfigParse InitConfig null device name"));
}

TEST(ConfigParseFailure, IsSilentWhenTheFileDisablesErrors) {
    const Loaded loaded = load("[config]\nlog_level = 0\n");
    EXPECT_EQ(loaded.result, -1);
    EXPECT_THAT(loaded.log,
                ElementsAre("I ConfigParse _LoadConfig read configure file: " + loaded.path));
}

TEST(ConfigParseFailure, OfReadingEndsTheFileLikeItsEnd) {
    const support::TempDir dir; // a directory can be opened for reading, but not read
    ExanicMdConfigData data{};
    const support::LogCapture capture(31);
    EXPECT_EQ(CConfigParse(data).InitConfig(dir.path().string()), -1);
    EXPECT_THAT(capture.summary(),
                ElementsAre("I ConfigParse _LoadConfig read configure file: " + dir.path().string(),
                            "E ConfigParse InitConfig null device name"));
}

} // namespace
