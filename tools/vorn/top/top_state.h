#pragma once

// What the keys of `vorn top` do, and how its model comes from a feed. No terminal.

#include "tools/vorn/top/top_model.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vorn_cli {

enum class Key : uint8_t {
    kNone,
    kCharacter,
    kUp,
    kDown,
    kPageUp,
    kPageDown,
    kHome,
    kEnd,
    kEnter,
    kEscape,
    kBackspace,
};

class TopState {
public:
    // Shows the instrument of that identifier as soon as there is one; empty: the busiest.
    explicit TopState(std::string inst_id) : pinned_(std::move(inst_id)) {}

    // Takes a look at the feed, which has just been polled.
    void look(const FeedView& view);
    // False when the key means the end. look() again before drawing. `character` only with
    // Key::kCharacter.
    bool press(Key key, char character, uint64_t now_ns);
    // The list keeps its order for a moment after a cursor key, so that what is aimed at stays.
    // `now_ns` of the same clock as press() has.
    void set_time(uint64_t now_ns) { now_ns_ = now_ns; }

    const TopModel& model() const { return model_; }

private:
    void order_rows(const FeedView& view);
    void find_rows();
    void choose_row(const FeedView& view);
    void move(long steps);
    bool press_in_search(Key key, char character);
    bool holds() const { return now_ns_ < hold_until_ns_; }

    TopModel model_;
    std::vector<TopRow> all_;
    std::string pinned_;    // identifier of what is shown whatever happens; empty: the busiest
    std::size_t match_ = 0; // chosen one of the rows that a search finds
    uint64_t now_ns_ = 0;
    uint64_t hold_until_ns_ = 0;
};

} // namespace vorn_cli
