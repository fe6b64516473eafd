#include "exchange_sim/book_publisher.h"

#include <algorithm>

namespace exchange_sim {

namespace {

constexpr int kCounterStart = 5; // the consumer's depth counter at the start of each message

bool is_better(Side side, int32_t left, int32_t right) {
    return side == Side::kBid ? left > right : left < right;
}

uint8_t wire_level(int index) {
    return static_cast<uint8_t>(index + 1);
}

// Walks the two views in step. Updates are kept apart from what changes the number of levels, so
// that a message without inserts and deletes needs no restating.
struct Difference {
    std::array<int, kDepth> deleted{};  // indices into `before`, ascending
    std::array<int, kDepth> inserted{}; // indices into `now`, ascending
    std::array<int, kDepth> updated{};  // indices into `now`, ascending
    int deletes = 0;
    int inserts = 0;
    int updates = 0;
};

Difference compare(Side side, const SideView& before, const SideView& now) {
    Difference difference;
    int old_index = 0;
    int new_index = 0;
    while (old_index < before.size || new_index < now.size) {
        if (new_index == now.size) {
            // Worse than all that is in view now. If the view is full, the inserts push it out.
            if (now.size < kDepth) {
                difference.deleted[static_cast<std::size_t>(difference.deletes++)] = old_index;
            }
            ++old_index;
            continue;
        }
        const BookLevel& new_level = now.levels[static_cast<std::size_t>(new_index)];
        if (old_index == before.size) {
            difference.inserted[static_cast<std::size_t>(difference.inserts++)] = new_index++;
            continue;
        }
        const BookLevel& old_level = before.levels[static_cast<std::size_t>(old_index)];
        if (old_level.price_ticks == new_level.price_ticks) {
            if (old_level.volume != new_level.volume) {
                difference.updated[static_cast<std::size_t>(difference.updates++)] = new_index;
            }
            ++old_index;
            ++new_index;
        } else if (is_better(side, old_level.price_ticks, new_level.price_ticks)) {
            difference.deleted[static_cast<std::size_t>(difference.deletes++)] = old_index++;
        } else {
            difference.inserted[static_cast<std::size_t>(difference.inserts++)] = new_index++;
        }
    }
    return difference;
}

} // namespace

SideView view_of(const OrderBook& book, Side side) {
    SideView view;
    view.size = static_cast<int>(std::min<std::size_t>(book.level_count(side), kDepth));
    for (int index = 0; index < view.size; ++index) {
        const auto depth = static_cast<std::size_t>(index);
        view.levels[depth] = book.level(side, depth);
    }
    return view;
}

int restate_side(wirekit::DecodeBufferBuilder& buffer, Side side, const SideView& view) {
    for (int index = kCounterStart; index < view.size; ++index) {
        const BookLevel& level = view.levels[static_cast<std::size_t>(index)];
        buffer.insert(side, wire_level(index), level.price_ticks, level.volume);
    }
    return std::max(0, view.size - kCounterStart);
}

int publish_side(wirekit::DecodeBufferBuilder& buffer, Side side, const SideView& before,
                 const SideView& now) {
    const Difference difference = compare(side, before, now);
    int fields = 0;
    if (difference.deletes + difference.inserts > 0) {
        fields += restate_side(buffer, side, before);
    }
    // Deepest first, so that the indices of `before` still hold.
    for (int i = difference.deletes; i-- > 0;) {
        buffer.erase(side, wire_level(difference.deleted[static_cast<std::size_t>(i)]));
        ++fields;
    }
    // Best first: what stands before an inserted level is already as it is in `now`.
    for (int i = 0; i < difference.inserts; ++i) {
        const int index = difference.inserted[static_cast<std::size_t>(i)];
        const BookLevel& level = now.levels[static_cast<std::size_t>(index)];
        buffer.insert(side, wire_level(index), level.price_ticks, level.volume);
        ++fields;
    }
    for (int i = 0; i < difference.updates; ++i) {
        const int index = difference.updated[static_cast<std::size_t>(i)];
        const BookLevel& level = now.levels[static_cast<std::size_t>(index)];
        buffer.update(side, wire_level(index), level.price_ticks, level.volume);
        ++fields;
    }
    return fields;
}

} // namespace exchange_sim
