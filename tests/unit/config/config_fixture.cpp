#include "config_fixture.h"

#include "CommonLog.h"

#include <sstream>

std::string describe(const ExanicMdConfigData& data) {
    std::ostringstream out;
    out << "device=" << data.device << "\ninsts=" << data.insts
        << "\nshfe2ps_ip_a=" << data.shfe2ps_ip_a << "\nshfe2ps_ip_b=" << data.shfe2ps_ip_b
        << "\nshfe4ps_ip_a=" << data.shfe4ps_ip_a << "\nshfe4ps_ip_b=" << data.shfe4ps_ip_b
        << "\nine2ps_ip_b=" << data.ine2ps_ip_b << "\nine2ps_ip_a=" << data.ine2ps_ip_a
        << "\nine4ps_ip_b=" << data.ine4ps_ip_b << "\nine4ps_ip_a=" << data.ine4ps_ip_a;
    for (const std::string& inst : data.listen_insts) {
        out << "\nlisten_inst=" << inst;
    }
    out << "\ntotal_listen_cnt=" << data.total_listen_cnt
        << "\nshfe2ps_topic_id=" << data.shfe2ps_topic_id
        << "\nshfe4ps_topic_id=" << data.shfe4ps_topic_id
        << "\nine2ps_topic_id=" << data.ine2ps_topic_id
        << "\nine4ps_topic_id=" << data.ine4ps_topic_id
        << "\nmd2ps_snap_port=" << data.md2ps_snap_port
        << "\nmd4ps_snap_port=" << data.md4ps_snap_port << "\ncpucore=" << data.cpucore
        << "\ntimeout_cnt=" << data.timeout_cnt << "\nrecvall=" << static_cast<int>(data.recvall)
        << "\noptions=" << static_cast<int>(data.options)
        << "\nsplit_all_field=" << static_cast<int>(data.split_all_field)
        << "\nshield_price_check=" << data.shield_price_check << "\nshfe2ps=" << data.shfe2ps
        << "\nshfe4ps=" << data.shfe4ps << "\nine2ps=" << data.ine2ps << "\nine4ps=" << data.ine4ps
        << "\nrecovery=" << data.recovery << "\n";
    return out.str();
}

ExanicMdConfigData default_data() {
    ExanicMdConfigData data{};
    data.device = "exanic0";
    data.insts = "all";
    data.shfe2ps_ip_a = "239.4.42.72:21000";
    data.shfe2ps_ip_b = "239.3.42.71:21000";
    data.shfe4ps_ip_a = "239.3.2.3:21101";
    data.shfe4ps_ip_b = "239.4.2.4:21101";
    data.ine2ps_ip_a = "239.3.52.71:25000";
    data.ine2ps_ip_b = "239.4.52.72:25000";
    data.ine4ps_ip_a = "239.4.151.92:25101";
    data.ine4ps_ip_b = "239.3.151.91:25101";
    data.listen_insts = {"all"};
    data.total_listen_cnt = 1;
    data.shfe2ps_topic_id = 1000;
    data.shfe4ps_topic_id = 1101;
    data.ine2ps_topic_id = 5000;
    data.ine4ps_topic_id = 5101;
    data.md2ps_snap_port = 33022;
    data.md4ps_snap_port = 22000;
    data.cpucore = 0;
    data.timeout_cnt = 10;
    data.recvall = 1;
    data.options = 1;
    data.split_all_field = 1;
    data.shield_price_check = false;
    return data;
}

Loaded load(const std::string& content, int mask) {
    return load_in(support::TempDir(), content, mask);
}

Loaded load_in(const support::TempDir& dir, const std::string& content, int mask) {
    Loaded loaded;
    loaded.path = dir.write("feed.ini", content);
    const support::LogCapture capture(mask);
    CConfigParse parse(loaded.data);
    loaded.result = parse.InitConfig(loaded.path);
    loaded.mask = CCommonLog::GetInstance()->GetLogLevel();
    loaded.log = capture.summary();
    return loaded;
}

Loaded load_with(const std::string& lines) {
    return load("[config]\ndevice = exanic0\ninsts = all\n" + lines);
}
