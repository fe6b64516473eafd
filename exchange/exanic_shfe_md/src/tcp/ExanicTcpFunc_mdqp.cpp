// Decoder of the exchange's snapshot messages: the instrument dictionary, the subscriptions in the
// card's filter tables, and every subscribed instrument's values and five-level book. Runs on the
// worker thread.
//
// A field that begins inside a message is decoded even if its record runs on: what lies behind is
// the next message or the zero bytes that every buffer here carries.

#include "tcp/ExanicTcpFunc.h"

#include "CommonLog.h"
#include "MdMonitor.h"
#include "PriceRules.h"
#include "WireRead.h"
#include "dev/FpgaRegisters.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char LOG_FILE_TAG[] = "ExanicTcpFunc";

constexpr int32_t SHFE_MAX_INST_NO = SHFE_MAX_INST_CNT - 1;
constexpr int32_t INE_MAX_INST_NO = INE_MAX_INST_CNT - 1;
constexpr int32_t SHFE_WARN_CNT = 12800;
constexpr int32_t INE_WARN_CNT = 3200;

constexpr size_t OPTION_CODE_INDEX = 6; // an identifier with a seventh character is an option's
constexpr size_t PRODUCT_SIZE = 2;      // characters of a product code
constexpr size_t FUTURE_ID_SIZE = 6;    // characters of an identifier that are compared
constexpr size_t KEPT_ID_SIZE = 15;     // characters of an identifier that a record holds
constexpr uint32_t MIN_WALK_LENGTH = 8; // a body must be longer than this to have fields decoded

bool IsShfe(EMdqpDataType type) {
    return (type & ~2) == 0;
}

double ValueOrZero(double value) {
    return value == MDQP_NO_VALUE ? 0.0 : value;
}

} // namespace

// A field that begins in the last 8 bytes of the body is not decoded: `length` counts the body, the
// offset counts the header too. In practice that is the packet number which ends every message.
int CExanicTcpFunc::_ParseMdqp(MdqpHeader* message, uint16_t sessionIndex) {
    TcpSession& session = m_sessions[sessionIndex];
    const EMdqpDataType type = session.em_dqp_data_type;
    char* bytes = reinterpret_cast<char*>(message);
    const auto header = ReadRecord<MdqpHeader>(bytes);
    MD_LOG(LOG_DEBUG_EX, "MDQP flag: 0x%x, type_id: 0x%x, length: %u, requset_id: %d", header.flag,
           static_cast<unsigned>(header.type_id), header.length, header.request_id);

    if (header.length > MIN_WALK_LENGTH) {
        uint16_t previousField = 0;
        for (uint32_t offset = sizeof(MdqpHeader); offset < header.length;) {
            const auto field = ReadRecord<FieldHeader>(bytes + offset);
            MD_LOG(LOG_DEBUG_EX, "field_id: 0x%x, field_size: %u", field.field_id,
                   field.field_size);
            _DispatchField(type, field.field_id, bytes + offset + sizeof(FieldHeader),
                           previousField);
            previousField = field.field_id;
            offset += static_cast<uint32_t>(sizeof(FieldHeader)) + field.field_size;
        }
    }
    if (header.flag == MDQP_FLAG_LAST) {
        _FinishFeed(session, type);
    }
    return 0;
}

void CExanicTcpFunc::_DispatchField(EMdqpDataType type, uint16_t fieldId, char* data,
                                    uint16_t previousField) {
    switch (fieldId) {
    case FIELD_INST_INFO:
        _OnInstInfo(type, data);
        break;
    case FIELD_DEAL_INFO:
        _OnDealInfo(type, data);
        break;
    case FIELD_PRICE_DETAIL:
        _OnPriceDetail(type, data, previousField);
        break;
    case FIELD_ORDER_STATIS:
        _OnOrderStatis(type, data);
        break;
    case FIELD_PACKET_NO:
        _OnPacketNo(type, data);
        break;
    case FIELD_SNAP: // read when the session starts
    case FIELD_ID_0031:
    case FIELD_ID_0032:
    case FIELD_ID_1002:
    case FIELD_ID_1003:
        break;
    default:
        MD_LOG_AS("_ParseMdqp", LOG_ERROR, "unknown fieldID: %02x", fieldId);
        break;
    }
}

void CExanicTcpFunc::_OnInstInfo(EMdqpDataType type, const char* data) {
    const auto field = ReadRecord<InstInfoField>(data);
    MD_LOG_AS("_ParseMdqp", LOG_DEBUG_EX,
              "inst_id: %.31s, inst_no: %d, vol_multi: %d, price_tick: %lf, codec_price: %lf",
              field.inst_id, field.inst_no, field.volume_multiple, field.price_tick,
              field.codec_price);
    if (m_refConfigData.options == 0 && field.inst_id[OPTION_CODE_INDEX] != '\0') {
        MD_LOG_AS("_ParseMdqp", LOG_DEBUG_EX, "do not subscribe options, instrumentID: %.31s",
                  field.inst_id);
        return;
    }
    const int slot = _SlotOf(type, field.inst_no);
    if (slot < 0) {
        return;
    }
    _CountInstrument(type, field.inst_no);

    const std::string instId(field.inst_id, strnlen(field.inst_id, sizeof(field.inst_id)));
    if (_WantsInstrument(instId)) {
        // Address before value: the value's store is what acts.
        const bool shfe = IsShfe(type);
        m_pRegisters[shfe ? EXANIC_FPGA_SHFE_ADDR_WR : EXANIC_FPGA_INE_ADDR_WR] =
            static_cast<uint32_t>(field.inst_no);
        m_pRegisters[shfe ? EXANIC_FPGA_SHFE_DATA_WR : EXANIC_FPGA_INE_DATA_WR] = 1;
        // The identifier is the mark of a subscription. The last byte of the record's field stays
        // as it is, zero in a cleaned table.
        unsigned char* kept = m_pShareMem->instmts[slot].inst_id;
        memset(kept, 0, KEPT_ID_SIZE);
        // NOLINTNEXTLINE(bugprone-not-null-terminated-result): no string of C, zeros behind it
        memcpy(kept, instId.data(), std::min(instId.size(), KEPT_ID_SIZE));
        MD_LOG_AS("_ParseMdqp", LOG_DEBUG, "instrument [%s] subscribed, inst_no [%d]",
                  instId.c_str(), field.inst_no);
    }
    m_refCalcInfo.priceTick[slot] = field.price_tick;
    m_refCalcInfo.codecPrice[slot] = ValueOrZero(field.codec_price);
    m_refCalcInfo.volumeMulti[slot] = field.volume_multiple;
}

// The counts hold the highest number seen plus one, not the number of instruments.
void CExanicTcpFunc::_CountInstrument(EMdqpDataType type, int32_t instNo) {
    if (IsShfe(type)) {
        int32_t& count = m_pShareMem->shfe_inst_cnt;
        if (instNo >= count) {
            count = instNo + 1;
            if (count > SHFE_WARN_CNT && shfe_cnt_80_flag) {
                MD_LOG_AS("_ParseMdqp", LOG_WARNING,
                          "shfe_inst_cnt is [%d] more than 80%% max cnt[%d]", count, SHFE_WARN_CNT);
                shfe_cnt_80_flag = false;
            }
        }
    } else {
        int32_t& count = m_pShareMem->ine_inst_cnt;
        if (instNo >= count) {
            count = instNo + 1;
            if (count > INE_WARN_CNT && ine_cnt_80_flag) {
                MD_LOG_AS("_ParseMdqp", LOG_WARNING,
                          "ine_inst_cnt is [%d] more than 80%% max cnt[%d]", count, INE_WARN_CNT);
                ine_cnt_80_flag = false;
            }
        }
    }
}

// An entry of the list is a product code of two characters or an instrument's first six.
bool CExanicTcpFunc::_WantsInstrument(const std::string& instId) const {
    if (m_refConfigData.recvall != 0) {
        return true;
    }
    const std::string product = instId.substr(0, PRODUCT_SIZE);
    const std::string future = instId.substr(0, FUTURE_ID_SIZE);
    for (uint32_t i = 0; i < m_refConfigData.total_listen_cnt; ++i) {
        const std::string& entry = m_refConfigData.listen_insts[i];
        if ((entry.size() == PRODUCT_SIZE && entry == product) || entry == future) {
            return true;
        }
    }
    return false;
}

void CExanicTcpFunc::_OnDealInfo(EMdqpDataType type, const char* data) {
    const auto field = ReadRecord<DealInfoField>(data);
    const int slot = _SlotOf(type, field.inst_no);
    if (slot < 0 || !_IsSubscribed(slot)) {
        return;
    }
    MD_LOG_AS("_ParseMdqp", LOG_DEBUG_EX,
              "last_price: %lf, volume: %d, turnover: %lf, open_interest: %lf, change_no: %d, "
              "update_time: %.9s, update_mill_sec: %d",
              field.last_price, field.volume, field.turnover, field.open_interest, field.change_no,
              field.update_time, field.update_mill_sec);
    instrument& record = m_pShareMem->instmts[slot];
    record.last_px = ValueOrZero(field.last_price);
    record.turnover = ValueOrZero(field.turnover);
    record.change_no = static_cast<uint32_t>(field.change_no);
    record.update_milli_sec = static_cast<uint16_t>(field.update_mill_sec);
    record.open_interest = field.open_interest;
    record.volume = static_cast<uint32_t>(field.volume);
    record.highest_price = ValueOrZero(field.highest_price);
    record.lowest_price = ValueOrZero(field.lowest_price);
    inter_infos[slot].upper_limit_price = ValueOrZero(field.upper_limit_price);
    inter_infos[slot].lower_limit_price = ValueOrZero(field.lower_limit_price);
}

// Levels come best first, in one run of fields per instrument. What is not the first of a run is
// put at the first level that is empty or not better; a sixth and later level lands in the sixth
// entry.
void CExanicTcpFunc::_OnPriceDetail(EMdqpDataType type, char* data, uint16_t previousField) {
    auto field = ReadRecord<PriceDetailField>(data);
    const int slot = _SlotOf(type, field.inst_no);
    if (slot < 0) {
        return;
    }
    if (!_IsSubscribed(slot)) {
        MD_LOG_AS("_ParseMdqp", LOG_DEBUG_EX, "skip unsubscribed inst, instNo : %d", slot);
        return;
    }
    if (field.price == MDQP_NO_VALUE) {
        field.price = 0.0;
        const double zero = 0.0; // the message is corrected too
        memcpy(data + offsetof(PriceDetailField, price), &zero, sizeof(zero));
    }
    instrument& record = m_pShareMem->instmts[slot];
    if (previousField != FIELD_PRICE_DETAIL) {
        for (int i = 0; i < BID_PX_LEVEL; ++i) {
            record.bid_px[i] = 0.0;
            record.bid_vol[i] = 0;
            record.ask_px[i] = 0.0;
            record.ask_vol[i] = 0;
        }
    }
    if (field.direction == DIRECTION_BUY) {
        int i = 0;
        while (i < BID_PX_LEVEL && !IsEmptyLevel(record.bid_px[i], record.bid_vol[i]) &&
               !(field.price + PRICE_EPSILON >= record.bid_px[i])) {
            ++i;
        }
        record.bid_px[i] = field.price;
        record.bid_vol[i] = field.volume;
    } else if (field.direction == DIRECTION_SELL) {
        int i = 0;
        while (i < ASK_PX_LEVEL && !IsEmptyLevel(record.ask_px[i], record.ask_vol[i]) &&
               !(record.ask_px[i] >= field.price - PRICE_EPSILON)) {
            ++i;
        }
        record.ask_px[i] = field.price;
        record.ask_vol[i] = field.volume;
    }
}

void CExanicTcpFunc::_OnOrderStatis(EMdqpDataType type, const char* data) {
    const auto field = ReadRecord<OrderStatisField>(data);
    const int slot = _SlotOf(type, field.inst_no);
    if (slot < 0 || !_IsSubscribed(slot)) {
        return;
    }
    instrument& record = m_pShareMem->instmts[slot];
    record.bid_totvol = field.bid_totvol;
    record.ask_totvol = field.ask_totvol;
    record.bid_totamount = field.bid_totamount;
    record.ask_totamount = field.ask_totamount;
}

// The only field that takes effect without a known feed; it then counts as INE's.
void CExanicTcpFunc::_OnPacketNo(EMdqpDataType type, const char* data) {
    const auto field = ReadRecord<PacketNoField>(data);
    (IsShfe(type) ? m_pShareMem->shfe_pktno : m_pShareMem->ine_pktno) = field.packet_no;
    MD_LOG_AS("_ParseMdqp", LOG_DEBUG_EX, "packet_no: %d", field.packet_no);
}

void CExanicTcpFunc::_FinishFeed(TcpSession& session, EMdqpDataType type) {
    switch (type) {
    case SHFE_2PS:
        MD_LOG_AS("_ParseMdqp", LOG_INFO, "shfe2ps init finished, total instruments:%d",
                  m_pShareMem->shfe_inst_cnt);
        g_mdMonitor.CountRound(VORN_MD_FEED_SHFE_2PS, m_pShareMem->shfe_inst_cnt);
        _SetFinished(MASK_SHFE_2PS);
        break;
    case SHFE_4PS:
        MD_LOG_AS("_ParseMdqp", LOG_INFO, "shfe4ps init finished, total instruments:%d",
                  m_pShareMem->shfe_inst_cnt);
        g_mdMonitor.CountRound(VORN_MD_FEED_SHFE_4PS, m_pShareMem->shfe_inst_cnt);
        _SetFinished(MASK_SHFE_4PS);
        break;
    case INE_2PS:
        MD_LOG_AS("_ParseMdqp", LOG_INFO, "ine2ps init finished, total instruments:%d",
                  m_pShareMem->ine_inst_cnt);
        g_mdMonitor.CountRound(VORN_MD_FEED_INE_2PS, m_pShareMem->ine_inst_cnt);
        _SetFinished(MASK_INE_2PS);
        break;
    case INE_4PS:
        MD_LOG_AS("_ParseMdqp", LOG_INFO, "ine4ps init finished, total instruments:%d",
                  m_pShareMem->ine_inst_cnt);
        g_mdMonitor.CountRound(VORN_MD_FEED_INE_4PS, m_pShareMem->ine_inst_cnt);
        _SetFinished(MASK_INE_4PS);
        break;
    default:
        break;
    }
    session.init = 0; // a later segment on this port starts a new session
}

bool CExanicTcpFunc::_ProtectInstNo(const EMdqpDataType& type, const int& inst_no) {
    int32_t limit = 0;
    bool* warn = nullptr;
    switch (type) {
    case SHFE_2PS:
    case SHFE_4PS:
        limit = SHFE_MAX_INST_NO;
        warn = &shfe_cnt_flag;
        break;
    case INE_2PS:
    case INE_4PS:
        limit = INE_MAX_INST_NO;
        warn = &ine_cnt_flag;
        break;
    default:
        return false;
    }
    if (inst_no <= limit) {
        return true;
    }
    if (*warn) {
        MD_LOG(LOG_WARNING, "instrument No [%d] exceed limit %d", inst_no, limit);
        *warn = false;
    }
    return false;
}

int CExanicTcpFunc::_SlotOf(EMdqpDataType type, int instNo) {
    if (!_ProtectInstNo(type, instNo)) {
        return -1;
    }
    const int64_t slot = IsShfe(type) ? int64_t{instNo} : LAST_SLOT - int64_t{instNo};
    return slot >= 0 && slot <= LAST_SLOT ? static_cast<int>(slot) : -1;
}

// Neither NUL nor a space.
bool CExanicTcpFunc::_IsSubscribed(int slot) const {
    return (m_pShareMem->instmts[slot].inst_id[0] & 0xDF) != 0;
}

void CExanicTcpFunc::_Cleandata() {
    memset(m_pShareMem, 0, sizeof(*m_pShareMem));
    for (TcpSession& session : m_sessions) {
        ResetSession(session);
    }
    __atomic_store_n(&m_refFinishedMask.mask, uint8_t{0}, __ATOMIC_RELEASE);
    memset(inter_infos, 0, sizeof(inter_infos));
    memset(&m_refCalcInfo, 0, sizeof(m_refCalcInfo));
    shfe_cnt_80_flag = false;
    ine_cnt_80_flag = false;
    shfe_cnt_flag = false;
    ine_cnt_flag = false;
}
