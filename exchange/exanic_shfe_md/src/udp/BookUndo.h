#ifndef BOOK_UNDO_H
#define BOOK_UNDO_H

// What it takes to put a book back as it was before one message.
//
// Every change of a book is undone by its inverse: at most one entry is lost by it, and that entry
// is kept. Copying one entry a change is less work than copying the book, and it never reads two
// fresh 4-byte stores with one wide load, which the processor would have to wait for.

#include "ExanicMdTypes.h"
#include "PriceRules.h"
#include "udp/MirpRecords.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

// The entries of one side of a record, best first.
struct BookSide {
    static constexpr int32_t CAPACITY = 10;

    double* px;
    int32_t* vol;

    // `side` is 0 for bids, 1 for asks. By arithmetic: which one a change is for is not to be
    // predicted, and a mispredicted branch costs more than all of this.
    static BookSide Of(instrument& record, uint32_t side) {
        constexpr size_t PX_STEP = offsetof(instrument, ask_px) - offsetof(instrument, bid_px);
        constexpr size_t VOL_STEP = offsetof(instrument, ask_vol) - offsetof(instrument, bid_vol);
        char* at = reinterpret_cast<char*>(&record);
        void* px = at + offsetof(instrument, bid_px) + side * PX_STEP;
        void* vol = at + offsetof(instrument, bid_vol) + side * VOL_STEP;
        return {static_cast<double*>(px), static_cast<int32_t*>(vol)};
    }

    bool IsEmpty(int32_t i) const { return IsEmptyLevel(px[i], vol[i]); }
    void Set(int32_t i, double price, int32_t volume) const {
        px[i] = price;
        vol[i] = volume;
    }
    // The compiler is kept from making one memmove of several.
    void Copy(int32_t from, int32_t to) const {
        asm("" : "+r"(from));
        Set(to, px[from], vol[from]);
    }
};

class BookUndo {
public:
    // At least as many changes as a decode buffer of the card has room for. A cache entry that says
    // it is longer can have more.
    static constexpr uint32_t CAPACITY = RECV_BUF_SIZE / sizeof(PriceChangeField);

    // Keeps entry `lost` of a side as change number `at` of the message, which is below CAPACITY.
    // The change is about to move the entries from `lost` to `freed` by one, towards `lost`.
    void Keep(uint32_t at, uint32_t side, const BookSide& book, int32_t lost, int32_t freed) {
        m_changes[at] = {book.px[lost], book.vol[lost], static_cast<int8_t>(lost),
                         static_cast<int8_t>(freed), static_cast<uint8_t>(side)};
    }

    // When there is no room left: keeps the whole book as it was. From then on it is all that
    // counts.
    void MakeRoom(instrument& record, uint32_t count) __attribute__((cold, noinline)) {
        if (m_isWhole) {
            return;
        }
        char now[BOOK_SIZE];
        memcpy(now, BookOf(record), BOOK_SIZE);
        Restore(record, count);
        memcpy(m_whole, BookOf(record), BOOK_SIZE);
        memcpy(BookOf(record), now, BOOK_SIZE);
        m_isWhole = true;
    }

    // Takes back the `count` changes kept.
    void Restore(instrument& record, uint32_t count) const __attribute__((cold, noinline)) {
        if (m_isWhole) {
            memcpy(BookOf(record), m_whole, BOOK_SIZE);
            return;
        }
        while (count > 0) {
            const Change& change = m_changes[--count];
            const BookSide book = BookSide::Of(record, change.side);
            // NOLINTBEGIN(bugprone-signed-char-misuse): indices, never negative
            const int32_t lost = change.lost;
            const int32_t freed = change.freed;
            // NOLINTEND(bugprone-signed-char-misuse)
            const int32_t step = freed < lost ? 1 : -1;
            for (int32_t i = freed; i != lost; i += step) {
                book.Copy(i + step, i);
            }
            book.Set(lost, change.px, change.vol);
        }
    }

private:
    static constexpr size_t BOOK_SIZE = sizeof(instrument) - offsetof(instrument, bid_px);

    struct Change {
        double px; // of the entry lost
        int32_t vol;
        int8_t lost;  // where it stood
        int8_t freed; // and what became free for it
        uint8_t side;
    };

    static char* BookOf(instrument& record) {
        return reinterpret_cast<char*>(&record) + offsetof(instrument, bid_px);
    }

    Change m_changes[CAPACITY]; // as many as the caller has counted
    bool m_isWhole = false;
    char m_whole[BOOK_SIZE]; // the book before the message, when m_isWhole
};

#endif
