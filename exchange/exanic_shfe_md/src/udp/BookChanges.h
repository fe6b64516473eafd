#ifndef BOOK_CHANGES_H
#define BOOK_CHANGES_H

// The ten-level book of one record while one message is applied to it.
//
// A message does not say how many levels a side has. Each one starts from the assumption of five
// and counts its own inserts and deletes, which decides how far a level is shifted.
//
// In a header, so that the decoder's field loop contains it.

#include "udp/BookUndo.h"

class BookChanges {
public:
    static constexpr int32_t CAPACITY = BookSide::CAPACITY;
    static constexpr int32_t ASSUMED_DEPTH = 5; // levels of a side at the start of a message

    // What is kept for an undo lies apart, so that everything here stays in registers.
    BookChanges(instrument& record, BookUndo& undo) : m_record(record), m_undo(undo) {}

    // `side` is 0 for bids, 1 for asks; `level` is 1 (best) to 10.

    void Overwrite(uint32_t side, int32_t level, double price, int32_t vol) {
        const BookSide book = BookSide::Of(m_record, side);
        Keep(side, book, level - 1, level - 1);
        book.Set(level - 1, price, vol);
    }

    // Shifts the levels from there on one deeper, unless the level is empty or lies beyond the
    // depth; with ten levels present the tenth drops out.
    void Insert(uint32_t side, int32_t level, double price, int32_t vol) {
        const BookSide book = BookSide::Of(m_record, side);
        const int32_t k = level - 1;
        const int32_t depth = DepthOf(side);
        int32_t last = k;
        if (level <= depth && !book.IsEmpty(k)) {
            last = depth < CAPACITY ? depth : CAPACITY - 1;
        }
        Keep(side, book, last, k);
        for (int32_t i = last; i > k; --i) {
            book.Copy(i - 1, i);
        }
        book.Set(k, price, vol);
        const bool fifthStaysEmpty = level == ASSUMED_DEPTH && IsEmptyLevel(price, vol);
        if (depth < CAPACITY && !fifthStaysEmpty) {
            AddDepth(side, 1);
        }
    }

    // Moves the deeper levels one up and clears the last one of the depth.
    void Delete(uint32_t side, int32_t level) {
        const int32_t last = DepthOf(side) - 1;
        if (last < 0) {
            return;
        }
        AddDepth(side, -1);
        const BookSide book = BookSide::Of(m_record, side);
        const int32_t k = level - 1 < last ? level - 1 : last;
        Keep(side, book, k, last);
        for (int32_t i = k; i < last; ++i) {
            book.Copy(i + 1, i);
        }
        book.Set(last, 0.0, 0);
    }

    // Puts the book back as it was before the message.
    void Restore() { m_undo.Restore(m_record, m_count); }

private:
    void Keep(uint32_t side, const BookSide& book, int32_t lost, int32_t freed) {
        if (__builtin_expect(m_count == BookUndo::CAPACITY, 0)) {
            m_undo.MakeRoom(m_record, m_count);
            m_count = 0;
        }
        m_undo.Keep(m_count, side, book, lost, freed);
        ++m_count;
    }

    // Both depths in one number, so that the side is a shift.
    int32_t DepthOf(uint32_t side) const { return m_depths >> side * 16 & 0xff; }
    void AddDepth(uint32_t side, int32_t change) { m_depths += change * (1 << side * 16); }

    instrument& m_record;
    BookUndo& m_undo;
    int32_t m_depths = ASSUMED_DEPTH << 16 | ASSUMED_DEPTH; // bids in the low half
    uint32_t m_count = 0;                                   // changes kept
};

#endif
