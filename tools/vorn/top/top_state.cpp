#include "tools/vorn/top/top_state.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <unordered_map>

namespace vorn_cli {

namespace {

constexpr uint64_t kHoldNs = 5'000'000'000;
constexpr long kPage = 10;
constexpr std::size_t kMostEvents = 64;
constexpr std::size_t kLongestSearch = 16;

// Where `part` is found in `text`, upper and lower case the same.
std::size_t position_of(const std::string& text, const std::string& part) {
    const auto found = std::search(
        text.begin(), text.end(), part.begin(), part.end(),
        [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
    return found == text.end() && !part.empty()
               ? std::string::npos
               : static_cast<std::size_t>(std::distance(text.begin(), found));
}

} // namespace

void TopState::look(const FeedView& view) {
    model_.status = view.status();
    const auto& events = view.events();
    const std::size_t count = std::min(events.size(), kMostEvents);
    model_.events.assign(events.rbegin(), events.rbegin() + static_cast<std::ptrdiff_t>(count));
    order_rows(view);
    find_rows();
    choose_row(view);
}

// The busiest first, then the others by identifier; the order of before while it is held.
void TopState::order_rows(const FeedView& view) {
    std::unordered_map<uint32_t, std::size_t> order;
    if (holds()) {
        for (const TopRow& row : all_) {
            order.emplace(row.slot, order.size());
        }
    }
    std::unordered_map<uint32_t, double> rates;
    for (const BusyInstrument& busy : view.busiest(vorn_bus::BusReader::slots())) {
        rates.emplace(busy.slot, busy.updates_per_s);
        order.emplace(busy.slot, order.size());
    }
    all_.clear();
    for (const InstrumentState& state : view.instruments()) {
        const auto rate = rates.find(state.slot);
        all_.push_back({state.slot, instrument_text(state.record.inst_id),
                        rate != rates.end() ? rate->second : 0});
    }
    const auto rank = [&](const TopRow& row) {
        const auto found = order.find(row.slot);
        return found != order.end() ? found->second : order.size();
    };
    std::sort(all_.begin(), all_.end(), [&](const TopRow& a, const TopRow& b) {
        const std::size_t rank_a = rank(a);
        const std::size_t rank_b = rank(b);
        return rank_a != rank_b ? rank_a < rank_b : a.inst_id < b.inst_id;
    });
}

// Those that begin with what is searched for come before those that have it inside.
void TopState::find_rows() {
    model_.rows.clear();
    std::vector<TopRow> inside;
    for (const TopRow& row : all_) {
        const std::size_t at = model_.searching ? position_of(row.inst_id, model_.search) : 0;
        if (at == 0) {
            model_.rows.push_back(row);
        } else if (at != std::string::npos) {
            inside.push_back(row);
        }
    }
    model_.rows.insert(model_.rows.end(), inside.begin(), inside.end());
}

void TopState::choose_row(const FeedView& view) {
    model_.automatic = pinned_.empty();
    model_.chosen = 0;
    if (model_.searching) {
        match_ = std::min(match_, model_.rows.empty() ? 0 : model_.rows.size() - 1);
        model_.chosen = match_;
    } else if (!pinned_.empty()) {
        const auto found = std::find_if(model_.rows.begin(), model_.rows.end(),
                                        [&](const TopRow& row) { return row.inst_id == pinned_; });
        if (found == model_.rows.end()) {
            model_.shown.reset(); // not there yet
            return;
        }
        model_.chosen = static_cast<std::size_t>(found - model_.rows.begin());
    }
    model_.shown =
        model_.rows.empty() ? std::nullopt : view.instrument_at(model_.rows[model_.chosen].slot);
}

void TopState::move(long steps) {
    if (model_.rows.empty()) {
        return;
    }
    const long last = static_cast<long>(model_.rows.size()) - 1;
    const long row = std::clamp(static_cast<long>(model_.chosen) + steps, 0L, last);
    if (model_.searching) {
        match_ = static_cast<std::size_t>(row);
    } else {
        pinned_ = model_.rows[static_cast<std::size_t>(row)].inst_id;
        hold_until_ns_ = now_ns_ + kHoldNs;
    }
    model_.chosen = static_cast<std::size_t>(row);
}

bool TopState::press(Key key, char character, uint64_t now_ns) {
    now_ns_ = now_ns;
    const long all = static_cast<long>(model_.rows.size());
    switch (key) {
    case Key::kUp:
        move(-1);
        return true;
    case Key::kDown:
        move(1);
        return true;
    case Key::kPageUp:
        move(-kPage);
        return true;
    case Key::kPageDown:
        move(kPage);
        return true;
    case Key::kHome:
        move(-all);
        return true;
    case Key::kEnd:
        move(all);
        return true;
    default:
        break;
    }
    if (model_.searching) {
        return press_in_search(key, character);
    }
    if (key == Key::kEnter) {
        move(0);
    } else if (key == Key::kEscape || (key == Key::kCharacter && character == 'a')) {
        pinned_.clear();
        hold_until_ns_ = 0;
    } else if (key == Key::kCharacter && character == '/') {
        model_.searching = true;
        model_.search.clear();
        match_ = 0;
    }
    return key != Key::kCharacter || character != 'q';
}

bool TopState::press_in_search(Key key, char character) {
    if (key == Key::kEnter) {
        if (!model_.rows.empty()) {
            pinned_ = model_.rows[model_.chosen].inst_id;
        }
        model_.searching = false;
    } else if (key == Key::kEscape) {
        model_.searching = false;
    } else if (key == Key::kBackspace) {
        if (model_.search.empty()) {
            model_.searching = false;
        } else {
            model_.search.pop_back();
        }
        match_ = 0;
    } else if (key == Key::kCharacter && character > ' ' && model_.search.size() < kLongestSearch) {
        model_.search += character;
        match_ = 0;
    }
    return true;
}

} // namespace vorn_cli
