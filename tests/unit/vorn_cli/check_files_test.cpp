// Whole files, with all of their findings.

#include "check_support.h"
#include "tests/support/temp_dir.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>

using namespace vorn_cli;
using namespace vorn_cli_test;

namespace {

struct Expected {
    uint32_t line;
    const char* rule;
    const char* says;
};

struct FileCase {
    const char* name;
    std::string content;
    std::vector<Expected> findings;
};

// clang-format off
const std::vector<FileCase> kFileCases = {
    {"Empty", "", {{1, "empty-file", "does not start"}}},
    {"OnlyComments", "# nothing\n\n; here\n", {{1, "no-section", "begin with [config]"}}},
    {"NoSection", "device = card0\ninsts = all\n", {{1, "no-section", "put [config] above"}}},
    {"OtherSectionOnly", "[feed]\ndevice = card0\n",
     {{1, "foreign-section", "device below it"}, {1, "no-section", "put [config] above"}}},
    {"BlanksInBrackets", "[ config ]\ndevice = card0\ninsts = all\n",
     {{1, "section-name", "blanks inside its brackets"}}},
    {"SectionInCapitals", "\n[Config]\ndevice = card0\n", {{2, "section-name", "device below it: not read"}}},
    {"SectionMisspelt", "[confg]\ndevice = card0\n", {{1, "section-name", "write [config]"}}},
    {"SectionWithoutName", "[]\ndevice = card0\ninsts = all\n",
     {{1, "section-name", "device, insts below it: dropped"}}},
    {"UnterminatedFirst", "[config\ndevice = card0\n", {{1, "unterminated-header", "are dropped"}}},
    {"HeaderInOtherBrackets", "\xE3\x80\x90" "config\xE3\x80\x91\ndevice = card0\n",
     {{1, "not-ascii", "left black lenticular bracket"}}},
    {"KeysAboveSection", "# feed\ninsts = cu\nlog_level = 31\n[config]\ndevice = card0\ninsts = all\nshfe2ps = enabled\n",
     {{2, "key-outside-section", "insts, log_level stand above any section; the feed drops them"}}},
    {"SectionTwice", std::string(kGoodFile) + "timeout_cnt = 3\n[config]\ndevice = card0\ninsts = all\nshfe2ps = enabled\n",
     {{8, "repeated-section", "the feed discards what stood in it: cpucore (line 6), device (line 2), ine2ps (line 5), insts (line 3) and 2 more keys"}}},
    {"SectionTwiceAtOnce", "[config]\n" + std::string(kGoodFile), {{2, "repeated-section", "nothing stood in it yet"}}},
    {"KeyInOtherSection", std::string(kGoodFile) + "[log]\nlog_level = 31\n",
     {{7, "foreign-section", "log_level below it: not read"}}},
    {"KeyTwice", std::string(kGoodFile) + "insts = cu\n", {{7, "repeated-key", "insts again, after line 3"}}},
    {"TextBehindHeader", "[config] the feed\ndevice = card0\ninsts = all\nshfe2ps = enabled\n",
     {{1, "text-behind-header", "the feed ignores it"}}},
    {"KeyBehindHeader", "[config] device = card0\ninsts = all\nshfe2ps = enabled\n",
     {{1, "text-behind-header", "line of its own"}, {1, "no-device", "device is missing"}}},
    {"NothingButSection", "\n[config]\n",
     {{2, "no-feed", "all SHFE and INE are disabled"}, {2, "no-instruments", "insts is missing"},
      {2, "no-device", "null device name"}}},
    {"BothSwitchesOff", "[config]\ndevice = card0\ninsts = all\nine2ps = off\nshfe2ps = off\n",
     {{5, "no-feed", "does not start"}}},
    {"ByteOrderMark", "\xEF\xBB\xBF" + std::string(kGoodFile), {{1, "byte-order-mark", "save it as UTF-8 without one"}}},
    {"ByteOrderMarkAndComment", "\xEF\xBB\xBF# feed\n" + std::string(kGoodFile),
     {{1, "byte-order-mark", "skips the first line"}}},
    {"Utf16", std::string("\xFF\xFE[\0c\0o\0n\0f\0i\0g\0]\0", 18), {{1, "not-text", "UTF-16"}}},
    {"Binary", std::string("\x7F" "ELF\0\0\0\0\0\0\0\0\0\1\n\0\0\0", 18), {{1, "not-text", "binary"}}},
    {"OldMacLineEnds", "[config]\rdevice = card0\rinsts = all\r",
     {{1, "carriage-return", "one line"}, {1, "text-behind-header", "device = card0"},
      {1, "no-feed", ""}, {1, "no-instruments", ""}, {1, "no-device", ""}}},
    {"NulInValue", good_file_with(std::string("insts = al\0l", 12)), {{3, "control-character", "0x00"}}},
    {"LongLine", std::string(kGoodFile) + "# " + std::string(5000, 'x') + "\n", {{7, "long-line", "5002 bytes"}}},
    {"LongList", good_file_with("insts = " + std::string(3000, ',') + "cu"), {{3, "empty-item", "3000 empty items"}}},
    {"NoLineFeedAtEnd", "[config]\ndevice = card0\ninsts = all\nshfe2ps = on", {{4, "switch", "it is off"}, {4, "no-feed", ""}}},
    {"SecondSectionFirst", "[log]\nlevel = 3\n" + std::string(kGoodFile), {{1, "foreign-section", "level below it"}}},
};
// clang-format on

class CheckFile : public testing::TestWithParam<FileCase> {};

TEST_P(CheckFile, HasTheseFindings) {
    const FileCase& row = GetParam();
    const Findings findings = check(row.content);
    ASSERT_EQ(findings.size(), row.findings.size()) << to_text(findings);
    for (std::size_t i = 0; i < findings.size(); ++i) {
        EXPECT_EQ(findings[i].line, row.findings[i].line) << to_text(findings);
        EXPECT_EQ(findings[i].rule, row.findings[i].rule) << to_text(findings);
        EXPECT_NE(findings[i].text().find(row.findings[i].says), std::string::npos)
            << to_text(findings);
    }
}

INSTANTIATE_TEST_SUITE_P(Files, CheckFile, testing::ValuesIn(kFileCases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(CheckFiles, TheGoodFileHasNoFinding) {
    EXPECT_EQ(to_text(check(kGoodFile)), "");
}

TEST(CheckFiles, TheSampleHasNoFinding) {
    const std::string sample = support::read_file(VORN_SAMPLE_INI);
    ASSERT_FALSE(sample.empty());
    EXPECT_EQ(to_text(check(sample)), "");
}

TEST(CheckFiles, TheSampleNamesEveryKeyWithItsDefault) {
    const IniFile sample = read_ini(support::read_file(VORN_SAMPLE_INI));
    for (const KeyInfo& key : known_keys()) {
        const IniEntry* const entry = sample.find(key.name);
        ASSERT_NE(entry, nullptr) << key.name;
        if (key.kind == KeyKind::kAddress || (key.kind == KeyKind::kNumber && *key.default_text)) {
            EXPECT_EQ(entry->value, key.default_text) << key.name;
        }
    }
}

TEST(CheckFiles, FindingsComeInTheOrderOfTheLines) {
    const Findings findings = check("[config]\nlog_level = 0\nfoo = 1\ndevice = absent\n"
                                    "insts = ALL\nshfe2ps = 1\ncpucore = 9\n");
    EXPECT_GE(findings.size(), 6u);
    for (std::size_t i = 1; i < findings.size(); ++i) {
        EXPECT_LE(findings[i - 1].line, findings[i].line);
    }
}

TEST(CheckFiles, ADamagedSampleIsReportedWithinItsLines) {
    const std::string sample = support::read_file(VORN_SAMPLE_INI);
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int i = 0; i < 2000 && !testing::Test::HasFailure(); ++i) {
        std::string content = sample;
        for (int n = static_cast<int>(random() % 30); n >= 0 && !content.empty(); --n) {
            const std::size_t at = random() % content.size();
            switch (random() % 4) {
            case 0:
                content[at] = static_cast<char>(random());
                break;
            case 1:
                content.erase(at, random() % 40);
                break;
            case 2:
                content.insert(at, 1, static_cast<char>(random()));
                break;
            default:
                content.insert(at, content.substr(random() % content.size(), 60));
                break;
            }
        }
        const auto lines = static_cast<uint32_t>(read_ini(content).lines.size());
        for (const Finding& finding : check(content)) {
            EXPECT_GE(finding.line, 1u);
            EXPECT_LE(finding.line, std::max(lines, 1u));
            EXPECT_FALSE(finding.what.empty());
            EXPECT_FALSE(finding.effect.empty()) << finding.what;
        }
    }
}

TEST(CheckFiles, AHostileFileIsReportedInPrintableText) {
    const Findings findings = check(good_file_with("\x1b[2J\x07 = \x1b]0;x") + "\n\x7f\n");
    ASSERT_FALSE(findings.empty());
    for (const Finding& finding : findings) {
        for (const char c : finding.text()) {
            EXPECT_GE(static_cast<unsigned char>(c), 0x20) << finding.rule;
        }
    }
}

} // namespace
