#ifndef BOOK_SIDE_H
#define BOOK_SIDE_H

// One side of a record's ten-level book while one message is applied to it.
//
// A message does not say how many levels a side has. Each one starts from the assumption of five
// and counts its own inserts and deletes, which decides how far a level is shifted.
//
// Each entry is kept as it was before its first change, so that the side can be put back. Copying
// what a message touches is less work than copying the record, and it never reads two fresh 4-byte
// stores with one wide load, which the processor would have to wait for.
//
// In a header, so that the decoder's field loop contains it.

#include "PriceRules.h"

#include <cstdint>

struct BookSide {
    static constexpr int32_t CAPACITY = 10;     // entries of the arrays
    static constexpr int32_t ASSUMED_DEPTH = 5; // levels at the start of a message

    BookSide(double* prices, int32_t* volumes) : px(prices), vol(volumes) {}

    double* px;
    int32_t* vol;
    int32_t depth = ASSUMED_DEPTH;
    uint32_t touched = 0;     // bit i: entry i was changed
    double oldPx[CAPACITY];   // of the entries touched
    int32_t oldVol[CAPACITY]; // likewise

    bool IsEmpty(int32_t i) const { return IsEmptyLevel(px[i], vol[i]); }

    void Set(int32_t i, double price, int32_t volume) {
        const uint32_t bit = 1u << i;
        if ((touched & bit) == 0) {
            touched |= bit;
            oldPx[i] = px[i];
            oldVol[i] = vol[i];
        }
        px[i] = price;
        vol[i] = volume;
    }

    // `level` is 1 (best) to 10. Shifts the levels from there on one deeper, unless the level is
    // empty or lies beyond the depth; with ten levels present the tenth drops out.
    void Insert(int32_t level, double price, int32_t volume) {
        const int32_t k = level - 1;
        if (level <= depth && !IsEmpty(k)) {
            for (int32_t i = depth < CAPACITY ? depth : CAPACITY - 1; i > k; --i) {
                Set(i, px[i - 1], vol[i - 1]);
            }
        }
        Set(k, price, volume);
        const bool fifthStaysEmpty = level == ASSUMED_DEPTH && IsEmpty(k);
        if (depth < CAPACITY && !fifthStaysEmpty) {
            ++depth;
        }
    }

    // Moves the deeper levels one up and clears the last one of the depth.
    void Delete(int32_t level) {
        for (int32_t i = level; i < depth; ++i) {
            Set(i - 1, px[i], vol[i]);
        }
        if (depth != 0) {
            --depth;
            Set(depth, 0.0, 0);
        }
    }

    void Restore() {
        for (int32_t i = 0; i < CAPACITY; ++i) {
            if ((touched & 1u << i) != 0) {
                px[i] = oldPx[i];
                vol[i] = oldVol[i];
            }
        }
    }
};

#endif
