#pragma once

// Turns the difference between two ten-level views of a side into the price changes of a decode
// buffer.
//
// What the receiving side does, and what follows from it. For each message and side a consumer
// starts with a depth counter of 5, whatever it holds. With entries numbered from 0 (best):
// - insert at level L writes entry L-1. If that entry was in use and L <= counter, the entries from
//   L-1 to counter-1 first move one deeper. The counter grows by one, to 10 at most.
// - delete at level L moves the entries from L to counter-1 one up, and the counter falls by one;
//   the entry at the new counter is cleared.
// - update at level L writes entry L-1 and moves nothing.
//
// Inserts and deletes therefore come out right exactly while the counter is at least the number of
// levels n that the side has (what lies behind is empty and may be moved freely), and each of them
// keeps that so. With n <= 5 it holds from the start. With n > 5 it has to be brought about:
// RESTATING. Before the first insert or delete of a side, levels 6 to n are inserted with the
// values they have, at level counter+1 each: L > counter, so nothing moves, and the counter reaches
// n. Then the true changes follow. A delete that lets an eleventh level into view is followed by an
// insert at level 10; an insert on a full side pushes the tenth out by itself.
//
// The same makes a consumer right that comes fresh from a snapshot, which has five levels a side:
// it lacks levels 6 to n, the counter of 5 fits it exactly, and the first message that inserts or
// deletes gives it the rest. Until then its first five levels are right at every moment, and an
// update beyond the fifth level stands where it belongs with empty entries before it. No entry
// behind level n is ever in use, because the number of levels only falls by deletes, and these come
// after the restating.
//
// A view never crosses or locks, so neither do the first five levels at the end of a message.

#include "exchange_sim/order_book.h"
#include "exchange_sim/truth.h"

namespace exchange_sim {

// The best levels of a side, at most kDepth.
struct SideView {
    int size = 0;
    std::array<BookLevel, kDepth> levels{};
};

SideView view_of(const OrderBook& book, Side side);

// Appends what turns `before` into `now`; returns the number of fields appended.
int publish_side(wirekit::DecodeBufferBuilder& buffer, Side side, const SideView& before,
                 const SideView& now);

// Appends the inserts that restate levels 6 and deeper; returns their number.
int restate_side(wirekit::DecodeBufferBuilder& buffer, Side side, const SideView& view);

} // namespace exchange_sim
