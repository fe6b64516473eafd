#include "config/ConfigParse.h"

#include "CommonLog.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <utility>

namespace {

constexpr char LOG_FILE_TAG[] = "ConfigParse";
constexpr char SECTION[] = "config"; // every key is read from this section
constexpr char BLANKS[] = " \t\r\n";

} // namespace

CConfigParse::CConfigParse(ExanicMdConfigData& configData) : m_refConfigData(configData) {}

int CConfigParse::InitConfig(const std::string& filename) {
    if (_LoadConfig(filename) != 0) {
        return -1;
    }

    ExanicMdConfigData& config = m_refConfigData;
    config.device = _Text("device", "");
    config.insts = _Text("insts", "");
    config.shfe2ps_ip_a = _Text("shfe2ps_ip_a", "239.4.42.72:21000");
    config.shfe2ps_ip_b = _Text("shfe2ps_ip_b", "239.3.42.71:21000");
    config.shfe4ps_ip_a = _Text("shfe4ps_ip_a", "239.3.2.3:21101");
    config.shfe4ps_ip_b = _Text("shfe4ps_ip_b", "239.4.2.4:21101");
    config.ine2ps_ip_a = _Text("ine2ps_ip_a", "239.3.52.71:25000");
    config.ine2ps_ip_b = _Text("ine2ps_ip_b", "239.4.52.72:25000");
    config.ine4ps_ip_a = _Text("ine4ps_ip_a", "239.4.151.92:25101");
    config.ine4ps_ip_b = _Text("ine4ps_ip_b", "239.3.151.91:25101");
    // Numbers keep the low bits that their field has room for.
    config.shfe2ps_topic_id = static_cast<int16_t>(_Number("shfe2ps_topic_id", "1000"));
    config.shfe4ps_topic_id = static_cast<int16_t>(_Number("shfe4ps_topic_id", "1101"));
    config.ine2ps_topic_id = static_cast<int16_t>(_Number("ine2ps_topic_id", "5000"));
    config.ine4ps_topic_id = static_cast<int16_t>(_Number("ine4ps_topic_id", "5101"));
    config.md2ps_snap_port = static_cast<uint16_t>(_Number("md2ps_snap_port", "33022"));
    config.md4ps_snap_port = static_cast<uint16_t>(_Number("md4ps_snap_port", "22000"));
    config.cpucore = static_cast<int16_t>(_Number("cpucore", ""));
    config.recvall = _Text("insts", "") == "all" ? 1 : 0;
    config.options = _Text("options", "") == "norecv" ? 0 : 1;
    config.split_all_field = static_cast<int8_t>(_Number("split_all_field", "1"));
    config.shfe2ps = _Text("shfe2ps", "") == "enabled";
    config.ine2ps = _Text("ine2ps", "") == "enabled";
    config.listen_insts = _SplitByChar(config.insts, ',');
    config.total_listen_cnt = static_cast<uint32_t>(config.listen_insts.size());
    config.timeout_cnt = static_cast<int16_t>(_Number("timeout_cnt", "10"));
    config.shield_price_check = _Number("shield_price_check", "0") == 1;
    config.recovery = _Text("recovery", "") == "enabled";

    const int logLevel = static_cast<int>(_Number("log_level", "7"));
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(logLevel));
    _LogParameters(logLevel);

    if (config.device.empty()) {
        MD_LOG(LOG_ERROR, "null device name");
        return -1;
    }
    if (config.recvall == 0 && config.total_listen_cnt == 0) {
        MD_LOG(LOG_ERROR, "no subscribed instrument");
        return -1;
    }
    return 0;
}

// The table is not emptied first: a second load adds to it, under the rule that a section header
// discards what its section held.
int CConfigParse::_LoadConfig(const std::string& filename) {
    MD_LOG(LOG_INFO, "read configure file: %s", filename.c_str());
    std::ifstream file(filename);
    if (!file.is_open()) {
        MD_LOG(LOG_ERROR, "unable to open config file: %s", filename.c_str());
        return -1;
    }
    std::string currentSection;
    std::string line;
    while (std::getline(file, line)) {
        _HandleLine(line, currentSection);
    }
    return 0;
}

void CConfigParse::_HandleLine(const std::string& line, std::string& currentSection) {
    std::string text = _Trim(line);
    text = _Trim(text.substr(0, text.find_first_of(";#")));
    if (text.empty()) {
        return;
    }
    if (text.front() == '[') {
        const size_t end = text.find(']');
        if (end != std::string::npos) {
            // Taken as it stands, blanks included. A header met again starts its section afresh.
            currentSection = text.substr(1, end - 1);
            sections[currentSection].clear();
        }
        return;
    }
    const size_t equals = text.find('=');
    if (equals == std::string::npos || currentSection.empty()) {
        return;
    }
    sections[currentSection][_Trim(text.substr(0, equals))] = _Trim(text.substr(equals + 1));
}

std::string CConfigParse::_Trim(const std::string& text) const {
    const size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

std::vector<std::string> CConfigParse::_SplitByChar(const std::string& text, char separator) const {
    std::vector<std::string> pieces;
    size_t begin = 0;
    while (begin <= text.size()) {
        const size_t end = std::min(text.find(separator, begin), text.size());
        std::string piece = _Trim(text.substr(begin, end - begin));
        if (!piece.empty()) {
            pieces.push_back(std::move(piece));
        }
        begin = end + 1;
    }
    return pieces;
}

std::string CConfigParse::_GetConfigData(const std::string& section, const std::string& key,
                                         const std::string& defaultValue) const {
    const auto keys = sections.find(section);
    if (keys == sections.end()) {
        return defaultValue;
    }
    const auto value = keys->second.find(key);
    return value == keys->second.end() ? defaultValue : value->second;
}

std::string CConfigParse::_Text(const char* key, const char* defaultValue) const {
    return _GetConfigData(SECTION, key, defaultValue);
}

long CConfigParse::_Number(const char* key, const char* defaultValue) const {
    return strtol(_Text(key, defaultValue).c_str(), nullptr, 10);
}

// Operators' scripts read this line: the clipped labels and the missing blanks are part of it.
void CConfigParse::_LogParameters(int logLevel) const {
    const ExanicMdConfigData& config = m_refConfigData;
    MD_LOG_AS("InitConfig", LOG_DEBUG,
              "configure param: device: %s, insts: %s,\n"
              "shfe2ps_ip_a: %s, shfe2ps_ip_b: %s, shfe4ps_ip_a: %s, shfe4ps_ip_b: %s,"
              "ine2ps_ip_b: %s, ine2ps_ip_a: %s, ine4ps_ip_b: %s, ine4ps_ip_a: %s,\n"
              "hfe2ps_topic_id: %d, hfe4ps_topic_id: %d, ne2ps_topic_id: %d, ne4ps_topic_id: %d,"
              "md2ps_snap_port: %u, md4ps_snap_port: %u, cpucore: %d, recvall: %d, options: %d, "
              "split_all_field: %d,\n"
              "shfe2ps: %d, shfe4ps: %d, ine2ps: %d, ine4ps: %d,timeout_cnt: %d, log_level: %d",
              config.device.c_str(), config.insts.c_str(), config.shfe2ps_ip_a.c_str(),
              config.shfe2ps_ip_b.c_str(), config.shfe4ps_ip_a.c_str(), config.shfe4ps_ip_b.c_str(),
              config.ine2ps_ip_b.c_str(), config.ine2ps_ip_a.c_str(), config.ine4ps_ip_b.c_str(),
              config.ine4ps_ip_a.c_str(), config.shfe2ps_topic_id, config.shfe4ps_topic_id,
              config.ine2ps_topic_id, config.ine4ps_topic_id, config.md2ps_snap_port,
              config.md4ps_snap_port, config.cpucore, config.recvall, config.options,
              config.split_all_field, config.shfe2ps, config.shfe4ps, config.ine2ps, config.ine4ps,
              config.timeout_cnt, logLevel);
    if (logLevel > 7) {
        for (const std::string& inst : config.listen_insts) {
            MD_LOG_AS("InitConfig", LOG_DEBUG_EX, "inst: %s", inst.c_str());
        }
    }
}
