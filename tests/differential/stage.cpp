#include "stage.h"

#include "tests/support/register_window.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <pthread.h>

namespace differential {

Stage::Stage() : table_(sizeof(share)), calc_(sizeof(PriceCalcInfo)), cache_(CACHE_BUF_SIZE) {
    card.reset();
}

void Stage::reset() {
    table_.forget();
    calc_.forget();
    cache_.forget();
    card.reset();
    stores_seen_ = 0;
}

void trace_used_records(Trace& trace, const share& table, const SparseMemory* memory) {
    const auto put = [&](std::size_t slot) {
        trace.item('r', static_cast<uint32_t>(slot), table.instmts[slot]);
    };
    if (memory != nullptr) {
        memory->each_used(0, sizeof(instrument), INSTRUMENT_SLOT_CNT, put);
        return;
    }
    static const instrument kEmpty{};
    for (std::size_t slot = 0; slot < INSTRUMENT_SLOT_CNT; ++slot) {
        if (std::memcmp(&table.instmts[slot], &kEmpty, sizeof kEmpty) != 0) {
            put(slot);
        }
    }
}

void Stage::trace_table(Trace& trace) const {
    const share& all = *table();
    trace.item('n', all.shfe_inst_cnt, all.ine_inst_cnt, all.shfe_pktno, all.ine_pktno);
    trace_used_records(trace, all, &table_);
    std::vector<std::size_t> slots;
    const auto note = [&](std::size_t slot) { slots.push_back(slot); };
    calc_.each_used(offsetof(PriceCalcInfo, priceTick), 8, INSTRUMENT_SLOT_CNT, note);
    calc_.each_used(offsetof(PriceCalcInfo, codecPrice), 8, INSTRUMENT_SLOT_CNT, note);
    calc_.each_used(offsetof(PriceCalcInfo, volumeMulti), 4, INSTRUMENT_SLOT_CNT, note);
    std::sort(slots.begin(), slots.end());
    slots.erase(std::unique(slots.begin(), slots.end()), slots.end());
    for (const std::size_t slot : slots) {
        trace.item('k', static_cast<uint32_t>(slot), calc()->priceTick[slot],
                   calc()->codecPrice[slot], calc()->volumeMulti[slot]);
    }
}

void Stage::put_stores(Trace& trace) {
    const support::RegisterWindow& window = support::RegisterWindow::instance();
    const std::size_t count = window.size();
    if (window.dropped() != 0 || window.unusual() != 0) {
        throw std::runtime_error("register stores that the window did not see as such");
    }
    trace.put(static_cast<uint32_t>(count - stores_seen_));
    for (; stores_seen_ < count; ++stores_seen_) {
        trace.put(window.records()[stores_seen_]);
    }
}

void Stage::trace_stores(Trace& trace) {
    trace.begin('w');
    put_stores(trace);
    trace.end();
}

// 0.
void refuse(support::ScriptedCard& card, uint8_t what) {
    using Call = support::ScriptedCard::Call;
    switch (what) {
    case 1:
        card.fail(Call::kAcquireHandle, "no such card");
        break;
    case 2:
        card.fail(Call::kRegisters, "no devkit image");
        break;
    case 3:
    case 4:
        card.fail(Call::kRxBuffer, "no such port", what == 3 ? 1 : 0);
        break;
    default:
        break;
    }
}

void trace_log(Trace& trace, const std::vector<support::LogLine>& lines) {
    const std::string own = std::to_string(::pthread_self());
    const auto thread_of = [&](const support::LogLine& line) {
        if (line.thread == own) {
            return 'C';
        }
        return line.function == "RunTcpDecoder" || line.function == "TcpRecv" ? 'D' : 'W';
    };
    for (const char thread : {'C', 'D', 'W'}) {
        for (const support::LogLine& line : lines) {
            if (thread_of(line) != thread) {
                continue;
            }
            const std::string text = std::string(1, thread) + ' ' + line.level + ' ' + line.file +
                                     ' ' + line.function + ' ' + line.message;
            trace.begin('g');
            trace.append(text.data(), text.size());
            trace.end();
        }
    }
}

} // namespace differential
