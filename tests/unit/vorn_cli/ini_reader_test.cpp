// The checks rest on a reader of their own, which keeps lines; here it is held against the feed's.

#include "tools/vorn/check/effective_config.h"
#include "tools/vorn/check/ini_reader.h"
#include "tools/vorn/stdout_aside.h"

#include "tests/support/temp_dir.h"

#include "CommonLog.h"
#include "config/ConfigParse.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <unistd.h>

using namespace vorn_cli;

namespace {

// The feed's own reading of a file. Its return code does not matter: the record is filled first.
ExanicMdConfigData read_by_feed(const std::string& path) {
    ExanicMdConfigData data;
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(0));
    CConfigParse(data).InitConfig(path);
    return data;
}

void expect_feed_equal(const FeedConfig& ours, bool enabled, const std::string& line_a,
                       const std::string& line_b, int16_t topic_id) {
    EXPECT_EQ(ours.enabled, enabled) << ours.name;
    EXPECT_EQ(ours.line_a, line_a) << ours.name;
    EXPECT_EQ(ours.line_b, line_b) << ours.name;
    EXPECT_EQ(ours.topic_id, topic_id) << ours.name;
}

void expect_equal(const EffectiveConfig& ours, const ExanicMdConfigData& feed) {
    EXPECT_EQ(ours.device, feed.device);
    EXPECT_EQ(ours.insts, feed.insts);
    EXPECT_EQ(ours.listen_insts, feed.listen_insts);
    EXPECT_EQ(ours.listen_insts.size(), feed.total_listen_cnt);
    EXPECT_EQ(ours.recvall ? 1 : 0, feed.recvall);
    EXPECT_EQ(ours.options ? 1 : 0, feed.options);
    expect_feed_equal(ours.shfe2ps, feed.shfe2ps, feed.shfe2ps_ip_a, feed.shfe2ps_ip_b,
                      feed.shfe2ps_topic_id);
    expect_feed_equal(ours.shfe4ps, feed.shfe4ps, feed.shfe4ps_ip_a, feed.shfe4ps_ip_b,
                      feed.shfe4ps_topic_id);
    expect_feed_equal(ours.ine2ps, feed.ine2ps, feed.ine2ps_ip_a, feed.ine2ps_ip_b,
                      feed.ine2ps_topic_id);
    expect_feed_equal(ours.ine4ps, feed.ine4ps, feed.ine4ps_ip_a, feed.ine4ps_ip_b,
                      feed.ine4ps_topic_id);
    EXPECT_EQ(ours.md2ps_snap_port, feed.md2ps_snap_port);
    EXPECT_EQ(ours.md4ps_snap_port, feed.md4ps_snap_port);
    EXPECT_EQ(ours.cpucore, feed.cpucore);
    EXPECT_EQ(ours.timeout_cnt, feed.timeout_cnt);
    EXPECT_EQ(ours.shield_price_check, feed.shield_price_check);
    EXPECT_EQ(ours.recovery, feed.recovery);
    EXPECT_EQ(ours.split_all_field, feed.split_all_field);
    EXPECT_EQ(ours.log_level, static_cast<int>(CCommonLog::GetInstance()->GetLogLevel()));
}

// Files that are mostly sensible, made of parts that are mostly not.
class RandomFile {
public:
    explicit RandomFile(uint32_t seed) : random_(seed) {}

    std::string content() {
        std::string text = one_in(3) ? "" : "[config]\n";
        for (int lines = pick(40); lines > 0; --lines) {
            text += line() + (one_in(12) ? "\r\n" : "\n");
        }
        return one_in(6) ? text + "log_level = 9" : text; // without a last line feed
    }

private:
    int pick(int below) { return static_cast<int>(random_() % static_cast<uint32_t>(below)); }
    bool one_in(int n) { return pick(n) == 0; }
    template <std::size_t N>
    std::string any(const char* const (&words)[N]) {
        return words[pick(static_cast<int>(N))];
    }
    std::string blanks() { return any({"", "", " ", "\t", "  \t", "\r"}); }

    std::string line() {
        if (one_in(12)) {
            return blanks() + any({"[config]", "[ config ]", "[config", "[]", "[x]", "[config]]y",
                                   "[config] device = x", "[[config]]", "]config[", "[config];x",
                                   "[con;fig]"});
        }
        if (one_in(10)) {
            return blanks() +
                   any({"", "# c", ";", "=", "==", "device", "device:x", "\v=\v", "#[config]"});
        }
        const auto& keys = known_keys();
        std::string key = keys[static_cast<std::size_t>(pick(static_cast<int>(keys.size())))].name;
        if (one_in(10)) {
            key = any({"", "Device", "shfe4ps", "ine4ps", "x", "insts ", "ins ts", "in;sts"});
        }
        return blanks() + key + blanks() + "=" + blanks() + value() + blanks();
    }
    std::string value() {
        if (one_in(8)) {
            std::string noise;
            for (int n = pick(12); n > 0; --n) {
                char c = static_cast<char>(pick(256));
                noise += c == '\n' ? ' ' : c;
            }
            return noise;
        }
        return any({"",
                    "0",
                    "1",
                    "10",
                    "-1",
                    "+7",
                    "70000",
                    "-70000",
                    "99999999999999999999",
                    "0x1f",
                    " 5",
                    "\v6",
                    "7 8",
                    "9;9",
                    "300",
                    "1e3",
                    "all",
                    "ALL",
                    "all,cu",
                    "cu, ,al,,",
                    ",",
                    "cu2603,\tsc2604 ",
                    "enabled",
                    "Enabled",
                    "enabled;",
                    "norecv",
                    "norecv x",
                    "239.1.2.3:4",
                    "a=b=c",
                    "sim:seed=1&x=2",
                    "exanic0 # remark",
                    "\"q\"",
                    "="});
    }

    std::mt19937 random_;
};

TEST(IniReader, AgreesWithTheFeedOnRandomFiles) {
    const uint32_t first_seed = std::random_device{}();
    SCOPED_TRACE("first seed " + std::to_string(first_seed));
    const support::TempDir directory;
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(nowhere, 0);
    for (uint32_t i = 0; i < 2000 && !testing::Test::HasFailure(); ++i) {
        const std::string content = RandomFile(first_seed + i).content();
        const std::string path = directory.write("feed.ini", content);
        ExanicMdConfigData feed;
        {
            const StdoutAside aside(nowhere); // the feed's errors
            feed = read_by_feed(path);
        }
        SCOPED_TRACE("seed " + std::to_string(first_seed + i) + ", file:\n" + content);
        expect_equal(effective_config(read_ini(content)), feed);
    }
    ::close(nowhere);
}

TEST(IniReader, AgreesWithTheFeedOnTheSample) {
    const ExanicMdConfigData feed = read_by_feed(VORN_SAMPLE_INI);
    expect_equal(effective_config(read_ini(support::read_file(VORN_SAMPLE_INI))), feed);
}

TEST(IniReader, KeepsWhatBecameOfEveryLine) {
    const IniFile file = read_ini("a = 1\n [config] x\nkey = v=w # c\n\nplain\n[open\nkey=\n");
    ASSERT_EQ(file.lines.size(), 7u);
    EXPECT_EQ(file.lines[0].kind, IniLine::Kind::kKey);
    EXPECT_EQ(file.lines[0].section, "");
    EXPECT_EQ(file.lines[1].kind, IniLine::Kind::kHeader);
    EXPECT_EQ(file.lines[1].behind, "x");
    EXPECT_EQ(file.lines[2].value, "v=w");
    EXPECT_EQ(file.lines[2].comment, "# c");
    EXPECT_EQ(file.lines[3].kind, IniLine::Kind::kNothing);
    EXPECT_EQ(file.lines[4].kind, IniLine::Kind::kNoEquals);
    EXPECT_EQ(file.lines[5].kind, IniLine::Kind::kUnterminatedHeader);
    EXPECT_EQ(file.lines[6].section, "config");
    ASSERT_NE(file.find("key"), nullptr);
    EXPECT_EQ(file.find("key")->value, "");
    EXPECT_EQ(file.find("key")->line, 7u);
    EXPECT_EQ(file.find("a"), nullptr);
    EXPECT_EQ(file.header_line(), 2u);
}

} // namespace
