#ifndef CONFIG_PARSE_H
#define CONFIG_PARSE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// The feed's parameters, filled by CConfigParse at the start of every cycle and only read
// afterwards. Addresses are texts "a.b.c.d:port". The INE lines stand B before A; the parameter
// line in the log follows this order.
struct ExanicMdConfigData {
    std::string device; // ExaNIC device name
    std::string insts;  // subscription as written: comma-separated identifiers, or "all"
    std::string shfe2ps_ip_a;
    std::string shfe2ps_ip_b;
    std::string shfe4ps_ip_a;
    std::string shfe4ps_ip_b;
    std::string ine2ps_ip_b;
    std::string ine2ps_ip_a;
    std::string ine4ps_ip_b;
    std::string ine4ps_ip_a;
    std::vector<std::string> listen_insts; // insts, split and trimmed
    uint32_t total_listen_cnt = 0;         // entries of listen_insts
    int16_t shfe2ps_topic_id = 0;
    int16_t shfe4ps_topic_id = 0;
    int16_t ine2ps_topic_id = 0;
    int16_t ine4ps_topic_id = 0;
    uint16_t md2ps_snap_port = 0;    // TCP source port of the 2PS snapshot stream
    uint16_t md4ps_snap_port = 0;    // TCP source port of the 4PS snapshot stream
    int16_t cpucore = 0;             // CPU of the receiving thread
    int16_t timeout_cnt = 0;         // periods of 120 s that the snapshot may take
    int8_t recvall = 0;              // 1: every instrument is subscribed
    int8_t options = 0;              // 0: options are not handled
    int8_t split_all_field = 0;      // value of the card's register of that name
    bool shield_price_check = false; // true: a failing snapshot book is reported and kept
    bool shfe2ps = false;
    bool shfe4ps = false; // no key switches the 4PS feeds on
    bool ine2ps = false;
    bool ine4ps = false;
    // Mends what the feed otherwise carries over a gap; see docs/operations/recovery.md. Not part
    // of the parameter line.
    bool recovery = false;
};

// Reads the INI file into a record. Lenient by design: what cannot be understood is ignored or
// converted as far as it goes, and only a missing file, device or subscription is an error.
class CConfigParse {
public:
    // `configData` must outlive the parser.
    explicit CConfigParse(ExanicMdConfigData& configData);

    // Loads `filename`, fills the record and sets the logger's level mask. 0, or -1 with the reason
    // logged; the record is filled as far as the reading got.
    int InitConfig(const std::string& filename);

private:
    int _LoadConfig(const std::string& filename);
    void _HandleLine(const std::string& line, std::string& currentSection);
    std::string _Trim(const std::string& text) const;
    std::vector<std::string> _SplitByChar(const std::string& text, char separator) const;
    std::string _GetConfigData(const std::string& section, const std::string& key,
                               const std::string& defaultValue) const;
    std::string _Text(const char* key, const char* defaultValue) const;
    long _Number(const char* key, const char* defaultValue) const;
    void _LogParameters(int logLevel) const;

    std::map<std::string, std::map<std::string, std::string>> sections;
    ExanicMdConfigData& m_refConfigData;
};

#endif
