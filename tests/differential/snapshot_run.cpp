// Frames against the sessions of the snapshot channel.

#include "stage.h"

#include "tcp/ExanicTcpFunc.h"
#include "tcp/TaskWorker.h"

#include <cstring>
#include <memory>
#include <optional>
#include <vector>

namespace differential {
namespace {

struct Setting {
    ExanicMdConfigData config;
    UEnableMask enabled{};
    bool on_worker = false; // through the card and a worker thread, else on this thread
};

Setting read_setting(Reader& scenario) {
    Setting setting;
    ExanicMdConfigData& config = setting.config;
    config.shfe2ps_topic_id = scenario.get<int16_t>();
    config.shfe4ps_topic_id = scenario.get<int16_t>();
    config.ine2ps_topic_id = scenario.get<int16_t>();
    config.ine4ps_topic_id = scenario.get<int16_t>();
    config.md2ps_snap_port = scenario.get<uint16_t>();
    config.md4ps_snap_port = scenario.get<uint16_t>();
    config.recvall = scenario.get<int8_t>();
    config.options = scenario.get<int8_t>();
    config.shield_price_check = scenario.get<uint8_t>() != 0;
    config.recovery = scenario.get<uint8_t>() != 0;
    setting.enabled.mask = scenario.get<uint8_t>();
    setting.on_worker = scenario.get<uint8_t>() != 0;
    config.total_listen_cnt = scenario.get<uint32_t>();
    for (uint32_t i = 0; i < config.total_listen_cnt; ++i) {
        config.listen_insts.push_back(scenario.text());
    }
    return setting;
}

// Calls `visit` with the index of every element that differs from `plain`; most do not, so they are
// compared by the hundred first.
template <typename Element, std::size_t kCount, typename Visit>
void each_unlike(const Element (&elements)[kCount], const Element& plain, Visit&& visit) {
    constexpr std::size_t kBlock = 128;
    static_assert(kCount % kBlock == 0);
    const std::vector<Element> plain_block(kBlock, plain);
    for (std::size_t first = 0; first < kCount; first += kBlock) {
        if (std::memcmp(&elements[first], plain_block.data(), kBlock * sizeof plain) == 0) {
            continue;
        }
        for (std::size_t i = first; i < first + kBlock; ++i) {
            if (std::memcmp(&elements[i], &plain, sizeof plain) != 0) {
                visit(static_cast<uint32_t>(i));
            }
        }
    }
}

// Item 's' for every session that something has touched.
void trace_sessions(Trace& trace, const CExanicTcpFunc& tcp) {
    TcpSession untouched{};
    untouched.em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
    each_unlike(tcp.m_sessions, untouched, [&](uint32_t port) {
        const TcpSession& session = tcp.m_sessions[port];
        trace.begin('s');
        trace.put(port);
        trace.put(session.src_host);
        trace.put(session.dst_host);
        trace.put(session.src_port);
        trace.put(session.dst_port);
        trace.put(session.lost_buf_size);
        trace.put(session.next_expt_seq);
        trace.put(session.current_seq);
        trace.put(session.frag_flag);
        trace.put(session.lost_flag);
        trace.put(session.init);
        trace.put(static_cast<uint8_t>(session.frag_buf != nullptr));
        trace.put(static_cast<int32_t>(session.em_dqp_data_type));
        trace.put(session.frag_buf_offset);
        if (session.frag_buf != nullptr) {
            trace.append(session.frag_buf, static_cast<std::size_t>(session.frag_buf_offset));
        }
        for (const TcpLostBuf* held = session.lost_buf_head; held != nullptr; held = held->next) {
            trace.put(held->len);
            trace.append(held->buf, held->len);
        }
        trace.end();
    });
}

void trace_channel(Trace& trace, const CExanicTcpFunc& tcp, const UEnableMask& finished) {
    trace.item('m', finished.mask, static_cast<uint8_t>(tcp.shfe_cnt_80_flag),
               static_cast<uint8_t>(tcp.ine_cnt_80_flag), static_cast<uint8_t>(tcp.shfe_cnt_flag),
               static_cast<uint8_t>(tcp.ine_cnt_flag));
    each_unlike(tcp.inter_infos, inter_info{},
                [&](uint32_t slot) { trace.item('l', slot, tcp.inter_infos[slot]); });
    trace_sessions(trace, tcp);
}

} // namespace

void run_snapshot(Stage& stage, Reader& scenario, int log_mask, Trace& trace) {
    const support::LogCapture capture(log_mask);
    const Setting setting = read_setting(scenario);
    UEnableMask finished{};
    const auto tcp = std::make_unique<CExanicTcpFunc>(setting.config, stage.table(),
                                                      setting.enabled, finished, *stage.calc());
    tcp->InitTcp(stage.card.registers(), stage.card.rx(1));

    std::optional<CThread> worker;
    if (setting.on_worker) {
        worker.emplace();
    }
    const auto count = scenario.get<uint32_t>();
    for (uint32_t i = 0; i < count; ++i) {
        const bool is_frame = scenario.get<uint8_t>() != 0;
        const Bytes data = scenario.bytes();
        if (setting.on_worker) {
            if (is_frame) {
                stage.card.push(1, data);
            } else {
                Reader in(data.data(), data.size());
                stage.card.push_result(1, in.get<int64_t>());
            }
            tcp->TcpRecv(*worker);
            continue;
        }
        // As the worker's task has it: a frame behind a finished snapshot is not looked at.
        if (finished.mask != setting.enabled.mask) {
            const auto copy = std::make_unique<char[]>(data.size() + DECODE_SLACK);
            std::memcpy(copy.get(), data.data(), data.size());
            tcp->_PacketHandler(copy.get(), static_cast<unsigned int>(data.size()));
        }
        const share& table = *stage.table();
        trace.item('f', finished.mask, table.shfe_inst_cnt, table.ine_inst_cnt, table.shfe_pktno,
                   table.ine_pktno);
    }
    if (worker) {
        worker->Join();
    }
    stage.trace_stores(trace);
    trace_channel(trace, *tcp, finished);
    stage.trace_table(trace);
    trace_log(trace, capture.lines());
}

} // namespace differential
