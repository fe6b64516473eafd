#include "tools/vorn/check/effective_config.h"

#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace vorn_cli {

namespace {

std::string text_of(const IniFile& file, const std::string& key) {
    const IniEntry* const entry = file.find(key);
    if (entry != nullptr) {
        return entry->value;
    }
    const KeyInfo* const info = find_key(key);
    return info == nullptr ? "" : info->default_text;
}

long number_of(const IniFile& file, const std::string& key) {
    return convert_number(text_of(file, key)).value;
}

FeedConfig feed_of(const IniFile& file, const std::string& name, const char* exchange) {
    FeedConfig feed;
    feed.name = name;
    feed.exchange = exchange;
    // Nothing switches the 4PS feeds on.
    feed.enabled = name.ends_with("2ps") && text_of(file, name) == "enabled";
    feed.line_a = text_of(file, name + "_ip_a");
    feed.line_b = text_of(file, name + "_ip_b");
    feed.topic_id = static_cast<int16_t>(number_of(file, name + "_topic_id"));
    return feed;
}

std::vector<std::string> split_items(const std::string& text) {
    std::vector<std::string> items;
    std::size_t begin = 0;
    while (begin <= text.size()) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        std::string item = trim_blanks(text.substr(begin, end - begin));
        if (!item.empty()) {
            items.push_back(std::move(item));
        }
        begin = end + 1;
    }
    return items;
}

} // namespace

const std::vector<KeyInfo>& known_keys() {
    static const std::vector<KeyInfo> keys = {
        {"device", KeyKind::kDevice, ""},
        {"insts", KeyKind::kInstruments, ""},
        {"options", KeyKind::kOptions, ""},
        {"shfe2ps", KeyKind::kSwitch, ""},
        {"ine2ps", KeyKind::kSwitch, ""},
        {"recovery", KeyKind::kSwitch, ""},
        {"shfe2ps_ip_a", KeyKind::kAddress, "239.4.42.72:21000"},
        {"shfe2ps_ip_b", KeyKind::kAddress, "239.3.42.71:21000"},
        {"shfe4ps_ip_a", KeyKind::kAddress, "239.3.2.3:21101"},
        {"shfe4ps_ip_b", KeyKind::kAddress, "239.4.2.4:21101"},
        {"ine2ps_ip_a", KeyKind::kAddress, "239.3.52.71:25000"},
        {"ine2ps_ip_b", KeyKind::kAddress, "239.4.52.72:25000"},
        {"ine4ps_ip_a", KeyKind::kAddress, "239.4.151.92:25101"},
        {"ine4ps_ip_b", KeyKind::kAddress, "239.3.151.91:25101"},
        {"shfe2ps_topic_id", KeyKind::kNumber, "1000"},
        {"shfe4ps_topic_id", KeyKind::kNumber, "1101"},
        {"ine2ps_topic_id", KeyKind::kNumber, "5000"},
        {"ine4ps_topic_id", KeyKind::kNumber, "5101"},
        {"md2ps_snap_port", KeyKind::kNumber, "33022"},
        {"md4ps_snap_port", KeyKind::kNumber, "22000"},
        {"cpucore", KeyKind::kNumber, ""},
        {"timeout_cnt", KeyKind::kNumber, "10"},
        {"shield_price_check", KeyKind::kNumber, "0"},
        {"split_all_field", KeyKind::kNumber, "1"},
        {"log_level", KeyKind::kNumber, "7"},
    };
    return keys;
}

const KeyInfo* find_key(const std::string& name) {
    for (const KeyInfo& key : known_keys()) {
        if (name == key.name) {
            return &key;
        }
    }
    return nullptr;
}

std::vector<std::string> known_key_names() {
    std::vector<std::string> names;
    for (const KeyInfo& key : known_keys()) {
        names.emplace_back(key.name);
    }
    return names;
}

ConvertedNumber convert_number(const std::string& text) {
    ConvertedNumber number;
    char* end = nullptr;
    errno = 0;
    number.value = std::strtol(text.c_str(), &end, 10);
    number.out_of_range = errno == ERANGE;
    number.has_digits = end != text.c_str();
    number.rest = text.substr(static_cast<std::size_t>(end - text.c_str()));
    return number;
}

EffectiveConfig effective_config(const IniFile& file) {
    EffectiveConfig config;
    config.device = text_of(file, "device");
    config.insts = text_of(file, "insts");
    config.listen_insts = split_items(config.insts);
    config.recvall = config.insts == "all";
    config.options = text_of(file, "options") != "norecv";
    config.shfe2ps = feed_of(file, "shfe2ps", "SHFE");
    config.shfe4ps = feed_of(file, "shfe4ps", "SHFE");
    config.ine2ps = feed_of(file, "ine2ps", "INE");
    config.ine4ps = feed_of(file, "ine4ps", "INE");
    config.md2ps_snap_port = static_cast<uint16_t>(number_of(file, "md2ps_snap_port"));
    config.md4ps_snap_port = static_cast<uint16_t>(number_of(file, "md4ps_snap_port"));
    config.cpucore = static_cast<int16_t>(number_of(file, "cpucore"));
    config.timeout_cnt = static_cast<int16_t>(number_of(file, "timeout_cnt"));
    config.shield_price_check = number_of(file, "shield_price_check") == 1;
    config.recovery = text_of(file, "recovery") == "enabled";
    config.split_all_field = static_cast<int8_t>(number_of(file, "split_all_field"));
    config.log_level = static_cast<int>(number_of(file, "log_level"));
    return config;
}

nlohmann::json to_json(const EffectiveConfig& config) {
    nlohmann::json object = {
        {"device", config.device},
        {"insts", config.listen_insts},
        {"recvall", config.recvall},
        {"options", config.options},
        {"md2ps_snap_port", config.md2ps_snap_port},
        {"md4ps_snap_port", config.md4ps_snap_port},
        {"cpucore", config.cpucore},
        {"timeout_cnt", config.timeout_cnt},
        {"shield_price_check", config.shield_price_check},
        {"recovery", config.recovery},
        {"split_all_field", config.split_all_field},
        {"log_level", config.log_level},
    };
    for (const FeedConfig* feed :
         {&config.shfe2ps, &config.shfe4ps, &config.ine2ps, &config.ine4ps}) {
        object[feed->name] = feed->enabled;
        object[feed->name + "_ip_a"] = feed->line_a;
        object[feed->name + "_ip_b"] = feed->line_b;
        object[feed->name + "_topic_id"] = feed->topic_id;
    }
    return object;
}

} // namespace vorn_cli
