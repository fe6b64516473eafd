// One surprising line in a good file: exactly one finding, at that line.

#include "check_support.h"

#include <gtest/gtest.h>

using namespace vorn_cli;
using namespace vorn_cli_test;

namespace {

constexpr Severity kError = Severity::kError;
constexpr Severity kWarning = Severity::kWarning;

struct LineCase {
    const char* name;
    const char* line_text; // see good_file_with()
    uint32_t line;
    Severity severity;
    const char* rule;
    const char* says; // part of the finding's text
};

// clang-format off
const LineCase kLineCases[] = {
    // keys
    {"UnknownKey",           "shfe2ps_topicid = 1000",  7, kError, "unknown-key", "did you mean shfe2ps_topic_id?"},
    {"KeyInCapitals",        "CPUCORE = 1",             7, kError, "unknown-key", "did you mean cpucore?"},
    {"KeyLikeNothing",       "hello_there = 1",         7, kError, "unknown-key", "the feed ignores it"},
    {"SwitchOfShfe4ps",      "shfe4ps = enabled",       7, kError, "4ps-switch", "no key switches a 4PS feed on"},
    {"SwitchOfIne4psOff",    "ine4ps = off",            7, kWarning, "4ps-switch", "it stays off"},
    {"NoEquals",             "device exanic0",          7, kError, "no-equals", "write device = exanic0"},
    {"ColonForEquals",       "insts: cu",               7, kError, "no-equals", "write insts = cu"},
    {"EmptyKey",             "= 5",                     7, kError, "empty-key", "never reads it"},
    {"UnterminatedHeader",   "[config",                 7, kError, "unterminated-header", "stay in [config]"},
    {"TrailingSection",      "[log]",                   7, kWarning, "foreign-section", "section [log]"},
    // switches
    {"SwitchInCapitals",     "shfe2ps = Enabled",       4, kError, "switch", "small letters"},
    {"SwitchTrue",           "ine2ps = true",           5, kError, "switch", "only the word enabled"},
    {"SwitchOne",            "shfe2ps = 1",             4, kError, "switch", "it is off"},
    {"RecoveryOne",          "recovery = 1",            7, kError, "switch", "switches recovery on; it is off"},
    {"RecoveryEmpty",        "recovery =",              7, kWarning, "switch", "recovery is off"},
    {"SwitchEmpty",          "shfe2ps =",               4, kWarning, "switch", "no value"},
    // values in general
    {"Quotes",               "device = \"card0\"",      2, kError, "quoted-value", "write device = card0"},
    {"DoubledEquals",        "insts == all",            3, kError, "doubled-equals", "one '='"},
    {"Variable",             "device = $CARD",          2, kError, "variable", "no variables"},
    {"HashInValue",          "device = card#0",         2, kError, "cut-value", "the value is \"card\""},
    {"SemicolonInList",      "insts = cu2603;al2603",   3, kError, "cut-value", "separate items with commas"},
    {"SemicolonAndBlanks",   "insts = cu2603 ; al2603", 3, kError, "cut-value", "separate items with commas"},
    // numbers
    {"EmptyNumber",          "timeout_cnt =",           7, kError, "empty-number", "not as the default 10"},
    {"EmptyZeroDefault",     "shield_price_check =",    7, kWarning, "empty-number", "counts as 0"},
    {"NoDigits",             "md2ps_snap_port = std",   7, kError, "not-a-number", "counts as 0"},
    {"Hexadecimal",          "md2ps_snap_port = 0x80FE", 7, kError, "trailing-text", "as far as the digits go: 0"},
    {"Unit",                 "timeout_cnt = 20min",     7, kError, "trailing-text", "as far as the digits go: 20"},
    {"TwoCpus",              "cpucore = 1,3",           6, kError, "trailing-text", "\",3\""},
    {"PortTruncated",        "md2ps_snap_port = 70000", 7, kError, "out-of-range", "becomes 4464"},
    {"PortNegative",         "md4ps_snap_port = -1",    7, kError, "out-of-range", "becomes 65535"},
    {"PortZero",             "md2ps_snap_port = 0",     7, kError, "out-of-range", "no snapshot comes from that port"},
    {"HugeNumber",           "timeout_cnt = 99999999999999999999", 7, kError, "out-of-range", "becomes -1"},
    {"TopicZero",            "shfe2ps_topic_id = 0",    7, kError, "out-of-range", "never found"},
    {"TopicNegative",        "ine2ps_topic_id = -5",    7, kError, "out-of-range", "never found"},
    {"TopicTruncated",       "ine2ps_topic_id = 40000", 7, kError, "out-of-range", "becomes -25536"},
    {"TimeoutZero",          "timeout_cnt = 0",         7, kError, "out-of-range", "one period of 120 seconds"},
    {"TimeoutNegative",      "timeout_cnt = -3",        7, kError, "out-of-range", "one period of 120 seconds"},
    {"TimeoutTruncated",     "timeout_cnt = 32768",     7, kError, "out-of-range", "becomes -32768"},
    {"TimeoutInSeconds",     "timeout_cnt = 1200",      7, kWarning, "long-timeout", "40 hours"},
    {"PriceCheckTwo",        "shield_price_check = 2",  7, kError, "out-of-range", "thrown away"},
    {"PriceCheckYes",        "shield_price_check = yes", 7, kError, "not-a-number", "counts as 0"},
    {"SplitAllField",        "split_all_field = 300",   7, kError, "out-of-range", "becomes 44"},
    {"LogLevelZero",         "log_level = 0",           7, kWarning, "log-level", "nothing is logged"},
    {"LogLevelThreshold",    "log_level = 4",           7, kWarning, "log-level", "errors are not logged"},
    {"LogLevelBeyond",       "log_level = 39",          7, kWarning, "log-level", "it works as 7"},
    {"LogLevelNegative",     "log_level = -1",          7, kWarning, "log-level", "every level"},
    {"CpuNegative",          "cpucore = -1",            6, kError, "cpu", "runs unpinned"},
    {"CpuBeyond",            "cpucore = 4",             6, kError, "cpu", "has 4 processors"},
    {"CpuForbidden",         "cpucore = 2",             6, kError, "cpu", "may not run on that CPU"},
    // multicast lines
    {"AddressWithoutPort",   "shfe2ps_ip_a = 239.4.42.72",       7, kError, "address", "group 0.0.0.0 and port 0"},
    {"AddressOfFeedOff",     "shfe4ps_ip_a = 239.3.2.3",         7, kWarning, "address", "no ':'"},
    {"AddressUnparsable",    "ine2ps_ip_a = 239.3.52.x:25000",   7, kError, "address", "255.255.255.255"},
    {"AddressPartBeyond",    "ine2ps_ip_a = 239.3.52.256:25000", 7, kError, "address", "no IPv4 address"},
    {"AddressShort",         "ine2ps_ip_a = 239.3.52:25000",     7, kError, "address", "reads it as 239.3.0.52"},
    {"AddressOctal",         "ine2ps_ip_a = 239.3.052.71:25000", 7, kError, "address", "reads it as 239.3.42.71"},
    {"AddressUnicast",       "ine2ps_ip_b = 10.4.52.72:25000",   7, kError, "address", "no multicast group"},
    {"AddressPortBeyond",    "ine2ps_ip_b = 239.4.52.72:65536",  7, kError, "port", "no datagram has such a port"},
    {"AddressPortZero",      "ine2ps_ip_b = 239.4.52.72:0",      7, kError, "port", "1 to 65535"},
    {"AddressPortMissing",   "ine2ps_ip_b = 239.4.52.72:",       7, kError, "port", "port 0"},
    {"AddressPortTrailing",  "ine2ps_ip_b = 239.4.52.72:25000/udp", 7, kError, "port", "\"/udp\""},
    {"LinesTheSame",         "shfe2ps_ip_b = 239.4.42.72:21000", 7, kWarning, "same-line", "one line only"},
    {"FeedsTheSame",         "ine2ps_ip_a = 239.4.42.72:21000",  7, kError, "same-line", "cannot tell the two feeds apart"},
    // topics
    {"TopicOfOtherExchange", "ine2ps_topic_id = 1000",  7, kError, "same-topic", "ine2ps never matches"},
    {"TopicOfOffShfe4ps",    "ine2ps_topic_id = 1101",  7, kError, "same-topic", "counts as SHFE's"},
    {"TopicOfSameExchange",  "shfe4ps_topic_id = 1000", 7, kWarning, "same-topic", "nothing follows from it"},
    {"TopicOfOffIne4ps",     "ine4ps_topic_id = 1000",  7, kWarning, "same-topic", "ine4ps would never match"},
    // device
    {"DeviceEmpty",          "device =",                2, kError, "no-device", "null device name"},
    {"DeviceAllComment",     "device = # card0",        2, kError, "no-device", "does not start"},
    {"DeviceAbsent",         "device = absent",         2, kError, "device", "there is no card absent"},
    // instruments
    {"InstsEmpty",           "insts =",                 3, kError, "no-instruments", "no subscribed instrument"},
    {"InstsOnlyCommas",      "insts = , ,",             3, kError, "no-instruments", "names no instrument"},
    {"AllInCapitals",        "insts = ALL",             3, kError, "all-spelling", "write insts = all"},
    {"AllCapitalised",       "insts = All",             3, kError, "all-spelling", "small letters"},
    {"AllAndMore",           "insts = all,cu",          3, kError, "all-and-more", "whole value"},
    {"EmptyItems",           "insts = cu,,al,",         3, kWarning, "empty-item", "2 empty items"},
    {"EmptyItem",            "insts = cu,al,",          3, kWarning, "empty-item", "1 empty item in"},
    {"ItemTwice",            "insts = cu,al,cu",        3, kWarning, "repeated-item", "listed twice"},
    {"ItemTooLong",          "insts = cu2603C70000",    3, kError, "instrument", "write cu2603"},
    {"ItemBeyondRecord",     "insts = abcdefghijklmnop", 3, kError, "instrument", "more than the 15"},
    {"ItemsBlankSeparated",  "insts = cu2603 al2603",   3, kError, "instrument", "commas"},
    {"ItemOneCharacter",     "insts = c",               3, kError, "instrument", "1 character;"},
    {"ItemFourCharacters",   "insts = cu26",            3, kError, "instrument", "write cu for the whole product"},
    {"ItemInCapitals",       "insts = CU2603",          3, kError, "instrument", "write cu2603"},
    {"ProductInCapitals",    "insts = CU",              3, kError, "instrument", "write cu"},
    {"ProductOfDigits",      "insts = 26",              3, kError, "instrument", "no product"},
    {"Wildcard",             "insts = cu*",             3, kError, "instrument", "wildcard"},
    {"NoContract",           "insts = cu26O3",          3, kError, "instrument", "capital"},
    {"NotAMonth",            "insts = cu2613",          3, kError, "instrument", "month 13"},
    {"OtherExchangesForm",   "insts = abc603",          3, kError, "instrument", "no contract"},
    // options
    {"OptionsNo",            "options = no",            7, kError, "options", "write options = norecv"},
    {"OptionsOff",           "options = OFF",           7, kError, "options", "they are handled"},
    {"OptionsCapitals",      "options = NoRecv",        7, kError, "options", "write options = norecv"},
    {"OptionsMisspelt",      "options = norcv",         7, kError, "options", "write options = norecv"},
    {"OptionsAnything",      "options = weekly",        7, kWarning, "options", "anything but norecv"},
    // bytes
    {"IdeographicSpace",     "insts =\xE3\x80\x80" "cu",    3, kError, "not-ascii", "U+3000 (ideographic space)"},
    {"NoBreakSpaceInKey",    "log_level\xC2\xA0= 7",        7, kError, "not-ascii", "part of the key"},
    {"FullwidthComma",       "insts = cu\xEF\xBC\x8C" "al", 3, kError, "not-ascii", "write ,"},
    {"FullwidthEquals",      "log_level \xEF\xBC\x9D 7",    7, kError, "not-ascii", "the feed skips the line"},
    {"CyrillicLetter",       "insts = \xD1\x81u",           3, kError, "not-ascii", "Cyrillic es"},
    {"ZeroWidthSpace",       "insts = cu\xE2\x80\x8B",      3, kError, "not-ascii", "invisible"},
    {"Latin1",               "insts = c\xFC",               3, kError, "not-ascii", "byte 0xFC"},
    {"OtherScript",          "insts = \xE9\x93\x9C",        3, kError, "not-ascii", "U+94DC"},
    {"BlankBehindPath",      "device = pcap:/d.pcap\xC2\xA0", 2, kError, "not-ascii", "no-break space"},
    {"OnlyAnOddBlank",       "\xE3\x80\x80",                7, kWarning, "not-ascii", "the feed skips the line"},
    {"CarriageReturn",       "insts = cu\rlog_level = 7",   3, kError, "carriage-return", "one line"},
    {"ControlCharacter",     "insts = cu\v",                3, kError, "control-character", "0x0B"},
};
// clang-format on

class CheckLine : public testing::TestWithParam<LineCase> {};

TEST_P(CheckLine, HasOneFinding) {
    const LineCase& row = GetParam();
    const Findings findings = check(good_file_with(row.line_text));
    ASSERT_EQ(findings.size(), 1u) << to_text(findings);
    EXPECT_EQ(findings[0].line, row.line) << to_text(findings);
    EXPECT_EQ(findings[0].severity, row.severity) << to_text(findings);
    EXPECT_EQ(findings[0].rule, row.rule) << to_text(findings);
    EXPECT_NE(findings[0].text().find(row.says), std::string::npos) << to_text(findings);
    EXPECT_EQ(findings[0].text().find('\n'), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Lines, CheckLine, testing::ValuesIn(kLineCases),
                         [](const auto& row) { return std::string(row.param.name); });

struct SilentCase {
    const char* name;
    const char* line_text;
};

// clang-format off
const SilentCase kSilentCases[] = {
    {"Comment",             "# anything; at all = 5 [x"},
    {"CommentInChinese",    "# \xE9\x93\x9C"},
    {"RemarkBehindDevice",  "device = card0 ; the new one"},
    {"RemarkBehindList",    "insts = cu ; not al, for now"},
    {"RemarkBehindSwitch",  "shfe2ps = enabled # since January"},
    {"TrailingSemicolon",   "shfe2ps = enabled;"},
    {"CarriageReturnAtEnd", "insts = all\r"},
    {"Tabs",                "\tinsts\t=\tall\t"},
    {"ProductAndContract",  "insts = cu, al2603, sc"},
    {"SwitchOff",           "ine2ps = disabled"},
    {"RecoveryOn",          "recovery = enabled"},
    {"RecoveryOff",         "recovery = off"},
    {"SwitchNo",            "ine2ps = off"},
    {"OptionsOff",          "options = norecv"},
    {"OptionsEmpty",        "options ="},
    {"NumberWithBlanks",    "shield_price_check =   1"},
    {"NumberWithSign",      "timeout_cnt = +10"},
    {"LeadingZeros",        "timeout_cnt = 010"},
    {"EveryLevel",          "log_level = 31"},
    {"LargestTopic",        "shfe2ps_topic_id = 32767"},
    {"NegativeSplit",       "split_all_field = -128"},
    {"LastCpu",             "cpucore = 3"},
    {"PathInChinese",       "device = pcap:/\xE6\x95\xB0\xE6\x8D\xAE/d.pcap"},
    {"BlanksAroundColon",   "shfe2ps_ip_a = 239.4.42.72 : 21000"},
    {"BlankLine",           "   "},
};
// clang-format on

class CheckSilentLine : public testing::TestWithParam<SilentCase> {};

TEST_P(CheckSilentLine, HasNoFinding) {
    const Findings findings = check(good_file_with(GetParam().line_text));
    EXPECT_TRUE(findings.empty()) << to_text(findings);
}

INSTANTIATE_TEST_SUITE_P(Lines, CheckSilentLine, testing::ValuesIn(kSilentCases),
                         [](const auto& row) { return std::string(row.param.name); });

} // namespace
