#pragma once

// What a page is sent while it is open: server-sent events. docs/serve.md has their shapes.
//
// A stream keeps no queue. It remembers what it sent last and, when the client has taken that,
// sends what is true by then: a slow client sees fewer books, and none of the old ones.

#include "tools/vorn/serve/market_watch.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace vorn_cli {

// "event: NAME\ndata: ...\n\n"; a line break in the data begins another data line.
std::string sse_message(std::string_view name, std::string_view data);

struct StreamRequest {
    std::string inst_id; // whose book and trades; empty: none
    bool list = false;   // with the list of instruments
    std::string query;   // of the list
    std::size_t limit = 100;
};

class EventStream {
public:
    EventStream(const MarketWatch& watch, StreamRequest request);

    // All messages that are due at this moment, nothing when there are none. `now_ns` is
    // CLOCK_MONOTONIC and does not fall.
    std::string due(uint64_t now_ns);

    static constexpr uint64_t kStatusIntervalNs = 1'000'000'000;
    static constexpr uint64_t kListIntervalNs = 1'000'000'000;
    static constexpr uint64_t kBookIntervalNs = 50'000'000;

private:
    void find_instrument();
    void add_status(std::string& out);
    void add_events(std::string& out);
    void add_list(std::string& out);
    void add_book(std::string& out);
    void add_trades(std::string& out);
    void add_chart(std::string& out);

    const MarketWatch& watch_;
    const StreamRequest request_;
    uint64_t status_due_ns_ = 0;
    uint64_t list_due_ns_ = 0;
    uint64_t book_due_ns_ = 0;
    uint64_t last_event_ = 0;
    bool sent_events_ = false;
    std::shared_ptr<const InstrumentList> sent_list_;
    uint64_t openings_ = 0;
    std::optional<uint32_t> slot_;
    uint64_t sequence_ = 0;
    uint64_t last_trade_ = 0;
    bool sent_past_ = false; // trades and chart of before
};

} // namespace vorn_cli
