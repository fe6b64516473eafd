#include "bench/reference/literal_snapshot.h"

#include "WireRead.h"
#include "dev/FpgaRegisters.h"

#include <cstring>
#include <string>

namespace bench {

namespace {

constexpr int kDebug = 8;
constexpr int kDebugEx = 16;

bool is_empty(double price, int32_t volume) {
    return price > -0.00001 && price < 0.00001 && volume < 1;
}

double value_or_zero(double value) {
    return value == MDQP_NO_VALUE ? 0.0 : value;
}

} // namespace

LiteralSnapshot::LiteralSnapshot(Market& market, volatile uint32_t* registers)
    : market_(market), registers_(registers), limits_(INSTRUMENT_SLOT_CNT) {}

void LiteralSnapshot::clean() {
    std::memset(static_cast<void*>(&market_), 0, sizeof(market_));
    sessions_.clear();
    limits_.assign(INSTRUMENT_SLOT_CNT, inter_info{});
    finished_ = 0;
}

bool LiteralSnapshot::checksum_is_right(const char* ip, const char* tcp, uint32_t size) {
    char scratch[2048 + 12] = {};
    std::memcpy(scratch, ip + 12, 8);
    scratch[9] = 6;
    scratch[10] = static_cast<char>(size >> 8);
    scratch[11] = static_cast<char>(size & 0xFF);
    std::memcpy(scratch + 12, tcp, size);
    uint32_t sum = 0;
    for (uint32_t i = 0; i < size + 12; i += 2) {
        sum += ReadBe16(scratch + i); // an odd last byte has a zero behind it
    }
    while (sum >> 16 != 0) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return sum == 0xFFFF;
}

void LiteralSnapshot::handle(char* frame, uint32_t length) {
    if (length < 34) {
        log_.write(kDebugEx, "packet too short for IP, packetLen=%u", length);
        return;
    }
    const char* const ip = frame + 14;
    const uint32_t ip_size = (static_cast<uint8_t>(ip[0]) & 0x0Fu) * 4;
    if (ip_size < 20 || length < 14 + ip_size) {
        log_.write(kDebugEx, "invalid IP header, ip_hdr_len=%u packetLen=%u", ip_size, length);
        return;
    }
    if (ip[9] != 6 || length < 14 + ip_size + 20) {
        log_.write(kDebugEx, "ip_p [%d]", ip[9]);
        return;
    }
    const char* const tcp = ip + ip_size;
    if (ReadBe16(tcp) != 33022) {
        return;
    }
    const uint32_t tcp_size = (static_cast<uint8_t>(tcp[12]) >> 4) * 4u;
    const uint32_t total = ReadBe16(ip + 2);
    if (tcp_size < 20 || total <= ip_size + tcp_size || length < 14 + total) {
        log_.write(kDebugEx, "payloadSize<=0");
        return;
    }
    const uint32_t payload_size = total - ip_size - tcp_size;
    if (!checksum_is_right(ip, tcp, total - ip_size)) {
        log_.write(kDebug, "tcp checksum is not correct");
        return;
    }
    char* const payload = frame + 14 + ip_size + tcp_size;
    Session& session = sessions_[ReadBe16(tcp + 2)];
    const uint32_t seq = ReadBe32(tcp + 4);
    if (!session.started) {
        if (!start(session, payload, payload_size)) {
            return;
        }
        session.next_seq = seq;
    }
    if (seq != session.next_seq) {
        return;
    }
    session.next_seq = seq + payload_size;
    session.joined.insert(session.joined.end(), payload, payload + payload_size);
    while (session.joined.size() >= sizeof(MdqpHeader)) {
        const std::size_t size =
            sizeof(MdqpHeader) + ReadRecord<MdqpHeader>(session.joined.data()).length;
        if (session.joined.size() < size) {
            break;
        }
        std::vector<char> message(session.joined.begin(),
                                  session.joined.begin() + static_cast<std::ptrdiff_t>(size));
        message.resize(size + 256);
        session.joined.erase(session.joined.begin(),
                             session.joined.begin() + static_cast<std::ptrdiff_t>(size));
        decode(session, message.data());
    }
}

// The first payload of a round names the feed.
bool LiteralSnapshot::start(Session& session, const char* payload, uint32_t size) {
    if (size < 45 || static_cast<uint8_t>(payload[0]) != 0x11 || payload[1] != 0x32) {
        return false;
    }
    for (uint32_t offset = 8; offset + 4 <= size;) {
        const auto header = ReadRecord<FieldHeader>(payload + offset);
        if (header.field_size == 0) {
            return false;
        }
        if (header.field_id == FIELD_SNAP) {
            const auto snap = ReadRecord<SnapField>(payload + offset + 4);
            log_.write(kDebugEx, "topic ID: %d, snap No: %d", snap.topic_id, snap.snap_no);
            const uint8_t mask = snap.topic_id == kShfeTopic ? MASK_SHFE_2PS : MASK_INE_2PS;
            if ((finished_ & mask) != 0) {
                return false;
            }
            session.shfe = snap.topic_id == kShfeTopic;
            session.started = true;
        }
        offset += 4u + header.field_size;
    }
    return session.started;
}

void LiteralSnapshot::decode(Session& session, char* message) {
    const auto header = ReadRecord<MdqpHeader>(message);
    log_.write(kDebugEx, "MDQP flag: 0x%x, type_id: 0x%x, length: %u, requset_id: %d", header.flag,
               static_cast<unsigned>(header.type_id), header.length, header.request_id);
    uint16_t previous = 0;
    if (header.length > 8) {
        for (uint32_t offset = 8; offset < header.length;) {
            const auto next = ReadRecord<FieldHeader>(message + offset);
            log_.write(kDebugEx, "field_id: 0x%x, field_size: %u", next.field_id, next.field_size);
            field(session, next.field_id, previous, message + offset + 4);
            previous = next.field_id;
            offset += 4u + next.field_size;
        }
    }
    if (header.flag == MDQP_FLAG_LAST) {
        finished_ |= session.shfe ? MASK_SHFE_2PS : MASK_INE_2PS;
        session.started = false;
    }
}

void LiteralSnapshot::field(Session& session, uint16_t id, uint16_t previous, char* data) {
    switch (id) {
    case FIELD_INST_INFO:
        inst_info(session, data);
        break;
    case FIELD_DEAL_INFO:
        deal_info(session, data);
        break;
    case FIELD_PRICE_DETAIL:
        price_detail(session, previous, data);
        break;
    case FIELD_ORDER_STATIS: {
        const auto totals = ReadRecord<OrderStatisField>(data);
        int64_t slot = 0;
        if (instrument* const record = record_of(session, totals.inst_no, slot)) {
            record->bid_totvol = totals.bid_totvol;
            record->ask_totvol = totals.ask_totvol;
            record->bid_totamount = totals.bid_totamount;
            record->ask_totamount = totals.ask_totamount;
        }
        break;
    }
    case FIELD_PACKET_NO: {
        const auto packet = ReadRecord<PacketNoField>(data);
        (session.shfe ? market_.table.shfe_pktno : market_.table.ine_pktno) = packet.packet_no;
        log_.write(kDebugEx, "packet_no: %d", packet.packet_no);
        break;
    }
    default:
        break;
    }
}

instrument* LiteralSnapshot::record_of(const Session& session, int32_t number, int64_t& slot) {
    slot = session.shfe ? number : LAST_SLOT - number;
    if (number > (session.shfe ? 16383 : 4095) || slot < 0 || slot > LAST_SLOT) {
        return nullptr;
    }
    instrument& record = market_.table.instmts[slot];
    return record.inst_id[0] == '\0' ? nullptr : &record;
}

void LiteralSnapshot::inst_info(Session& session, const char* data) {
    const auto info = ReadRecord<InstInfoField>(data);
    log_.write(kDebugEx,
               "inst_id: %.31s, inst_no: %d, vol_multi: %d, price_tick: %lf, codec_price: %lf",
               info.inst_id, info.inst_no, info.volume_multiple, info.price_tick, info.codec_price);
    int64_t slot = 0;
    (void)record_of(session, info.inst_no, slot);
    int32_t& count = session.shfe ? market_.table.shfe_inst_cnt : market_.table.ine_inst_cnt;
    if (info.inst_no >= count) {
        count = info.inst_no + 1;
    }
    const std::string id(info.inst_id);
    registers_[session.shfe ? EXANIC_FPGA_SHFE_ADDR_WR : EXANIC_FPGA_INE_ADDR_WR] =
        static_cast<uint32_t>(info.inst_no);
    registers_[session.shfe ? EXANIC_FPGA_SHFE_DATA_WR : EXANIC_FPGA_INE_DATA_WR] = 1;
    instrument& record = market_.table.instmts[slot];
    std::strncpy(reinterpret_cast<char*>(record.inst_id), id.c_str(), 15);
    log_.write(kDebug, "instrument [%s] subscribed, inst_no [%d]", id.c_str(), info.inst_no);
    market_.scale.priceTick[slot] = info.price_tick;
    market_.scale.codecPrice[slot] = value_or_zero(info.codec_price);
    market_.scale.volumeMulti[slot] = info.volume_multiple;
}

void LiteralSnapshot::deal_info(Session& session, const char* data) {
    const auto deal = ReadRecord<DealInfoField>(data);
    int64_t slot = 0;
    instrument* const record = record_of(session, deal.inst_no, slot);
    if (record == nullptr) {
        return;
    }
    log_.write(kDebugEx,
               "last_price: %lf, volume: %d, turnover: %lf, open_interest: %lf, change_no: %d, "
               "update_time: %.9s, update_mill_sec: %d",
               deal.last_price, deal.volume, deal.turnover, deal.open_interest, deal.change_no,
               deal.update_time, deal.update_mill_sec);
    record->last_px = value_or_zero(deal.last_price);
    record->turnover = value_or_zero(deal.turnover);
    record->change_no = static_cast<uint32_t>(deal.change_no);
    record->update_milli_sec = static_cast<uint16_t>(deal.update_mill_sec);
    record->open_interest = deal.open_interest;
    record->volume = static_cast<uint32_t>(deal.volume);
    record->highest_price = value_or_zero(deal.highest_price);
    record->lowest_price = value_or_zero(deal.lowest_price);
    inter_info& limits = limits_[static_cast<std::size_t>(slot)];
    limits.upper_limit_price = value_or_zero(deal.upper_limit_price);
    limits.lower_limit_price = value_or_zero(deal.lower_limit_price);
}

void LiteralSnapshot::price_detail(Session& session, uint16_t previous, const char* data) {
    auto detail = ReadRecord<PriceDetailField>(data);
    int64_t slot = 0;
    instrument* const record = record_of(session, detail.inst_no, slot);
    if (record == nullptr) {
        return;
    }
    const double price = value_or_zero(detail.price);
    if (previous != FIELD_PRICE_DETAIL) {
        for (int i = 0; i < 5; ++i) {
            record->bid_px[i] = record->ask_px[i] = 0.0;
            record->bid_vol[i] = record->ask_vol[i] = 0;
        }
    }
    const bool buy = detail.direction == '0';
    double* const prices = buy ? record->bid_px : record->ask_px;
    int32_t* const volumes = buy ? record->bid_vol : record->ask_vol;
    int i = 0;
    while (i < 5 && !is_empty(prices[i], volumes[i]) &&
           !(buy ? price + 0.00001 >= prices[i] : prices[i] >= price - 0.00001)) {
        ++i;
    }
    prices[i] = price;
    volumes[i] = detail.volume;
}

} // namespace bench
