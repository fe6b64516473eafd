// G1, G2: one message from the card to the callback, against the limit and the literal reading.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"
#include "bench/harness/stand_in_card.h"
#include "bench/reference/feed_parts.h"
#include "bench/reference/limit_live.h"
#include "bench/reference/literal_live.h"
#include "bench/reference/live_stream.h"
#include "bench/reference/market.h"

#include "CommonLog.h"
#include "ExanicMdImpl.h"
#include "config/ConfigParse.h"
#include "udp/ExanicUdpFunc.h"

#include <cstring>
#include <memory>

namespace {

using namespace bench;

constexpr uint32_t kMessages = 200'000;

uint64_t g_callbacks = 0;
double g_sum = 0;

void on_update(instrument* record) {
    ++g_callbacks;
    g_sum += record->last_px;
}

void ask(uint32_t instruments, int log_level) {
    const auto fresh = make_market(instruments);
    const auto market = std::make_unique<Market>();
    const FrameList frames = make_live_stream(instruments, kMessages);
    exanic_rx_t* const rx = exanic_acquire_rx_buffer(nullptr, 0, 0);

    const ExanicMdConfigData config = feed_config();
    CacheBufInfo cache{};
    uint32_t slot = 0;
    auto feed =
        std::make_unique<CExanicUdpFunc>(config, &market->table, cache, market->scale, slot);
    feed->InitUdp(registers(), rx);
    auto literal = std::make_unique<LiteralLive>(*market, rx, registers());
    auto limit = std::make_unique<LimitLive>(*market, rx, registers());
    set_update_md_callback(on_update);
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(log_level));

    const auto reset = [&] {
        std::memcpy(static_cast<void*>(market.get()), fresh.get(), sizeof(Market));
        serve(frames);
        g_callbacks = 0;
        g_sum = 0;
    };
    const auto hash = [&] {
        return hash_bytes(&market->table, sizeof(share), g_callbacks * 3 + slot);
    };
    const auto loop = [&](auto&& receive) {
        for (uint32_t n = 0; n < kMessages; ++n) {
            if (receive() == 1) {
                update_md(&market->table.instmts[slot]);
            }
        }
    };
    Contest contest;
    contest.operations = kMessages;
    const Times times = run_contest(
        contest, {{"vorn", reset, [&] { loop([&] { return feed->UdpRecv(); }); }, hash},
                  {"limit", reset, [&] { loop([&] { return limit->receive(slot); }); }, hash},
                  {"literal", reset, [&] { loop([&] { return literal->receive(slot); }); }, hash}});
    const std::string name =
        std::to_string(instruments) + (instruments == 1 ? " instrument" : " instruments");
    for (const char* contender : {"limit", "vorn", "literal"}) {
        report_figure("G1", contender, name, times.ns(contender), "ns");
    }
    report_goal({"G1", name, times.ratio("vorn", "limit"), Better::kSmaller, 1.4, 1.2});
    report_goal({"G2", name, times.ratio("literal", "vorn"), Better::kLarger, 8, 10});
}

} // namespace

int main() {
    report_run("live_path", pin_to_one_processor());
    for (const uint32_t instruments : {1u, 800u, 20'480u}) {
        ask(instruments, 7);
    }
    return 0;
}
