#pragma once

// The parameters as the feed will have them: its keys, defaults and conversions.

#include "tools/vorn/check/ini_reader.h"

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace vorn_cli {

enum class KeyKind { kDevice, kInstruments, kOptions, kSwitch, kAddress, kNumber };

struct KeyInfo {
    const char* name;
    KeyKind kind;
    const char* default_text; // what an absent key counts as
};

// Every key that the feed reads, in the order of the sample configuration.
const std::vector<KeyInfo>& known_keys();
const KeyInfo* find_key(const std::string& name);
std::vector<std::string> known_key_names();

// How the feed turns a text into a number: decimal digits after blanks and a sign, as far as they
// go; 0 when there are none.
struct ConvertedNumber {
    long value = 0;
    bool has_digits = false;
    std::string rest;          // what follows the digits
    bool out_of_range = false; // more digits than 64 bits hold: the nearest 64-bit value
};
ConvertedNumber convert_number(const std::string& text);

struct FeedConfig {
    std::string name;     // as in "shfe2ps"
    std::string exchange; // as in "SHFE"
    bool enabled = false; // always false for 4PS
    std::string line_a;
    std::string line_b;
    int16_t topic_id = 0;
};

struct EffectiveConfig {
    std::string device;
    std::string insts;
    std::vector<std::string> listen_insts; // items of insts that are not empty
    bool recvall = false;
    bool options = true;
    FeedConfig shfe2ps, shfe4ps, ine2ps, ine4ps;
    uint16_t md2ps_snap_port = 0;
    uint16_t md4ps_snap_port = 0;
    int16_t cpucore = 0;
    int16_t timeout_cnt = 0;
    bool shield_price_check = false;
    bool recovery = false;
    int8_t split_all_field = 0;
    int log_level = 0;

    bool any_feed() const { return shfe2ps.enabled || ine2ps.enabled; }
};

EffectiveConfig effective_config(const IniFile& file);

nlohmann::json to_json(const EffectiveConfig& config);

} // namespace vorn_cli
