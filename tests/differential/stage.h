#pragma once

// What every kind of scenario stands on: the card, the table, the price scaling, and how they are
// written into a trace.

#include "exchange_format.h"
#include "sparse_memory.h"

#include "ExanicMdTypes.h"
#include "config/ConfigParse.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_card.h"

#include <string>
#include <vector>

namespace differential {

class Stage {
public:
    Stage();

    void reset();
    share* table() const { return table_.as<share>(); }
    PriceCalcInfo* calc() const { return calc_.as<PriceCalcInfo>(); }
    char* cache() const { return cache_.as<char>(); }

    // Items: 'n' the counters, 'r' every record and 'k' every scaling that is not all zeros.
    void trace_table(Trace& trace) const;
    // Into the open item: the stores since the last call.
    void put_stores(Trace& trace);
    // Item 'w': the stores since the last call.
    void trace_stores(Trace& trace);

    support::ScriptedCard& card = support::ScriptedCard::instance();

private:
    SparseMemory table_;
    SparseMemory calc_;
    SparseMemory cache_;
    std::size_t stores_seen_ = 0;
};

// What the card refuses: 0 nothing, 1 the handle, 2 the registers, 3 and 4 the buffers of port 1,
// 0.
void refuse(support::ScriptedCard& card, uint8_t what);

// Items 'g': "<thread> <level> <file> <function> <message>", the threads one after another: C the
// caller, D the decoder's thread, W its worker.
void trace_log(Trace& trace, const std::vector<support::LogLine>& lines);
void trace_used_records(Trace& trace, const share& table, const SparseMemory* memory);

// The kinds of scenario.
void run_incremental(Stage& stage, Reader& scenario, int log_mask, Trace& trace);
void run_snapshot(Stage& stage, Reader& scenario, int log_mask, Trace& trace);
void run_config(Stage& stage, Reader& scenario, int log_mask, Trace& trace);
void run_feed(Stage& stage, Reader& scenario, Trace& trace);

} // namespace differential
