#ifndef EXANIC_MD_TYPES_H
#define EXANIC_MD_TYPES_H

/*
 * Records, masks and constants shared by the feed library and its consumers. Readable as C11 and
 * as C++17 and later.
 *
 * A consumer is handed pointers into the table `share` and reads the records in place, so every
 * layout here is fixed; the assertions at the end pin it. Prices are in the currency unit of the
 * contract, volumes and open interest in lots, turnover and order amounts in currency.
 */

#include <stddef.h>
#include <stdint.h>

/* Return codes of the decoders. */
#define RET_OK 0
#define RET_FAILED (-1)
#define RET_TO_CALLBACK 1 /* a record was updated and the consumer is to be told */

/* Outcome of the snapshot phase. */
#define MD_INIT_DOING 0
#define MD_INIT_DONE 1
#define MD_INIT_FAILED (-1)

/* Book depth that is checked and presented; the arrays have room for ten levels. */
#define BID_PX_LEVEL 5
#define ASK_PX_LEVEL 5

#define RECV_BUF_SIZE 2048       /* bytes, receive buffer of each channel */
#define CACHE_BUF_SIZE 209715200 /* bytes, decode-buffer cache (200 MiB) */
#define MAX_SESSION_CNT 65536    /* TCP session slots, one per local port */
#define MAX_LOST_BUF_SIZE 500    /* early TCP segments kept per session */

/* Sides of a snapshot price field. */
#define DIRECTION_BUY '0'
#define DIRECTION_SELL '1'

/* Incremental book events and sides. */
#define MD_EVENT_TYPE_ADD 1
#define MD_EVENT_TYPE_MODIFY 2
#define MD_EVENT_TYPE_DEL 3
#define MD_ENTRY_TYPE_BID 0
#define MD_ENTRY_TYPE_ASK 1

/*
 * The slot rule. One table serves both exchanges: an SHFE instrument number n lives in slot n, an
 * INE instrument number n in slot LAST_SLOT - n, so that the two number ranges (16384 and 4096,
 * the sizes of the card's filter tables) fill the table from both ends without overlapping.
 */
#define INSTRUMENT_SLOT_CNT 20480
#define LAST_SLOT 20479
#define SHFE_MAX_INST_CNT 16384
#define INE_MAX_INST_CNT 4096

/* Values of instrument.type. */
#define EXCHANGE_TYPE_SHFE 0
#define EXCHANGE_TYPE_INE 1

/* Current state of one instrument. The order bid prices, bid volumes, ask volumes, ask prices is
   part of the layout. An all-zero record has received no data. */
typedef struct instrument {
    unsigned char inst_id[16]; /*   0: instrument code, NUL-terminated, at most 15 characters */
    double last_px;            /*  16: last traded price */
    uint32_t volume;           /*  24: lots traded today */
    uint32_t update_time;      /*  28: snapshot time of the decode buffer that last changed it */
    uint16_t update_milli_sec; /*  32: milliseconds belonging to update_time */
    uint16_t type;             /*  34: 0 SHFE, 1 INE; written with every incremental update */
    uint32_t change_no;        /*  36: number of the last change applied */
    double turnover;           /*  40: currency traded today */
    double open_interest;      /*  48: lots */
    int32_t bid_totvol;        /*  56: lots on the bid side */
    int32_t ask_totvol;        /*  60: lots on the ask side */
    double bid_totamount;      /*  64: currency on the bid side */
    double ask_totamount;      /*  72: currency on the ask side */
    double highest_price;      /*  80: session high */
    double lowest_price;       /*  88: session low */
    double bid_px[10];         /*  96: bid prices, best first */
    int32_t bid_vol[10];       /* 176: bid volumes, parallel to bid_px */
    int32_t ask_vol[10];       /* 216: ask volumes, parallel to ask_px */
    double ask_px[10];         /* 256: ask prices, best first */
} instrument;
typedef instrument instrument_t;

/* The instrument table. */
typedef struct share {
    instrument instmts[INSTRUMENT_SLOT_CNT]; /* by slot */
    int32_t shfe_inst_cnt;                   /* highest SHFE number seen in the snapshot, plus 1 */
    int32_t ine_inst_cnt;                    /* highest INE number seen in the snapshot, plus 1 */
    int32_t shfe_pktno;                      /* packet number of the last SHFE decode buffer */
    int32_t ine_pktno;                       /* packet number of the last INE decode buffer */
} share;
typedef share share_t;

/* Scaling of the incremental channel, by slot: price = offset * priceTick + codecPrice. */
typedef struct PriceCalcInfo {
    double priceTick[INSTRUMENT_SLOT_CNT];    /* minimum price step */
    double codecPrice[INSTRUMENT_SLOT_CNT];   /* price from which offsets are counted */
    int32_t volumeMulti[INSTRUMENT_SLOT_CNT]; /* contract multiple */
} PriceCalcInfo;

/* One bit per feed, least significant first. */
typedef union UEnableMask {
    uint8_t mask;
    __extension__ struct {
        uint8_t shfe2ps : 1;  /* 0x01 */
        uint8_t shfe4ps : 1;  /* 0x02 */
        uint8_t ine2ps : 1;   /* 0x04 */
        uint8_t ine4ps : 1;   /* 0x08 */
        uint8_t reserved : 4; /* 0 */
    };
} UEnableMask;

#define MASK_SHFE_2PS 0x01
#define MASK_SHFE_4PS 0x02
#define MASK_INE_2PS 0x04
#define MASK_INE_4PS 0x08

/* The decode-buffer cache. Offsets are bytes from pCacheBuf. */
typedef struct CacheBufInfo {
    char* pCacheBuf;     /* CACHE_BUF_SIZE bytes, owned by the feed entry */
    int32_t piOffset;    /* where the next buffer is put */
    int32_t ciOffset;    /* where the next buffer to replay begins */
    int32_t cachedCount; /* buffers put and not yet replayed */
} CacheBufInfo;

#ifdef __cplusplus
#define MD_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define MD_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif
#define MD_ASSERT_OFFSET(record, member, offset)                                                   \
    MD_STATIC_ASSERT(offsetof(record, member) == (offset), #record "." #member)

MD_STATIC_ASSERT(sizeof(instrument) == 336, "instrument is 336 bytes");
MD_ASSERT_OFFSET(instrument, inst_id, 0);
MD_ASSERT_OFFSET(instrument, last_px, 16);
MD_ASSERT_OFFSET(instrument, volume, 24);
MD_ASSERT_OFFSET(instrument, update_time, 28);
MD_ASSERT_OFFSET(instrument, update_milli_sec, 32);
MD_ASSERT_OFFSET(instrument, type, 34);
MD_ASSERT_OFFSET(instrument, change_no, 36);
MD_ASSERT_OFFSET(instrument, turnover, 40);
MD_ASSERT_OFFSET(instrument, open_interest, 48);
MD_ASSERT_OFFSET(instrument, bid_totvol, 56);
MD_ASSERT_OFFSET(instrument, ask_totvol, 60);
MD_ASSERT_OFFSET(instrument, bid_totamount, 64);
MD_ASSERT_OFFSET(instrument, ask_totamount, 72);
MD_ASSERT_OFFSET(instrument, highest_price, 80);
MD_ASSERT_OFFSET(instrument, lowest_price, 88);
MD_ASSERT_OFFSET(instrument, bid_px, 96);
MD_ASSERT_OFFSET(instrument, bid_vol, 176);
MD_ASSERT_OFFSET(instrument, ask_vol, 216);
MD_ASSERT_OFFSET(instrument, ask_px, 256);
MD_STATIC_ASSERT(sizeof(share) == 6881296, "share is 6881296 bytes");
MD_ASSERT_OFFSET(share, shfe_inst_cnt, 6881280);
MD_ASSERT_OFFSET(share, ine_inst_cnt, 6881284);
MD_ASSERT_OFFSET(share, shfe_pktno, 6881288);
MD_ASSERT_OFFSET(share, ine_pktno, 6881292);
MD_ASSERT_OFFSET(PriceCalcInfo, priceTick, 0);
MD_ASSERT_OFFSET(PriceCalcInfo, codecPrice, 163840);
MD_ASSERT_OFFSET(PriceCalcInfo, volumeMulti, 327680);
MD_STATIC_ASSERT(sizeof(PriceCalcInfo) == 409600, "PriceCalcInfo is 409600 bytes");
MD_STATIC_ASSERT(sizeof(UEnableMask) == 1, "UEnableMask is one byte");
MD_ASSERT_OFFSET(CacheBufInfo, pCacheBuf, 0);
MD_ASSERT_OFFSET(CacheBufInfo, piOffset, 8);
MD_ASSERT_OFFSET(CacheBufInfo, ciOffset, 12);
MD_ASSERT_OFFSET(CacheBufInfo, cachedCount, 16);
MD_STATIC_ASSERT(sizeof(CacheBufInfo) == 24, "CacheBufInfo is 24 bytes");

#undef MD_ASSERT_OFFSET
#undef MD_STATIC_ASSERT

#endif
