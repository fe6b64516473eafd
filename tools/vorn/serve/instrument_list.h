#pragma once

// All instruments at a moment, in the order in which a page shows them.

#include "tools/vorn/bus_view/feed_view.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vorn_cli {

struct ListedInstrument {
    InstrumentState state;
    uint64_t updates = 0; // in the window of the rates
};

inline constexpr std::size_t kMostListed = 1000;

// Does not change once it is made; threads may ask at the same time. Answers are kept, because many
// pages ask the same of one list.
class InstrumentList {
public:
    // Ordered by the volume traded today, the most first: an order that hardly moves while somebody
    // looks at it.
    explicit InstrumentList(std::vector<ListedInstrument> instruments);

    std::size_t size() const { return instruments_.size(); }
    // Exactly this identifier.
    std::optional<uint32_t> slot_of(std::string_view inst_id) const;
    // {"total": 400, "found": 12, "instruments": [...]}: those whose identifier contains `query`
    // (upper and lower case are the same), `limit` of them at most.
    std::shared_ptr<const std::string> json(const std::string& query, std::size_t limit) const;

private:
    std::vector<ListedInstrument> instruments_;
    std::vector<std::string> names_; // parallel, lower case
    mutable std::mutex mutex_;
    mutable std::map<std::pair<std::string, std::size_t>, std::shared_ptr<const std::string>> kept_;
};

} // namespace vorn_cli
