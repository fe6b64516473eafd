#ifndef MDQP_RECORDS_H
#define MDQP_RECORDS_H

// MDQP, the exchange's snapshot messages: a header and a run of fields, each with a header of its
// own. Little-endian, packed: a double may sit at an odd offset. Read with ReadRecord.

#include <cstddef>
#include <cstdint>
#include <limits>

enum : uint16_t {
    FIELD_ID_0031 = 0x0031, // skipped, as are 0x0032, 0x1002 and 0x1003
    FIELD_ID_0032 = 0x0032,
    FIELD_INST_INFO = 0x0101,
    FIELD_DEAL_INFO = 0x0102,
    FIELD_PRICE_DETAIL = 0x0103,
    FIELD_ORDER_STATIS = 0x0104,
    FIELD_SNAP = 0x1001,
    FIELD_ID_1002 = 0x1002,
    FIELD_ID_1003 = 0x1003,
    FIELD_PACKET_NO = 0x1004
};

inline constexpr uint8_t MDQP_FLAG_LAST = 0x01;  // last message of a feed's snapshot
inline constexpr uint8_t MDQP_FLAG_FIRST = 0x11; // what a new session must begin with
inline constexpr uint8_t MDQP_FLAG_MORE = 0x10;  // this bit apart, every flag is MDQP_FLAG_LAST
inline constexpr int8_t MDQP_TYPE_SNAPSHOT = 0x32;
inline constexpr double MDQP_NO_VALUE = std::numeric_limits<double>::max();

#pragma pack(push, 1)

struct MdqpHeader {
    uint8_t flag;       // 0
    int8_t type_id;     // 1
    uint16_t length;    // 2: bytes of the body
    int32_t request_id; // 4: logged only
};

struct FieldHeader {
    uint16_t field_id;   // 0
    uint16_t field_size; // 2: bytes of data that follow
};

struct SnapField {
    int16_t topic_id; // 0
    int32_t snap_no;  // 2
};

struct PacketNoField {
    int32_t packet_no; // 0
};

struct InstInfoField {
    char inst_id[31];            //   0: NUL-terminated
    char underlying_inst_id[31]; //  31
    char product_class;          //  62
    double strike_price;         //  63
    char options_type;           //  71
    int32_t volume_multiple;     //  72
    double underlying_multiple;  //  76
    int32_t is_trading;          //  84
    char currency_id[4];         //  88
    double price_tick;           //  92
    double codec_price;          // 100
    int32_t inst_no;             // 108: the exchange's number, not the slot
};

struct DealInfoField {
    int32_t inst_no;             //   0
    double last_price;           //   4
    int32_t volume;              //  12
    double turnover;             //  16
    double open_interest;        //  24
    double highest_price;        //  32
    double lowest_price;         //  40
    double open_price;           //  48
    double close_price;          //  56
    double settlement_price;     //  64
    double upper_limit_price;    //  72
    double lower_limit_price;    //  80
    double pre_settlement_price; //  88
    double pre_close_price;      //  96
    double pre_open_interest;    // 104
    double pre_delta;            // 112
    double curr_delta;           // 120
    char action_day[9];          // 128
    char update_time[9];         // 137: hh:mm:ss, logged only
    int32_t update_mill_sec;     // 146
    int32_t change_no;           // 150
};

struct PriceDetailField {
    int32_t inst_no; //  0
    char direction;  //  4: '0' buy, '1' sell
    double price;    //  5
    int32_t volume;  // 13
};

struct OrderStatisField {
    int32_t inst_no;      //  0
    int32_t bid_totvol;   //  4
    double bid_totamount; //  8
    int32_t ask_totvol;   // 16
    double ask_totamount; // 20
};

#pragma pack(pop)

static_assert(sizeof(MdqpHeader) == 8);
static_assert(offsetof(MdqpHeader, length) == 2);
static_assert(offsetof(MdqpHeader, request_id) == 4);
static_assert(sizeof(FieldHeader) == 4);
static_assert(sizeof(SnapField) == 6);
static_assert(offsetof(SnapField, snap_no) == 2);
static_assert(sizeof(PacketNoField) == 4);
static_assert(sizeof(InstInfoField) == 112);
static_assert(offsetof(InstInfoField, strike_price) == 63);
static_assert(offsetof(InstInfoField, volume_multiple) == 72);
static_assert(offsetof(InstInfoField, underlying_multiple) == 76);
static_assert(offsetof(InstInfoField, price_tick) == 92);
static_assert(offsetof(InstInfoField, codec_price) == 100);
static_assert(offsetof(InstInfoField, inst_no) == 108);
static_assert(sizeof(DealInfoField) == 154);
static_assert(offsetof(DealInfoField, last_price) == 4);
static_assert(offsetof(DealInfoField, volume) == 12);
static_assert(offsetof(DealInfoField, turnover) == 16);
static_assert(offsetof(DealInfoField, upper_limit_price) == 72);
static_assert(offsetof(DealInfoField, action_day) == 128);
static_assert(offsetof(DealInfoField, update_time) == 137);
static_assert(offsetof(DealInfoField, update_mill_sec) == 146);
static_assert(offsetof(DealInfoField, change_no) == 150);
static_assert(sizeof(PriceDetailField) == 17);
static_assert(offsetof(PriceDetailField, price) == 5);
static_assert(offsetof(PriceDetailField, volume) == 13);
static_assert(sizeof(OrderStatisField) == 28);
static_assert(offsetof(OrderStatisField, bid_totamount) == 8);
static_assert(offsetof(OrderStatisField, ask_totvol) == 16);
static_assert(offsetof(OrderStatisField, ask_totamount) == 20);

#endif
