// Prints the records of the wire, of the feed and of the card as the headers have them, a member a
// line: "RECORD MEMBER OFFSET SIZE", then "RECORD - SIZE". The documentation is held against it.

#include "ExanicMdMonitor.h"
#include "ExanicMdTypes.h"
#include "dev/FpgaRegisters.h"
#include "tcp/MdqpRecords.h"
#include "udp/MirpRecords.h"

#include <cstdio>

namespace {

void line(const char* record, const char* member, size_t offset, size_t size) {
    std::printf("%s %s %zu %zu\n", record, member, offset, size);
}

} // namespace

#define MEMBER(record, member)                                                                     \
    line(#record, #member, offsetof(record, member), sizeof(record::member))
#define END(record) std::printf("%s - %zu\n", #record, sizeof(record))
#define REGISTER(name) std::printf("register %s %u\n", #name, static_cast<unsigned>(name))

static void print_mirp() {
    MEMBER(DecodeHeader, topicID);
    MEMBER(DecodeHeader, snapMillisec);
    MEMBER(DecodeHeader, snapTime);
    MEMBER(DecodeHeader, packetNo);
    END(DecodeHeader);
    MEMBER(MarketDataIncreField, fieldID);
    MEMBER(MarketDataIncreField, instrumentNo);
    MEMBER(MarketDataIncreField, changeNo);
    MEMBER(MarketDataIncreField, reserved);
    END(MarketDataIncreField);
    MEMBER(PriceChangeField, fieldID);
    MEMBER(PriceChangeField, mdEntryType);
    MEMBER(PriceChangeField, priceLevel);
    MEMBER(PriceChangeField, priceOffset);
    MEMBER(PriceChangeField, volume);
    MEMBER(PriceChangeField, eventType);
    MEMBER(PriceChangeField, reserved1);
    MEMBER(PriceChangeField, reserved2);
    END(PriceChangeField);
    MEMBER(DealSummaryField, fieldID);
    MEMBER(DealSummaryField, lastPriceOffset);
    MEMBER(DealSummaryField, volumeChange);
    MEMBER(DealSummaryField, turnoverOffset);
    MEMBER(DealSummaryField, openInterestChange);
    MEMBER(DealSummaryField, reserved1);
    MEMBER(DealSummaryField, reserved2);
    END(DealSummaryField);
    MEMBER(HighestPriceField, fieldID);
    MEMBER(HighestPriceField, highPriceOffset);
    MEMBER(HighestPriceField, reserved);
    END(HighestPriceField);
    MEMBER(LowestPriceField, fieldID);
    MEMBER(LowestPriceField, lowPriceOffset);
    MEMBER(LowestPriceField, reserved);
    END(LowestPriceField);
    MEMBER(BuyStaticsField, fieldID);
    MEMBER(BuyStaticsField, bidVolumeChange);
    MEMBER(BuyStaticsField, bidAmountOffset);
    MEMBER(BuyStaticsField, reserved);
    END(BuyStaticsField);
    MEMBER(SellStaticsField, fieldID);
    MEMBER(SellStaticsField, askVolumeChange);
    MEMBER(SellStaticsField, askAmountOffset);
    MEMBER(SellStaticsField, reserved);
    END(SellStaticsField);
}

static void print_mdqp() {
    MEMBER(MdqpHeader, flag);
    MEMBER(MdqpHeader, type_id);
    MEMBER(MdqpHeader, length);
    MEMBER(MdqpHeader, request_id);
    END(MdqpHeader);
    MEMBER(FieldHeader, field_id);
    MEMBER(FieldHeader, field_size);
    END(FieldHeader);
    MEMBER(SnapField, topic_id);
    MEMBER(SnapField, snap_no);
    END(SnapField);
    MEMBER(PacketNoField, packet_no);
    END(PacketNoField);
    MEMBER(InstInfoField, inst_id);
    MEMBER(InstInfoField, underlying_inst_id);
    MEMBER(InstInfoField, product_class);
    MEMBER(InstInfoField, strike_price);
    MEMBER(InstInfoField, options_type);
    MEMBER(InstInfoField, volume_multiple);
    MEMBER(InstInfoField, underlying_multiple);
    MEMBER(InstInfoField, is_trading);
    MEMBER(InstInfoField, currency_id);
    MEMBER(InstInfoField, price_tick);
    MEMBER(InstInfoField, codec_price);
    MEMBER(InstInfoField, inst_no);
    END(InstInfoField);
    MEMBER(DealInfoField, inst_no);
    MEMBER(DealInfoField, last_price);
    MEMBER(DealInfoField, volume);
    MEMBER(DealInfoField, turnover);
    MEMBER(DealInfoField, open_interest);
    MEMBER(DealInfoField, highest_price);
    MEMBER(DealInfoField, lowest_price);
    MEMBER(DealInfoField, open_price);
    MEMBER(DealInfoField, close_price);
    MEMBER(DealInfoField, settlement_price);
    MEMBER(DealInfoField, upper_limit_price);
    MEMBER(DealInfoField, lower_limit_price);
    MEMBER(DealInfoField, pre_settlement_price);
    MEMBER(DealInfoField, pre_close_price);
    MEMBER(DealInfoField, pre_open_interest);
    MEMBER(DealInfoField, pre_delta);
    MEMBER(DealInfoField, curr_delta);
    MEMBER(DealInfoField, action_day);
    MEMBER(DealInfoField, update_time);
    MEMBER(DealInfoField, update_mill_sec);
    MEMBER(DealInfoField, change_no);
    END(DealInfoField);
    MEMBER(PriceDetailField, inst_no);
    MEMBER(PriceDetailField, direction);
    MEMBER(PriceDetailField, price);
    MEMBER(PriceDetailField, volume);
    END(PriceDetailField);
    MEMBER(OrderStatisField, inst_no);
    MEMBER(OrderStatisField, bid_totvol);
    MEMBER(OrderStatisField, bid_totamount);
    MEMBER(OrderStatisField, ask_totvol);
    MEMBER(OrderStatisField, ask_totamount);
    END(OrderStatisField);
}

static void print_record() {
    MEMBER(instrument, inst_id);
    MEMBER(instrument, last_px);
    MEMBER(instrument, volume);
    MEMBER(instrument, update_time);
    MEMBER(instrument, update_milli_sec);
    MEMBER(instrument, type);
    MEMBER(instrument, change_no);
    MEMBER(instrument, turnover);
    MEMBER(instrument, open_interest);
    MEMBER(instrument, bid_totvol);
    MEMBER(instrument, ask_totvol);
    MEMBER(instrument, bid_totamount);
    MEMBER(instrument, ask_totamount);
    MEMBER(instrument, highest_price);
    MEMBER(instrument, lowest_price);
    MEMBER(instrument, bid_px);
    MEMBER(instrument, bid_vol);
    MEMBER(instrument, ask_vol);
    MEMBER(instrument, ask_px);
    END(instrument);
    MEMBER(share, instmts);
    MEMBER(share, shfe_inst_cnt);
    MEMBER(share, ine_inst_cnt);
    MEMBER(share, shfe_pktno);
    MEMBER(share, ine_pktno);
    END(share);
}

static void print_registers() {
    REGISTER(EXANIC_FPGA_VERSION);
    REGISTER(EXANIC_FPGA_DATA);
    REGISTER(EXANIC_FPGA_RESET);
    REGISTER(EXANIC_FPGA_SNAP_TIME);
    REGISTER(EXANIC_FPGA_SHFE_IP_A);
    REGISTER(EXANIC_FPGA_INE_IP_A);
    REGISTER(EXANIC_FPGA_SHFE_PORT_A);
    REGISTER(EXANIC_FPGA_INE_PORT_A);
    REGISTER(EXANIC_FPGA_SHFE_IP_B);
    REGISTER(EXANIC_FPGA_INE_IP_B);
    REGISTER(EXANIC_FPGA_SHFE_PORT_B);
    REGISTER(EXANIC_FPGA_INE_PORT_B);
    REGISTER(EXANIC_FPGA_ORIG_DATA_SW);
    REGISTER(EXANIC_FPGA_DECODE_SW);
    REGISTER(EXANIC_FPGA_ALL_INE_SW);
    REGISTER(EXANIC_FPGA_ALL_SHFE_SW);
    REGISTER(EXANIC_FPGA_START_PKT_NO);
    REGISTER(EXANIC_FPGA_SPLIT_ALL_FIELD);
    REGISTER(EXANIC_FPGA_SHFE_ADDR_WR);
    REGISTER(EXANIC_FPGA_SHFE_DATA_WR);
    REGISTER(EXANIC_FPGA_INE_ADDR_WR);
    REGISTER(EXANIC_FPGA_INE_DATA_WR);
}

int main() {
    print_mirp();
    print_mdqp();
    print_record();
    print_registers();
    return 0;
}
