// Random files, read by the parser and by a model that knows the rules and not the parser.

#include "CommonLog.h"
#include "config/ConfigParse.h"
#include "config_fixture.h"
#include "ini_model.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kFiles = 4000;

const std::vector<std::string> kKeys = {"device",
                                        "insts",
                                        "shfe2ps_ip_a",
                                        "shfe2ps_ip_b",
                                        "shfe4ps_ip_a",
                                        "shfe4ps_ip_b",
                                        "ine2ps_ip_a",
                                        "ine2ps_ip_b",
                                        "ine4ps_ip_a",
                                        "ine4ps_ip_b",
                                        "shfe2ps_topic_id",
                                        "shfe4ps_topic_id",
                                        "ine2ps_topic_id",
                                        "ine4ps_topic_id",
                                        "md2ps_snap_port",
                                        "md4ps_snap_port",
                                        "cpucore",
                                        "options",
                                        "split_all_field",
                                        "shfe2ps",
                                        "ine2ps",
                                        "shfe4ps",
                                        "ine4ps",
                                        "timeout_cnt",
                                        "shield_price_check",
                                        "recovery",
                                        "log_level",
                                        "recvall",
                                        "Device",
                                        "",
                                        "de vice",
                                        "config"};

const std::vector<std::string> kValues = {"",
                                          "all",
                                          "ALL",
                                          "all,",
                                          "enabled",
                                          "Enabled",
                                          "norecv",
                                          "yes",
                                          "1",
                                          "0",
                                          "-1",
                                          "7",
                                          "15",
                                          "31",
                                          "70000",
                                          "-70000",
                                          "2147483648",
                                          "12x",
                                          "x12",
                                          "+3",
                                          "99999999999999999999",
                                          "-99999999999999999999",
                                          "9223372036854775807",
                                          "-9223372036854775808",
                                          "\v4",
                                          "0x1f",
                                          "rb2601",
                                          "a,b",
                                          " a , ,b,, ",
                                          ",",
                                          "x=y",
                                          "[x]",
                                          "1.2.3.4:5",
                                          "exanic0",
                                          "a\rb",
                                          "two words",
                                          "%s%n",
                                          std::string("nul\0inside", 10)};

const std::vector<std::string> kHeaders = {
    "[config]", "[config]",  "[config]",  "[ config ]",      "[Config]", "[other]",  "[]",
    "[config",  "[config]x", "[[config]", "[config][other]", "config]",  "[con;fig]"};
const std::vector<std::string> kGaps = {"", "", "", " ", "\t", "  \t ", "\r"};
const std::vector<std::string> kTails = {"", "", "", "", " ; remark", "#remark", " ; # = [config]"};
const std::vector<std::string> kEnds = {"\n", "\n", "\n", "\r\n", "\n\n"};

class FileMaker {
public:
    explicit FileMaker(uint32_t seed) : random_(seed) {}

    std::string file() {
        std::string text = below(8) == 0 ? "" : "[config]\n";
        if (below(8) != 0) {
            text += "device = exanic0\ninsts = all\n";
        }
        for (uint32_t lines = below(40); lines > 0; --lines) {
            text += line();
        }
        if (below(4) == 0 && !text.empty()) {
            text.pop_back();
        }
        return text;
    }

private:
    uint32_t below(std::size_t limit) {
        return std::uniform_int_distribution<uint32_t>(0,
                                                       static_cast<uint32_t>(limit) - 1)(random_);
    }
    const std::string& one_of(const std::vector<std::string>& choice) {
        return choice[below(choice.size())];
    }

    std::string line() {
        std::string text = one_of(kGaps);
        const uint32_t kind = below(20);
        if (kind == 0) {
            text += one_of(kHeaders);
        } else if (kind == 1) {
            for (uint32_t bytes = below(30); bytes > 0; --bytes) {
                text.push_back(static_cast<char>(below(256)));
            }
        } else {
            text += one_of(kKeys) + one_of(kGaps) + (below(20) == 0 ? "" : "=") + one_of(kGaps) +
                    one_of(kValues);
        }
        return text + one_of(kGaps) + one_of(kTails) + one_of(kEnds);
    }

    std::mt19937 random_;
};

struct Expected {
    ExanicMdConfigData data;
    int mask = 0;
    int result = 0;
};

Expected expect(const std::string& text) {
    const IniModel model(text);
    const ExanicMdConfigData defaults = default_data();
    const auto string_of = [&](const char* key, const std::string& otherwise) {
        const std::string* value = model.value(key);
        return value != nullptr ? *value : otherwise;
    };
    const auto number_of = [&](const char* key, long long otherwise) {
        const std::string* value = model.value(key);
        return value != nullptr ? IniModel::number(*value) : otherwise;
    };
    Expected expected;
    ExanicMdConfigData& data = expected.data;
    data.device = string_of("device", "");
    data.insts = string_of("insts", "");
    data.shfe2ps_ip_a = string_of("shfe2ps_ip_a", defaults.shfe2ps_ip_a);
    data.shfe2ps_ip_b = string_of("shfe2ps_ip_b", defaults.shfe2ps_ip_b);
    data.shfe4ps_ip_a = string_of("shfe4ps_ip_a", defaults.shfe4ps_ip_a);
    data.shfe4ps_ip_b = string_of("shfe4ps_ip_b", defaults.shfe4ps_ip_b);
    data.ine2ps_ip_a = string_of("ine2ps_ip_a", defaults.ine2ps_ip_a);
    data.ine2ps_ip_b = string_of("ine2ps_ip_b", defaults.ine2ps_ip_b);
    data.ine4ps_ip_a = string_of("ine4ps_ip_a", defaults.ine4ps_ip_a);
    data.ine4ps_ip_b = string_of("ine4ps_ip_b", defaults.ine4ps_ip_b);
    data.listen_insts = IniModel::items(data.insts);
    data.total_listen_cnt = static_cast<uint32_t>(data.listen_insts.size());
    data.shfe2ps_topic_id = static_cast<int16_t>(number_of("shfe2ps_topic_id", 1000));
    data.shfe4ps_topic_id = static_cast<int16_t>(number_of("shfe4ps_topic_id", 1101));
    data.ine2ps_topic_id = static_cast<int16_t>(number_of("ine2ps_topic_id", 5000));
    data.ine4ps_topic_id = static_cast<int16_t>(number_of("ine4ps_topic_id", 5101));
    data.md2ps_snap_port = static_cast<uint16_t>(number_of("md2ps_snap_port", 33022));
    data.md4ps_snap_port = static_cast<uint16_t>(number_of("md4ps_snap_port", 22000));
    data.cpucore = static_cast<int16_t>(number_of("cpucore", 0));
    data.timeout_cnt = static_cast<int16_t>(number_of("timeout_cnt", 10));
    data.recvall = data.insts == "all" ? 1 : 0;
    data.options = string_of("options", "") == "norecv" ? 0 : 1;
    data.split_all_field = static_cast<int8_t>(number_of("split_all_field", 1));
    data.shield_price_check = number_of("shield_price_check", 0) == 1;
    data.shfe2ps = string_of("shfe2ps", "") == "enabled";
    data.ine2ps = string_of("ine2ps", "") == "enabled";
    data.recovery = string_of("recovery", "") == "enabled";
    expected.mask = static_cast<int>(number_of("log_level", 7));
    expected.result =
        data.device.empty() || (data.recvall == 0 && data.listen_insts.empty()) ? -1 : 0;
    return expected;
}

TEST(ConfigParseRandom, AgreesWithTheModel) {
    const support::TempDir dir;
    int accepted = 0;
    for (uint32_t seed = 1; seed <= kFiles; ++seed) {
        const std::string text = FileMaker(seed).file();
        const Expected expected = expect(text);
        const Loaded loaded = load_in(dir, text);
        ASSERT_EQ(describe(loaded.data), describe(expected.data)) << "seed " << seed << "\n"
                                                                  << text;
        ASSERT_EQ(loaded.result, expected.result) << "seed " << seed << "\n" << text;
        ASSERT_EQ(loaded.mask, expected.mask) << "seed " << seed << "\n" << text;
        accepted += loaded.result == 0 ? 1 : 0;
    }
    // The files must exercise both outcomes.
    EXPECT_GT(accepted, kFiles / 4);
    EXPECT_LT(accepted, kFiles * 3 / 4);
}

} // namespace
