#include "tools/vorn/serve/instrument_list.h"

#include "tools/vorn/bus_view/feed_json.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

namespace vorn_cli {

namespace {

constexpr std::size_t kMostKept = 64;

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

} // namespace

InstrumentList::InstrumentList(std::vector<ListedInstrument> instruments)
    : instruments_(std::move(instruments)) {
    std::stable_sort(instruments_.begin(), instruments_.end(),
                     [](const ListedInstrument& left, const ListedInstrument& right) {
                         return left.state.record.volume > right.state.record.volume;
                     });
    names_.reserve(instruments_.size());
    for (const ListedInstrument& listed : instruments_) {
        names_.push_back(lower(instrument_text(listed.state.record.inst_id)));
    }
}

std::optional<uint32_t> InstrumentList::slot_of(std::string_view inst_id) const {
    for (const ListedInstrument& listed : instruments_) {
        if (instrument_text(listed.state.record.inst_id) == inst_id) {
            return listed.state.slot;
        }
    }
    return std::nullopt;
}

std::shared_ptr<const std::string> InstrumentList::json(const std::string& query,
                                                        std::size_t limit) const {
    const auto key = std::make_pair(lower(query), std::min(limit, kMostListed));
    {
        const std::lock_guard lock(mutex_);
        if (const auto kept = kept_.find(key); kept != kept_.end()) {
            return kept->second;
        }
    }
    nlohmann::json rows = nlohmann::json::array();
    std::size_t found = 0;
    for (std::size_t i = 0; i < instruments_.size(); ++i) {
        if (names_[i].find(key.first) == std::string::npos) {
            continue;
        }
        if (++found <= key.second) {
            rows.push_back(to_json_row(instruments_[i].state, instruments_[i].updates));
        }
    }
    const nlohmann::json answer = {
        {"total", instruments_.size()}, {"found", found}, {"instruments", std::move(rows)}};
    auto text = std::make_shared<const std::string>(answer.dump());
    const std::lock_guard lock(mutex_);
    if (kept_.size() < kMostKept) {
        kept_.emplace(key, text);
    }
    return text;
}

} // namespace vorn_cli
