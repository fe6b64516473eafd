// The configuration file: the whole input is the file. A single NUL stands for none.
//
// It is loaded, and loaded once more by the same parser, which must come to the same.

#include "support/fuzz_input.h"
#include "support/memory_file.h"

#include "CommonLog.h"
#include "config/ConfigParse.h"

#include <tuple>

namespace {

constexpr std::size_t kMaxSize = 65536;

auto values(const ExanicMdConfigData& data) {
    return std::tie(data.device, data.insts, data.shfe2ps_ip_a, data.shfe2ps_ip_b,
                    data.shfe4ps_ip_a, data.shfe4ps_ip_b, data.ine2ps_ip_a, data.ine2ps_ip_b,
                    data.ine4ps_ip_a, data.ine4ps_ip_b, data.listen_insts, data.shfe2ps_topic_id,
                    data.shfe4ps_topic_id, data.ine2ps_topic_id, data.ine4ps_topic_id,
                    data.md2ps_snap_port, data.md4ps_snap_port, data.cpucore, data.timeout_cnt,
                    data.recvall, data.options, data.split_all_field, data.shield_price_check,
                    data.shfe2ps, data.ine2ps, data.recovery);
}

bool has_blank_ends(const std::string& text) {
    const std::string blanks = " \t\r\n";
    return !text.empty() && (blanks.find(text.front()) != std::string::npos ||
                             blanks.find(text.back()) != std::string::npos);
}

void check(const ExanicMdConfigData& data, int result) {
    REQUIRE(result == 0 || result == -1);
    const bool subscribes = data.recvall != 0 || data.total_listen_cnt != 0;
    REQUIRE((result == 0) == (!data.device.empty() && subscribes));
    REQUIRE(data.total_listen_cnt == data.listen_insts.size());
    REQUIRE(data.recvall == (data.insts == "all" ? 1 : 0));
    REQUIRE(data.options == 0 || data.options == 1);
    REQUIRE(!data.shfe4ps && !data.ine4ps); // no key switches them on
    for (const std::string& inst : data.listen_insts) {
        REQUIRE(!inst.empty() && inst.find_first_of(",;#\n") == std::string::npos);
        REQUIRE(!has_blank_ends(inst));
    }
    for (const std::string& text : {data.device, data.insts, data.shfe2ps_ip_a, data.ine4ps_ip_b}) {
        REQUIRE(text.find_first_of(";#\n") == std::string::npos && !has_blank_ends(text));
    }
}

void load_none() {
    for (const int mask : {0, 15}) {
        CCommonLog::m_logLevel.store(mask, std::memory_order_relaxed);
        ExanicMdConfigData data;
        CConfigParse parser(data);
        REQUIRE(parser.InitConfig("/proc/self/fd/none") == -1);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 1 && data[0] == 0) {
        load_none();
        return 0;
    }
    static fuzz::MemoryFile file("vorn.ini");
    file.fill({data, std::min(size, kMaxSize)});
    CCommonLog::m_logLevel.store(15, std::memory_order_relaxed);
    ExanicMdConfigData first;
    CConfigParse parser(first);
    const int result = parser.InitConfig(file.path());
    check(first, result);

    const ExanicMdConfigData kept = first;
    REQUIRE(parser.InitConfig(file.path()) == result);
    REQUIRE(values(first) == values(kept));
    return 0;
}

int LLVMFuzzerInitialize(int*, char***) {
    return 0;
}
