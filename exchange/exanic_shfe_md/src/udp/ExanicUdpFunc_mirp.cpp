// Decoder of the incremental stream: one decode buffer is one message for one instrument. The
// record is updated in place and put back as it was when its book comes out inconsistent, so that
// a consumer never sees half a message.

#include "udp/ExanicUdpFunc.h"

#include "CommonLog.h"
#include "MdMonitor.h"
#include "WireRead.h"
#include "dev/FpgaRegisters.h"

namespace {

constexpr char LOG_FILE_TAG[] = "ExanicUdpFunc";

// Fewer bytes than this behind the last field are padding.
constexpr uint32_t MIN_FIELD_SIZE = 3;

constexpr uint32_t SHFE_MAX_INST_NO = SHFE_MAX_INST_CNT - 1;
constexpr uint32_t INE_MAX_INST_NO = INE_MAX_INST_CNT - 1;

constexpr size_t OPTION_CODE_INDEX = 6; // an identifier with a seventh character is an option's

// Records longer than a register are read member by member: copied as a whole they would go through
// vector registers to the stack, and a member across two of them is slow to come back.

MirpHeader ReadHeader(const char* at) {
    const char* incre = at + offsetof(MirpHeader, incre);
    MirpHeader header;
    header.decode.topicID = ReadRecord<uint16_t>(at + offsetof(DecodeHeader, topicID));
    header.decode.snapMillisec = ReadRecord<uint16_t>(at + offsetof(DecodeHeader, snapMillisec));
    header.decode.snapTime = ReadRecord<uint32_t>(at + offsetof(DecodeHeader, snapTime));
    header.decode.packetNo = ReadRecord<int32_t>(at + offsetof(DecodeHeader, packetNo));
    header.incre.fieldID = ReadRecord<FieldIDType>(incre + offsetof(MarketDataIncreField, fieldID));
    header.incre.instrumentNo =
        ReadRecord<uint32_t>(incre + offsetof(MarketDataIncreField, instrumentNo));
    header.incre.changeNo = ReadRecord<uint32_t>(incre + offsetof(MarketDataIncreField, changeNo));
    header.incre.reserved = ReadRecord<uint16_t>(incre + offsetof(MarketDataIncreField, reserved));
    return header;
}

DealSummaryField ReadDealSummary(const char* at) {
    DealSummaryField deal{};
    deal.lastPriceOffset = ReadRecord<int32_t>(at + offsetof(DealSummaryField, lastPriceOffset));
    deal.volumeChange = ReadRecord<int32_t>(at + offsetof(DealSummaryField, volumeChange));
    deal.turnoverOffset = ReadRecord<int64_t>(at + offsetof(DealSummaryField, turnoverOffset));
    deal.openInterestChange =
        ReadRecord<int64_t>(at + offsetof(DealSummaryField, openInterestChange));
    return deal;
}

} // namespace

// What a message overwrites, group by group: a message changes few of them.
struct CExanicUdpFunc::Undo {
    enum Group : uint32_t { DEAL = 1, BID_TOTALS = 2, ASK_TOTALS = 4, HIGHEST = 8, LOWEST = 16 };

    BookUndo book;
    uint32_t volume;
    double lastPx;
    double turnover;
    double openInterest;
    int32_t bidTotvol;
    int32_t askTotvol;
    double bidTotamount;
    double askTotamount;
    double highestPrice;
    double lowestPrice;

    // Nothing is kept yet, so nothing is set.
    // cppcheck-suppress uninitMemberVar
    Undo() {} // NOLINT

    // Puts back the groups (Group bits) that were kept.
    void Restore(instrument& record, uint32_t groups) const __attribute__((cold, noinline));
};

void CExanicUdpFunc::Undo::Restore(instrument& record, uint32_t groups) const {
    if ((groups & DEAL) != 0) {
        record.last_px = lastPx;
        record.volume = volume;
        record.turnover = turnover;
        record.open_interest = openInterest;
    }
    if ((groups & BID_TOTALS) != 0) {
        record.bid_totvol = bidTotvol;
        record.bid_totamount = bidTotamount;
    }
    if ((groups & ASK_TOTALS) != 0) {
        record.ask_totvol = askTotvol;
        record.ask_totamount = askTotamount;
    }
    if ((groups & HIGHEST) != 0) {
        record.highest_price = highestPrice;
    }
    if ((groups & LOWEST) != 0) {
        record.lowest_price = lowestPrice;
    }
}

// One message being applied. Its counts stay in registers, because `undo` lies apart.
struct CExanicUdpFunc::Changes {
    instrument& record;
    Undo& undo;
    BookChanges book;
    uint32_t kept = 0; // Undo::Group bits

    Changes(instrument& changed, Undo& old) : record(changed), undo(old), book(changed, old.book) {}

    // Whether the group is to be kept now, before its first change.
    bool First(Undo::Group group) {
        const bool first = (kept & group) == 0;
        kept |= group;
        return first;
    }
    void Restore() {
        undo.Restore(record, kept);
        book.Restore();
    }
};

int32_t CExanicUdpFunc::_ParseMirp(char* packet, uint32_t len) {
    if (len < sizeof(MirpHeader)) {
        MD_LOG(LOG_ERROR, "packet length too small: %u", len);
        g_mdMonitor.caller.refused.Add();
        return RET_FAILED;
    }
    const MirpHeader header = ReadHeader(packet);
    const DecodeHeader& decode = header.decode;
    const MarketDataIncreField& incre = header.incre;
    MD_LOG(LOG_DEBUG_EX, "topicID: 0x%x, snapMillisec: %u, snapTime: %u, packetNo: %u",
           decode.topicID, decode.snapMillisec, decode.snapTime,
           static_cast<uint32_t>(decode.packetNo));
    MD_LOG(LOG_DEBUG_EX, "fieldID: 0x%x, instrumentNo: %u, changeNo: %u", incre.fieldID,
           incre.instrumentNo, incre.changeNo);

    uint16_t exchangeType = EXCHANGE_TYPE_SHFE;
    int32_t result = RET_OK;
    const int32_t slot = _SelectSlot(header, exchangeType, result);
    if (slot < 0) {
        g_mdMonitor.caller.refused.Add();
        return result;
    }
    instrument& record = m_pShareMem->instmts[slot];
    MD_LOG(LOG_DEBUG_EX, "snap instrumentID: %.16s, changeNo: %d",
           reinterpret_cast<const char*>(record.inst_id), static_cast<int32_t>(record.change_no));
    if (!_IsHandled(record)) {
        return RET_OK;
    }

    record.type = exchangeType;
    m_pRegisters[EXANIC_FPGA_SNAP_TIME] = decode.snapTime;
    if (incre.fieldID != FIELD_MARKET_DATA_INCRE) {
        g_mdMonitor.CountUpdate();
        return RET_TO_CALLBACK;
    }

    const uint32_t expected = record.change_no + 1;
    if (incre.changeNo != expected) {
        if (incre.changeNo <= record.change_no) {
            g_mdMonitor.caller.stale.Add();
            return RET_OK; // the other line was faster, or the snapshot has it already
        }
        MD_LOG(LOG_ERROR,
               "discontinuous changeNo: %u, expected changeNo: %d, instrumentID: %.16s, "
               "instrumentNo: %d, instrumentNo: %d",
               incre.changeNo, static_cast<int32_t>(expected),
               reinterpret_cast<const char*>(record.inst_id),
               static_cast<int32_t>(incre.instrumentNo), slot);
        g_mdMonitor.CountGap(record, static_cast<uint32_t>(slot), expected, incre.changeNo);
        return RET_FAILED;
    }

    Undo undo;
    Changes changes(record, undo);
    const PriceScale scale{m_refCalcInfo.priceTick[slot], m_refCalcInfo.codecPrice[slot],
                           static_cast<double>(m_refCalcInfo.volumeMulti[slot])};
    _ApplyFields(changes, scale, packet + sizeof(MirpHeader),
                 len - static_cast<uint32_t>(sizeof(MirpHeader)));
    if (__builtin_expect(!_BookIsSane(record), 0)) {
        // The change number stays too: the next message of this instrument is then a gap, and the
        // feed takes a fresh snapshot.
        changes.Restore();
        g_mdMonitor.caller.restoredBooks.Add();
        return RET_OK;
    }
    record.update_time = decode.snapTime;
    record.update_milli_sec = decode.snapMillisec;
    record.change_no = incre.changeNo;
    g_mdMonitor.CountUpdate();
    return RET_TO_CALLBACK;
}

// SHFE's topics are tested first. A configured topic that is negative as a signed 16-bit number
// never matches, because the message's is taken as unsigned.
inline int32_t CExanicUdpFunc::_SelectSlot(const MirpHeader& header, uint16_t& exchangeType,
                                           int32_t& result) {
    const int32_t topic = header.decode.topicID;
    const ExanicMdConfigData& config = m_refConfigData;
    const bool shfe = topic == config.shfe2ps_topic_id || topic == config.shfe4ps_topic_id;
    if (!shfe && topic != config.ine2ps_topic_id && topic != config.ine4ps_topic_id) {
        MD_LOG_AS("_ParseMirp", LOG_ERROR, "unsupported topicID: 0x%x", header.decode.topicID);
        result = RET_FAILED;
        return -1;
    }
    const uint32_t instrumentNo = header.incre.instrumentNo;
    const uint32_t limit = shfe ? SHFE_MAX_INST_NO : INE_MAX_INST_NO;
    if (instrumentNo > limit) {
        bool& warn = shfe ? shfelogflag : inelogflag;
        if (warn) {
            MD_LOG_AS("_ParseMirp", LOG_WARNING, "%s InstNo [%d] is out of range [%d]",
                      shfe ? "shfe" : "ine", static_cast<int32_t>(instrumentNo),
                      static_cast<int32_t>(limit));
            warn = false;
        }
        result = RET_OK;
        return -1;
    }
    const uint32_t slot = shfe ? instrumentNo : LAST_SLOT - instrumentNo;
    m_refInstNo = slot;
    (shfe ? m_pShareMem->shfe_pktno : m_pShareMem->ine_pktno) = header.decode.packetNo;
    exchangeType = shfe ? EXCHANGE_TYPE_SHFE : EXCHANGE_TYPE_INE;
    return static_cast<int32_t>(slot);
}

// Only subscribed instruments have an identifier.
inline bool CExanicUdpFunc::_IsHandled(const instrument& record) const {
    const char* instId = reinterpret_cast<const char*>(record.inst_id);
    const bool isOption = instId[OPTION_CODE_INDEX] != '\0';
    if (instId[0] == '\0') {
        MD_LOG_AS("_ParseMirp", LOG_DEBUG_EX, "unsubscribed instrument");
        if (isOption) {
            MD_LOG_AS("_ParseMirp", LOG_DEBUG_EX, "do not handle options, instrumentID: %.16s",
                      instId);
        }
        g_mdMonitor.caller.unsubscribed.Add();
        return false;
    }
    if (isOption && m_refConfigData.options == 0) {
        MD_LOG_AS("_ParseMirp", LOG_DEBUG_EX, "do not handle options, instrumentID: %.16s", instId);
        g_mdMonitor.caller.optionsSkipped.Add();
        return false;
    }
    return true;
}

// The first field that is unknown or cut short ends the walk; what stood before it stays applied.
// Volumes wrap modulo 2^32.
inline __attribute__((always_inline)) void CExanicUdpFunc::_ApplyFields(Changes& changes,
                                                                        const PriceScale& scale,
                                                                        const char* cursor,
                                                                        uint32_t remaining) {
    instrument& record = changes.record;
    while (remaining >= MIN_FIELD_SIZE) {
        const auto fieldID = ReadRecord<FieldIDType>(cursor);
        MD_LOG_AS("_ParseMirp", LOG_DEBUG_EX, "fieldID: 0x%x", fieldID);
        uint32_t fieldSize = 0;
        if (fieldID == FIELD_PRICE_CHANGE && remaining >= sizeof(PriceChangeField)) {
            const auto field = ReadRecord<PriceChangeField>(cursor);
            _ApplyPriceChange(changes, field, scale.Price(field.priceOffset));
            fieldSize = sizeof(field);
        } else if (fieldID == FIELD_DEAL_SUMMARY && remaining >= sizeof(DealSummaryField)) {
            const DealSummaryField field = ReadDealSummary(cursor);
            if (changes.First(Undo::DEAL)) {
                changes.undo.lastPx = record.last_px;
                changes.undo.volume = record.volume;
                changes.undo.turnover = record.turnover;
                changes.undo.openInterest = record.open_interest;
            }
            record.last_px = scale.Price(field.lastPriceOffset);
            record.volume += static_cast<uint32_t>(field.volumeChange);
            record.open_interest += static_cast<double>(field.openInterestChange);
            record.turnover += scale.Amount(field.volumeChange, field.turnoverOffset);
            fieldSize = sizeof(field);
        } else if (fieldID == FIELD_BUY_STATICS && remaining >= sizeof(BuyStaticsField)) {
            const auto field = ReadRecord<BuyStaticsField>(cursor);
            if (changes.First(Undo::BID_TOTALS)) {
                changes.undo.bidTotvol = record.bid_totvol;
                changes.undo.bidTotamount = record.bid_totamount;
            }
            record.bid_totvol = static_cast<int32_t>(static_cast<uint32_t>(record.bid_totvol) +
                                                     static_cast<uint32_t>(field.bidVolumeChange));
            record.bid_totamount += scale.Amount(field.bidVolumeChange, field.bidAmountOffset);
            fieldSize = sizeof(field);
        } else if (fieldID == FIELD_SELL_STATICS && remaining >= sizeof(SellStaticsField)) {
            const auto field = ReadRecord<SellStaticsField>(cursor);
            if (changes.First(Undo::ASK_TOTALS)) {
                changes.undo.askTotvol = record.ask_totvol;
                changes.undo.askTotamount = record.ask_totamount;
            }
            record.ask_totvol = static_cast<int32_t>(static_cast<uint32_t>(record.ask_totvol) +
                                                     static_cast<uint32_t>(field.askVolumeChange));
            record.ask_totamount += scale.Amount(field.askVolumeChange, field.askAmountOffset);
            fieldSize = sizeof(field);
        } else if (fieldID == FIELD_HIGHEST_PRICE && remaining >= sizeof(HighestPriceField)) {
            const auto field = ReadRecord<HighestPriceField>(cursor);
            if (changes.First(Undo::HIGHEST)) {
                changes.undo.highestPrice = record.highest_price;
            }
            record.highest_price = scale.Price(field.highPriceOffset);
            fieldSize = sizeof(field);
        } else if (fieldID == FIELD_LOWEST_PRICE && remaining >= sizeof(LowestPriceField)) {
            const auto field = ReadRecord<LowestPriceField>(cursor);
            if (changes.First(Undo::LOWEST)) {
                changes.undo.lowestPrice = record.lowest_price;
            }
            record.lowest_price = scale.Price(field.lowPriceOffset);
            fieldSize = sizeof(field);
        } else {
            MD_LOG_AS("_ParseMirp", LOG_ERROR, "abnormal process fieldID: 0x%x length: %u", fieldID,
                      remaining);
            return;
        }
        cursor += fieldSize;
        remaining -= fieldSize;
    }
}

inline void CExanicUdpFunc::_ApplyPriceChange(Changes& changes, const PriceChangeField& change,
                                              double price) {
    const int32_t level = change.priceLevel;
    const uint8_t event = change.eventType;
    const uint8_t side = change.mdEntryType;
    if (level < 1 || level > BookChanges::CAPACITY) {
        MD_LOG_AS("_ParseMirp", LOG_ERROR, "invalid priceLevel: %u, instrumentID: %.16s",
                  change.priceLevel, reinterpret_cast<const char*>(changes.record.inst_id));
        return;
    }
    if (event < MD_EVENT_TYPE_ADD || event > MD_EVENT_TYPE_DEL) {
        MD_LOG_AS("_ParseMirp", LOG_ERROR, "unkonwn event type: %u", event);
        return;
    }
    if (side > MD_ENTRY_TYPE_ASK) {
        MD_LOG_AS("_ParseMirp", LOG_ERROR, "unkonwn md entry type: %u", change.mdEntryType);
        return;
    }
    const int32_t vol = static_cast<int32_t>(change.volume);
    if (event == MD_EVENT_TYPE_MODIFY) {
        changes.book.Overwrite(side, level, price, vol);
    } else if (event == MD_EVENT_TYPE_ADD) {
        changes.book.Insert(side, level, price, vol);
    } else {
        changes.book.Delete(side, level);
    }
}

// Neighbours among the first five levels of a side, then the touch. Prices are compared first:
// where all of them are in order, no level can be at fault.
inline bool CExanicUdpFunc::_BookIsSane(const instrument& record) {
    const double* bid = record.bid_px;
    const double* ask = record.ask_px;
    static_assert(BID_PX_LEVEL == 5 && ASK_PX_LEVEL == 5);
    const bool inOrder = bid[0] > bid[1] && bid[1] > bid[2] && bid[2] > bid[3] && bid[3] > bid[4] &&
                         ask[0] < ask[1] && ask[1] < ask[2] && ask[2] < ask[3] && ask[3] < ask[4] &&
                         bid[0] < ask[0];
    return inOrder || _LevelsAreSane(record);
}

// The same level by level, with emptiness; whether the instrument is exempt is looked up last.
__attribute__((noinline)) bool CExanicUdpFunc::_LevelsAreSane(const instrument& record) {
    const double* bidPx = record.bid_px;
    const double* askPx = record.ask_px;
    const auto hasBid = [&](int32_t i) { return !IsEmptyLevel(bidPx[i], record.bid_vol[i]); };
    const auto hasAsk = [&](int32_t i) { return !IsEmptyLevel(askPx[i], record.ask_vol[i]); };
    const char* instId = reinterpret_cast<const char*>(record.inst_id);

    for (int32_t i = 0; i < BID_PX_LEVEL - 1; ++i) {
        if (bidPx[i + 1] >= bidPx[i] && hasBid(i) && hasBid(i + 1)) {
            if (IsTradeAtSettlement(record)) {
                return true;
            }
            MD_LOG_AS("_ParseMirp", LOG_DEBUG_EX,
                      "bad mirp bid: bid[%d]=%.2f <= bid[%d]=%.2f, inst=%.16s, restore", i,
                      bidPx[i], i + 1, bidPx[i + 1], instId);
            return false;
        }
    }
    for (int32_t i = 0; i < ASK_PX_LEVEL - 1; ++i) {
        if (askPx[i] >= askPx[i + 1] && hasAsk(i) && hasAsk(i + 1)) {
            if (IsTradeAtSettlement(record)) {
                return true;
            }
            MD_LOG_AS("_ParseMirp", LOG_DEBUG_EX,
                      "bad mirp ask: ask[%d]=%.2f >= ask[%d]=%.2f, inst=%.16s, restore", i,
                      askPx[i], i + 1, askPx[i + 1], instId);
            return false;
        }
    }
    if (bidPx[0] >= askPx[0] && hasAsk(0) && hasBid(0)) {
        if (IsTradeAtSettlement(record)) {
            return true;
        }
        MD_LOG_AS("_ParseMirp", LOG_DEBUG_EX,
                  "bad mirp crossed: bid1=%.2f >= ask1=%.2f, inst=%.16s, restore", bidPx[0],
                  askPx[0], instId);
        return false;
    }
    return true;
}
