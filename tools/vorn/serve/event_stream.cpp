#include "tools/vorn/serve/event_stream.h"

#include "tools/vorn/serve/api_json.h"

#include <nlohmann/json.hpp>

namespace vorn_cli {

namespace {

constexpr std::size_t kAllEvents = SIZE_MAX;

} // namespace

std::string sse_message(std::string_view name, std::string_view data) {
    std::string message = "event: ";
    message += name;
    for (;;) {
        const std::size_t end = data.find('\n');
        message += "\ndata: ";
        message += data.substr(0, end);
        if (end == std::string_view::npos) {
            break;
        }
        data.remove_prefix(end + 1);
    }
    message += "\n\n";
    return message;
}

EventStream::EventStream(const MarketWatch& watch, StreamRequest request)
    : watch_(watch), request_(std::move(request)) {}

std::string EventStream::due(uint64_t now_ns) {
    std::string out;
    if (openings_ != watch_.openings()) {
        openings_ = watch_.openings();
        slot_.reset();
        sequence_ = 0;
        sent_past_ = false;
        sent_list_.reset();
    }
    add_events(out);
    if (now_ns >= status_due_ns_) {
        status_due_ns_ = now_ns + kStatusIntervalNs;
        add_status(out);
        find_instrument();
    }
    if (request_.list && now_ns >= list_due_ns_) {
        add_list(out);
        list_due_ns_ = sent_list_ ? now_ns + kListIntervalNs : 0;
    }
    if (slot_ && now_ns >= book_due_ns_) {
        book_due_ns_ = now_ns + kBookIntervalNs;
        add_book(out);
        add_trades(out);
        add_chart(out);
    }
    return out;
}

// Its slot may not be known yet, or no longer, while a feed loads.
void EventStream::find_instrument() {
    if (slot_ || request_.inst_id.empty()) {
        return;
    }
    if (const auto list = watch_.instruments()) {
        slot_ = list->slot_of(request_.inst_id);
    }
}

void EventStream::add_status(std::string& out) {
    out += sse_message("status", to_json(watch_.status(), watch_.options()).dump());
}

void EventStream::add_events(std::string& out) {
    const auto events = watch_.events(last_event_, kAllEvents);
    if (events.empty() && sent_events_) {
        return;
    }
    if (!events.empty()) {
        last_event_ = events.back().id;
    }
    out += sse_message("events", events_json(events, !sent_events_).dump());
    sent_events_ = true;
}

void EventStream::add_list(std::string& out) {
    const auto list = watch_.instruments();
    if (!list || list == sent_list_) {
        return;
    }
    sent_list_ = list;
    out += sse_message("instruments", *list->json(request_.query, request_.limit));
}

void EventStream::add_book(std::string& out) {
    const uint64_t sequence = watch_.sequence(*slot_);
    if (sequence == sequence_) {
        return;
    }
    if (const auto state = watch_.instrument_at(*slot_)) {
        sequence_ = state->sequence;
        out += sse_message("book", to_json(*state).dump());
    }
}

void EventStream::add_trades(std::string& out) {
    const auto trades = watch_.trades(*slot_, last_trade_);
    if (trades.empty() && sent_past_) {
        return;
    }
    if (!trades.empty()) {
        last_trade_ = trades.back().id;
    }
    out += sse_message("trades", trades_json(request_.inst_id, trades, !sent_past_).dump());
}

void EventStream::add_chart(std::string& out) {
    if (!sent_past_) {
        sent_past_ = true;
        out += sse_message("chart", samples_json(request_.inst_id, watch_.samples(*slot_)).dump());
    }
}

} // namespace vorn_cli
