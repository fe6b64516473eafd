// A configuration file, and the bring-up that follows from it.

#include "stage.h"

#include "dev/ExanicDevFunc.h"

#include <cstdio>
#include <sched.h>

namespace differential {
namespace {

constexpr char kFile[] = "scenario.ini";

void put_text(Trace& trace, const std::string& text) {
    trace.put(static_cast<uint32_t>(text.size()));
    trace.append(text.data(), text.size());
}

// Item 'c': the result and every member.
void trace_config(Trace& trace, int32_t result, const ExanicMdConfigData& config) {
    trace.begin('c');
    trace.put(result);
    for (const std::string* text :
         {&config.device, &config.insts, &config.shfe2ps_ip_a, &config.shfe2ps_ip_b,
          &config.shfe4ps_ip_a, &config.shfe4ps_ip_b, &config.ine2ps_ip_a, &config.ine2ps_ip_b,
          &config.ine4ps_ip_a, &config.ine4ps_ip_b}) {
        put_text(trace, *text);
    }
    trace.put(config.total_listen_cnt);
    for (const std::string& text : config.listen_insts) {
        put_text(trace, text);
    }
    for (const int16_t number : {config.shfe2ps_topic_id, config.shfe4ps_topic_id,
                                 config.ine2ps_topic_id, config.ine4ps_topic_id}) {
        trace.put(number);
    }
    trace.put(config.md2ps_snap_port);
    trace.put(config.md4ps_snap_port);
    trace.put(config.cpucore);
    trace.put(config.timeout_cnt);
    trace.put(config.recvall);
    trace.put(config.options);
    trace.put(config.split_all_field);
    for (const bool on : {config.shield_price_check, config.shfe2ps, config.shfe4ps, config.ine2ps,
                          config.ine4ps, config.recovery}) {
        trace.put(static_cast<uint8_t>(on));
    }
    trace.end();
}

} // namespace

void run_config(Stage& stage, Reader& scenario, int log_mask, Trace& trace) {
    const bool present = scenario.get<uint8_t>() != 0;
    const Bytes content = scenario.bytes();
    const bool bring_up = scenario.get<uint8_t>() != 0;
    const auto refused = scenario.get<uint8_t>();
    std::remove(kFile);
    if (present) {
        std::FILE* file = std::fopen(kFile, "wb");
        std::fwrite(content.data(), 1, content.size(), file);
        std::fclose(file);
    }

    cpu_set_t affinity;
    ::sched_getaffinity(0, sizeof affinity, &affinity);
    {
        const support::LogCapture capture(log_mask);
        ExanicMdConfigData config;
        CConfigParse parser(config);
        const int32_t result = parser.InitConfig(kFile);
        trace_config(trace, result, config);
        if (result == 0 && bring_up) {
            refuse(stage.card, refused);
            UEnableMask enabled{};
            enabled.mask = 0xFF;
            CExanicDevFunc device(config, enabled);
            trace.item('d', device.InitDev(), enabled.mask);
            stage.trace_stores(trace);
            device.ReleaseDev();
            for (const std::string& call : stage.card.calls()) {
                trace.begin('q');
                trace.append(call.data(), call.size());
                trace.end();
            }
        }
        trace_log(trace, capture.lines());
    }
    ::sched_setaffinity(0, sizeof affinity, &affinity); // the bring-up binds this thread
}

} // namespace differential
