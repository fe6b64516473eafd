#ifndef EXANIC_MD_MONITOR_H
#define EXANIC_MD_MONITOR_H

/*
 * What the feed says about itself: its table, its counters and what happens to it. Usable from C11
 * and from C++17 and later; a consumer that needs none of it includes ExanicMdImpl.h alone and
 * loses nothing.
 *
 * Times are CLOCK_MONOTONIC in nanoseconds. Counters count from the call of vorn_recv and stay
 * readable after it has returned. A record may grow at its end: its first member says how many
 * bytes of it are filled in.
 */

#include "ExanicMdTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Where the feed stands. The values are indices of time_in_phase_ns. */
#define VORN_MD_PHASE_STOPPED 0  /* vorn_recv is not running */
#define VORN_MD_PHASE_BRING_UP 1 /* configuration, card, CPU */
#define VORN_MD_PHASE_SNAPSHOT 2 /* the snapshot is loaded, changes are cached */
#define VORN_MD_PHASE_REPLAY 3   /* the cached changes are applied */
#define VORN_MD_PHASE_LIVE 4
#define VORN_MD_PHASE_CNT 8 /* room for more */

/* What became of a frame of the snapshot channel: indices of snapshot_fate. Each frame has one. */
#define VORN_MD_FATE_STARTED 0   /* began a round */
#define VORN_MD_FATE_IN_ORDER 1  /* the segment that was expected */
#define VORN_MD_FATE_HELD 2      /* ahead of the expected one; kept until the gap closes */
#define VORN_MD_FATE_OLD 3       /* a repetition */
#define VORN_MD_FATE_UNSTARTED 4 /* of a stream in which no wanted round has begun */
#define VORN_MD_FATE_FOREIGN 5   /* other protocol, port or host */
#define VORN_MD_FATE_MALFORMED 6 /* headers wrong or cut short */
#define VORN_MD_FATE_EMPTY 7     /* no payload */
#define VORN_MD_FATE_CHECKSUM 8  /* checksum wrong, or not all of the segment there */
#define VORN_MD_FATE_RESET 9     /* reset the connection: the snapshot starts over */
#define VORN_MD_FATE_LATE 10     /* every feed had finished */
#define VORN_MD_FATE_DROPPED 11  /* ahead, but no room was left to keep it */
#define VORN_MD_FATE_CNT 12

/* Indices of snapshot_rounds. */
#define VORN_MD_FEED_SHFE_2PS 0
#define VORN_MD_FEED_SHFE_4PS 1
#define VORN_MD_FEED_INE_2PS 2
#define VORN_MD_FEED_INE_4PS 3
#define VORN_MD_FEED_CNT 4

/* A gap in the change numbers of an instrument. All zero: there was none. */
typedef struct vorn_md_gap_t {
    uint64_t time_ns;          /*  0: when it was met */
    uint32_t slot;             /*  8: table slot of the instrument */
    uint32_t expected;         /* 12: the change number that should have come */
    uint32_t received;         /* 16: the one that came */
    uint32_t reserved;         /* 20: 0 */
    unsigned char inst_id[16]; /* 24: as in the instrument's record */
} vorn_md_gap_t;

#define VORN_MD_COUNTERS_VERSION 1

/*
 * A snapshot of the counters. Each one is whole; two that change together may be one apart. Every
 * frame of the decode port that is applied or refused counts in frames and then in one of updates,
 * stale, unsubscribed, options_skipped, restored_books, gaps and refused; a cached frame counts in
 * the latter when it is replayed, or else in cache_dropped. So at any moment
 *
 *     frames = updates + stale + unsubscribed + options_skipped + restored_books + gaps + refused
 *              + cache_dropped + (cached - replayed - cache_dropped)
 *
 * where the bracket is what the cache holds: 0 in phase LIVE. On the snapshot channel
 * snapshot_frames is the sum of snapshot_fate once the snapshot's threads have ended.
 */
typedef struct vorn_md_counters_t {
    uint32_t size;    /*   0: bytes of this record that are filled in */
    uint32_t version; /*   4: VORN_MD_COUNTERS_VERSION */

    uint32_t phase;          /*   8: VORN_MD_PHASE_... */
    uint32_t reserved;       /*  12: 0 */
    uint64_t phase_since_ns; /*  16: since when; 0 before the first run */
    uint64_t
        time_in_phase_ns[VORN_MD_PHASE_CNT]; /*  24: all cycles, the phase that runs included */
    uint64_t last_update_ns; /*  88: when the last update was applied; 0: none. Taken when the feed
                                     is first idle after it, or every 1024 updates if it never is */

    uint64_t cycles;   /*  96: bring-ups */
    uint64_t restarts; /* 104: bring-ups behind the first one */

    /* Incremental channel. */
    uint64_t frames;           /* 112: decode buffers of a usable length */
    uint64_t updates;          /* 120: applied to a record */
    uint64_t silent_updates;   /* 128: of these, applied in the replay without a callback */
    uint64_t stale;            /* 136: change number already there */
    uint64_t unsubscribed;     /* 144: instrument not subscribed */
    uint64_t options_skipped;  /* 152: option, and options are not handled */
    uint64_t restored_books;   /* 160: taken back because the book came out inconsistent */
    uint64_t gaps;             /* 168: change number ahead of the expected one */
    uint64_t refused;          /* 176: unknown topic, instrument number out of range, no header */
    uint64_t overflows;        /* 184: the card's ring overtook the feed (-256) */
    uint64_t abnormal_lengths; /* 192: other lengths that no decode buffer has */
    uint64_t cached;           /* 200: put into the cache */
    uint64_t replayed;         /* 208: taken out of it */
    uint64_t cache_dropped;    /* 216: lost: the cache was full, or a gap ended the replay */

    /* Snapshot channel. */
    uint64_t snapshot_frames;                   /* 224: of a usable length */
    uint64_t snapshot_overflows;                /* 232: the card's ring overtook the feed */
    uint64_t snapshot_abnormal_lengths;         /* 240: other lengths that no frame has */
    uint64_t snapshot_fate[VORN_MD_FATE_CNT];   /* 248: frames by what became of them */
    uint64_t snapshot_rounds[VORN_MD_FEED_CNT]; /* 344: rounds finished, by feed */
    uint64_t snapshot_wipes;                    /* 376: times that what was loaded was taken back */

    vorn_md_gap_t last_gap; /* 384 */
} vorn_md_counters_t;

/* What an event tells; members that its type does not name are 0. */
#define VORN_MD_EVENT_PHASE 1    /* phase, previous_phase */
#define VORN_MD_EVENT_GAP 2      /* slot, expected, received, inst_id; count: gaps so far */
#define VORN_MD_EVENT_RESTART 3  /* count: restarts so far */
#define VORN_MD_EVENT_ROUND 4    /* feed; count: instrument numbers of its exchange */
#define VORN_MD_EVENT_OVERFLOW 5 /* count: overflows of the decode port so far */

typedef struct vorn_md_event_t {
    uint32_t size;             /*  0: bytes of this record that are filled in */
    uint32_t type;             /*  4: VORN_MD_EVENT_... */
    uint64_t time_ns;          /*  8 */
    uint32_t phase;            /* 16: of the feed, always set */
    uint32_t previous_phase;   /* 20 */
    uint64_t count;            /* 24 */
    uint32_t slot;             /* 32 */
    uint32_t expected;         /* 36 */
    uint32_t received;         /* 40 */
    uint32_t feed;             /* 44: VORN_MD_FEED_... */
    unsigned char inst_id[16]; /* 48 */
} vorn_md_event_t;

#define VORN_MD_API __attribute__((visibility("default")))

/*
 * The instrument table while vorn_recv runs, otherwise null. It is written by the feed's threads
 * without a lock: in a callback of the feed (update or event) in phase REPLAY or LIVE it is
 * consistent; elsewhere a record may be half written. Any thread.
 */
VORN_MD_API const share* vorn_md_table(void);

/*
 * Fills in `counters`. Its member `size` must say how many bytes there are (sizeof *counters); on
 * return it says how many were filled in. Returns 0, or -1 when `counters` is null or smaller than
 * the first 8 bytes. Any thread; takes no lock and makes the feed wait for nothing.
 */
VORN_MD_API int vorn_md_counters(vorn_md_counters_t* counters);

/*
 * Sets what is told of events; null for none. Call it before vorn_recv. The callback runs on the
 * thread that called vorn_recv, which waits for it; the event is valid until it returns.
 */
VORN_MD_API void vorn_md_set_event_callback(void (*callback)(const vorn_md_event_t*, void*),
                                            void* context);

#ifdef __cplusplus
}
#define MD_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define MD_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif
#define MD_ASSERT_OFFSET(record, member, offset)                                                   \
    MD_STATIC_ASSERT(offsetof(record, member) == (offset), #record "." #member)

MD_STATIC_ASSERT(sizeof(vorn_md_gap_t) == 40, "vorn_md_gap_t is 40 bytes");
MD_ASSERT_OFFSET(vorn_md_gap_t, slot, 8);
MD_ASSERT_OFFSET(vorn_md_gap_t, inst_id, 24);
MD_STATIC_ASSERT(sizeof(vorn_md_counters_t) == 424, "version 1 of vorn_md_counters_t");
MD_ASSERT_OFFSET(vorn_md_counters_t, time_in_phase_ns, 24);
MD_ASSERT_OFFSET(vorn_md_counters_t, last_update_ns, 88);
MD_ASSERT_OFFSET(vorn_md_counters_t, frames, 112);
MD_ASSERT_OFFSET(vorn_md_counters_t, cache_dropped, 216);
MD_ASSERT_OFFSET(vorn_md_counters_t, snapshot_fate, 248);
MD_ASSERT_OFFSET(vorn_md_counters_t, snapshot_rounds, 344);
MD_ASSERT_OFFSET(vorn_md_counters_t, last_gap, 384);
MD_STATIC_ASSERT(sizeof(vorn_md_event_t) == 64, "vorn_md_event_t is 64 bytes");
MD_ASSERT_OFFSET(vorn_md_event_t, count, 24);
MD_ASSERT_OFFSET(vorn_md_event_t, inst_id, 48);

#undef MD_ASSERT_OFFSET
#undef MD_STATIC_ASSERT

#endif
