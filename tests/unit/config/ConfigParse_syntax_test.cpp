// The file's syntax: trimming, comments, sections, keys, and files that are no such thing.

#include "config/ConfigParse.h"
#include "config_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

// The device that a file yields; every file here is complete but for it.
std::string device_of(const std::string& content) {
    const Loaded loaded = load(content);
    EXPECT_EQ(loaded.result == 0, !loaded.data.device.empty() && !loaded.data.insts.empty());
    return loaded.data.device;
}

constexpr char kDefaultGroup[] = "239.4.42.72:21000";

struct SyntaxCase {
    const char* name;
    std::string content;
    std::string device;
};

class ConfigSyntax : public testing::TestWithParam<SyntaxCase> {};

TEST_P(ConfigSyntax, YieldsTheDevice) {
    EXPECT_EQ(device_of(GetParam().content), GetParam().device) << GetParam().content;
}

using namespace std::string_literals;

// clang-format off
const SyntaxCase kCases[] = {
    {"Plain", "[config]\ndevice=x\ninsts=all\n", "x"},
    {"NoNewlineAtTheEnd", "[config]\ninsts=all\ndevice=x", "x"},
    {"CarriageReturns", "[config]\r\ninsts = all\r\ndevice = x\r\n", "x"},
    {"OnlyCarriageReturns", "[config]\rinsts = all\rdevice = x\r", ""},
    {"BlanksAndTabs", " \t [config] \t\n\t insts \t=\t all \n \t device \t = \t x y \t \n", "x y"},
    {"CarriageReturnInside", "[config]\ninsts=all\ndevice=x\ry\n", "x\ry"},
    {"VerticalTabIsNoBlank", "[config]\ninsts=all\ndevice=\vx\v\n", "\vx\v"},
    {"EmptyLines", "\n\n[config]\n\n  \n\t\ninsts=all\n\r\ndevice=x\n\n", "x"},
    {"SemicolonRemark", "[config]\ninsts=all\ndevice = x ; the card\n", "x"},
    {"HashRemark", "[config]\ninsts=all\ndevice = x # the card\n", "x"},
    {"FirstMarkCounts", "[config]\ninsts=all\ndevice = x # a ; b\n", "x"},
    {"OtherFirstMarkCounts", "[config]\ninsts=all\ndevice = x ; a # b\n", "x"},
    {"MarkWithinTheValue", "[config]\ninsts=all\ndevice = x;y\n", "x"},
    {"ValueOfARemark", "[config]\ninsts=all\ndevice = #x\n", ""},
    {"RemarkBeforeEquals", "[config]\ninsts=all\ndevice ; = x\n", ""},
    {"WholeLineRemarks", "; a\n# b\n  ; c\n[config]\n;device=y\ninsts=all\n#device=z\ndevice=x\n", "x"},
    {"RemarkInHeader", "[config] ; the section\ninsts=all\ndevice=x\n", "x"},
    {"RemarkCutsHeader", "[config]\ninsts=all\n[oth;er]\ndevice=x\n", "x"},
    {"UnterminatedHeader", "[config]\ninsts=all\n[other\ndevice=x\n", "x"},
    {"UnterminatedFirstHeader", "[config\ninsts=all\ndevice=x\n", ""},
    {"UnterminatedHeaderWithEquals", "[config]\ninsts=all\n[device=x\n", ""},
    {"TextBehindHeader", "[config] device=y\ninsts=all\ndevice=x\n", "x"},
    {"TwoHeadersInALine", "[config][other]\ninsts=all\ndevice=x\n", "x"},
    {"BlanksInHeader", "[ config ]\ninsts=all\ndevice=x\n", ""},
    {"HeaderIsCaseSensitive", "[Config]\ninsts=all\ndevice=x\n", ""},
    {"KeyIsCaseSensitive", "[config]\ninsts=all\nDevice=x\n", ""},
    {"BracketInHeader", "[[config]\ninsts=all\ndevice=x\n", ""},
    {"BracketNotFirst", "[config]\ninsts=all\ndevice=[x]\n", "[x]"},
    {"OtherSection", "[other]\ninsts=all\ndevice=x\n", ""},
    {"OtherSectionBehind", "[config]\ninsts=all\ndevice=x\n[other]\ndevice=y\n", "x"},
    {"AboveAnyHeader", "device=x\n[config]\ninsts=all\n", ""},
    {"UnderTheEmptyHeader", "[config]\ninsts=all\n[]\ndevice=x\n", ""},
    {"EmptyHeaderKeepsTheOther", "[config]\ninsts=all\ndevice=x\n[]\ndevice=y\n", "x"},
    {"SecondHeaderDiscards", "[config]\ndevice=x\n[config]\ninsts=all\n", ""},
    {"SecondHeaderStartsOver", "[config]\ndevice=x\n[config]\ninsts=all\ndevice=y\n", "y"},
    {"ReturnToSectionDiscards", "[config]\ndevice=x\n[other]\na=b\n[config]\ninsts=all\n", ""},
    {"LastKeyWins", "[config]\ninsts=all\ndevice=x\ndevice=y\n", "y"},
    {"LastKeyWinsEvenEmpty", "[config]\ninsts=all\ndevice=x\ndevice=\n", ""},
    {"FurtherEqualsBelongToTheValue", "[config]\ninsts=all\ndevice=x=y==z\n", "x=y==z"},
    {"NoEquals", "[config]\ninsts=all\ndevice=x\ndevice y\n", "x"},
    {"EmptyKey", "[config]\ninsts=all\n=y\ndevice=x\n", "x"},
    {"KeyWithBlankInside", "[config]\ninsts=all\nde vice=x\n", ""},
    {"NoQuoting", "[config]\ninsts=all\ndevice=\"x ; y\"\n", "\"x"},
    {"NoContinuation", "[config]\ninsts=all\ndevice=x\\\ny\n", "x\\"},
    {"ByteOrderMark", "\xEF\xBB\xBF[config]\ninsts=all\ndevice=x\n", ""},
    {"NulIsACharacter", "[config]\ninsts=all\ndevice=x\0y\n"s, "x\0y"s},
    {"Empty", "", ""},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Files, ConfigSyntax, testing::ValuesIn(kCases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(ConfigSyntaxDefaults, ApplyToKeysThatAreNotSeen) {
    const Loaded loaded = load("shfe2ps_ip_a = 1.1.1.1:1\ntimeout_cnt = 3\n"
                               "[ config ]\nshfe2ps_ip_a = 2.2.2.2:2\ncpucore = 5\n"
                               "[config]\ndevice = exanic0\ninsts = all\n"
                               "[other]\nshfe2ps_ip_a = 3.3.3.3:3\n");
    EXPECT_EQ(describe(loaded.data), describe(default_data()));
    EXPECT_EQ(loaded.data.shfe2ps_ip_a, kDefaultGroup);
}

TEST(ConfigSyntaxDefaults, ApplyAgainAfterASecondHeader) {
    const Loaded loaded = load("[config]\nshfe2ps_ip_a = 1.1.1.1:1\nshfe2ps = enabled\n"
                               "timeout_cnt = 3\nlog_level = 31\n"
                               "[config]\ndevice = exanic0\ninsts = all\n");
    EXPECT_EQ(describe(loaded.data), describe(default_data()));
    EXPECT_EQ(loaded.mask, 7);
}

TEST(ConfigSyntax, SurvivesABinaryFile) {
    std::string content;
    uint32_t state = 20260818;
    for (int i = 0; i < 1 << 20; ++i) {
        state = state * 1664525U + 1013904223U;
        content.push_back(static_cast<char>(state >> 24));
    }
    EXPECT_EQ(load(content).result, -1);
    // Behind it a section is read as ever.
    const Loaded loaded = load(content + "\n[config]\ndevice = exanic0\ninsts = all\n");
    EXPECT_EQ(loaded.result, 0);
    EXPECT_EQ(describe(loaded.data), describe(default_data()));
}

TEST(ConfigSyntax, KeepsAVeryLongLineWhole) {
    const std::string name(std::size_t{8} << 20, 'x');
    const Loaded loaded = load("[config]\ninsts = all\ndevice = " + name + " ; " + name + "\n");
    EXPECT_EQ(loaded.result, 0);
    EXPECT_TRUE(loaded.data.device == name);
}

TEST(ConfigSyntax, TakesManySectionsAndKeys) {
    std::string content;
    for (int i = 0; i < 20000; ++i) {
        content += "[section" + std::to_string(i) + "]\nkey" + std::to_string(i) + " = value\n";
    }
    const Loaded loaded = load(content + "[config]\ndevice = exanic0\ninsts = all\n");
    EXPECT_EQ(describe(loaded.data), describe(default_data()));
}

// --- A second load into the same object.

TEST(ConfigReload, AddsToTheTable) {
    const support::TempDir dir;
    const std::string first =
        dir.write("first.ini", "[config]\ndevice = x\ninsts = all\ntimeout_cnt = 3\n");
    const std::string second = dir.write("second.ini", "[other]\ndevice = y\n");
    const support::LogCapture capture;
    ExanicMdConfigData data{};
    CConfigParse parse(data);
    EXPECT_EQ(parse.InitConfig(first), 0);
    EXPECT_EQ(parse.InitConfig(second), 0);
    ExanicMdConfigData expected = default_data();
    expected.device = "x";
    expected.timeout_cnt = 3;
    EXPECT_EQ(describe(data), describe(expected));
}

TEST(ConfigReload, StartsTheSectionOverAtItsHeader) {
    const support::TempDir dir;
    const std::string first = dir.write(
        "first.ini", "[config]\ndevice = x\ninsts = a,b\ntimeout_cnt = 3\nshfe2ps = enabled\n");
    const std::string second = dir.write("second.ini", "[config]\ndevice = exanic0\ninsts = all\n");
    const support::LogCapture capture;
    ExanicMdConfigData data{};
    CConfigParse parse(data);
    EXPECT_EQ(parse.InitConfig(first), 0);
    EXPECT_EQ(parse.InitConfig(second), 0);
    EXPECT_EQ(describe(data), describe(default_data()));
}

TEST(ConfigReload, StartsWithNoSectionCurrent) {
    const support::TempDir dir;
    const std::string first = dir.write("first.ini", "[config]\ndevice = x\ninsts = all\n");
    const std::string second = dir.write("second.ini", "device = y\n");
    const support::LogCapture capture;
    ExanicMdConfigData data{};
    CConfigParse parse(data);
    EXPECT_EQ(parse.InitConfig(first), 0);
    EXPECT_EQ(parse.InitConfig(second), 0);
    EXPECT_EQ(data.device, "x");
}

} // namespace
