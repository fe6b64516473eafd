#include "udp_fixture.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>

namespace udp_test {

namespace {

template <typename Value>
void report(std::ostringstream& out, const char* member, const Value& expected,
            const Value& actual) {
    if (std::memcmp(&expected, &actual, sizeof expected) != 0) {
        out << "\n  " << member << ": expected " << expected << ", is " << actual;
    }
}

template <typename Value>
void report_levels(std::ostringstream& out, const char* member, const Value (&expected)[10],
                   const Value (&actual)[10]) {
    for (int i = 0; i < 10; ++i) {
        const std::string name = std::string(member) + "[" + std::to_string(i) + "]";
        report(out, name.c_str(), expected[i], actual[i]);
    }
}

} // namespace

std::vector<std::string> at_levels(const Outcome& outcome, const std::string& levels) {
    std::vector<std::string> lines;
    for (const std::string& line : outcome.log) {
        if (levels.find(line.at(0)) != std::string::npos) {
            lines.push_back(line);
        }
    }
    return lines;
}

::testing::AssertionResult same_record(const instrument& expected, const instrument& actual) {
    if (std::memcmp(&expected, &actual, sizeof(instrument)) == 0) {
        return ::testing::AssertionSuccess();
    }
    std::ostringstream out;
    out.precision(17);
    if (std::memcmp(expected.inst_id, actual.inst_id, sizeof expected.inst_id) != 0) {
        out << "\n  inst_id";
    }
    report(out, "last_px", expected.last_px, actual.last_px);
    report(out, "volume", expected.volume, actual.volume);
    report(out, "update_time", expected.update_time, actual.update_time);
    report(out, "update_milli_sec", expected.update_milli_sec, actual.update_milli_sec);
    report(out, "type", expected.type, actual.type);
    report(out, "change_no", expected.change_no, actual.change_no);
    report(out, "turnover", expected.turnover, actual.turnover);
    report(out, "open_interest", expected.open_interest, actual.open_interest);
    report(out, "bid_totvol", expected.bid_totvol, actual.bid_totvol);
    report(out, "ask_totvol", expected.ask_totvol, actual.ask_totvol);
    report(out, "bid_totamount", expected.bid_totamount, actual.bid_totamount);
    report(out, "ask_totamount", expected.ask_totamount, actual.ask_totamount);
    report(out, "highest_price", expected.highest_price, actual.highest_price);
    report(out, "lowest_price", expected.lowest_price, actual.lowest_price);
    report_levels(out, "bid_px", expected.bid_px, actual.bid_px);
    report_levels(out, "bid_vol", expected.bid_vol, actual.bid_vol);
    report_levels(out, "ask_vol", expected.ask_vol, actual.ask_vol);
    report_levels(out, "ask_px", expected.ask_px, actual.ask_px);
    return ::testing::AssertionFailure() << "records differ:" << out.str();
}

void set_id(instrument& record, const std::string& inst_id) {
    std::memset(record.inst_id, 0, sizeof record.inst_id);
    std::memcpy(record.inst_id, inst_id.data(), std::min(inst_id.size(), sizeof record.inst_id));
}

double next_below(double value) {
    return std::nextafter(value, -std::numeric_limits<double>::infinity());
}
double next_above(double value) {
    return std::nextafter(value, std::numeric_limits<double>::infinity());
}

instrument lived_in_record(const std::string& inst_id, uint32_t change_no) {
    instrument record{};
    set_id(record, inst_id);
    record.last_px = 100.25;
    record.volume = 5000;
    record.update_time = 92959;
    record.update_milli_sec = 123;
    record.type = 77; // no exchange: shows that it is written
    record.change_no = change_no;
    record.turnover = 501250.5;
    record.open_interest = 1234.0;
    record.bid_totvol = 640;
    record.ask_totvol = 730;
    record.bid_totamount = 62000.25;
    record.ask_totamount = 75000.75;
    record.highest_price = 103.5;
    record.lowest_price = 97.5;
    for (int i = 0; i < 10; ++i) {
        record.bid_px[i] = 100.0 - i;
        record.bid_vol[i] = 11 + i;
        record.ask_px[i] = 101.0 + i;
        record.ask_vol[i] = 31 + i;
    }
    return record;
}

UdpTest::UdpTest()
    : table_(std::make_unique<share>()), calc_(std::make_unique<PriceCalcInfo>()),
      udp_(config_, table_.get(), cache_, *calc_, cur_inst_no_),
      before_(std::make_unique<share>()) {
    config_.shfe2ps_topic_id = static_cast<int16_t>(kShfe2psTopic);
    config_.shfe4ps_topic_id = static_cast<int16_t>(kShfe4psTopic);
    config_.ine2ps_topic_id = static_cast<int16_t>(kIne2psTopic);
    config_.ine4ps_topic_id = static_cast<int16_t>(kIne4psTopic);
    config_.options = 1;
    table_->shfe_pktno = -11;
    table_->ine_pktno = -12;
    auto& card = support::ScriptedCard::instance();
    card.reset();
    udp_.InitUdp(card.registers(), card.rx(0));
    subscribe(kSlot, "cu2609");
}

instrument& UdpTest::subscribe(uint32_t slot, const std::string& inst_id, double tick,
                               double codec_price, int32_t volume_multiple) {
    calc_->priceTick[slot] = tick;
    calc_->codecPrice[slot] = codec_price;
    calc_->volumeMulti[slot] = volume_multiple;
    record(slot) = lived_in_record(inst_id);
    return record(slot);
}

wirekit::DecodeBufferBuilder UdpTest::message() {
    return wirekit::decode_buffer()
        .topic(kShfe2psTopic)
        .time(kTime, kMillisec)
        .packet_no(kPacketNo)
        .instrument(kNumber)
        .change_no(kChangeNo + 1);
}

Outcome UdpTest::parse(const wirekit::Bytes& bytes) {
    const std::unique_ptr<char[]> exact(new char[bytes.size()]);
    if (!bytes.empty()) {
        std::memcpy(exact.get(), bytes.data(), bytes.size());
    }
    return watch([&] { return udp_._ParseMirp(exact.get(), static_cast<uint32_t>(bytes.size())); });
}

void UdpTest::begin_watch() {
    std::memcpy(before_.get(), table_.get(), sizeof(share));
    cur_inst_no_ = kNoSlot;
    support::ScriptedCard::instance().clear_stores();
}

void UdpTest::end_watch(Outcome& outcome) {
    outcome.slot = cur_inst_no_;
    outcome.stores = support::ScriptedCard::instance().stores();
    for (uint32_t slot = 0; slot < INSTRUMENT_SLOT_CNT; ++slot) {
        if (std::memcmp(&before_->instmts[slot], &table_->instmts[slot], sizeof(instrument)) != 0) {
            outcome.changed.push_back(slot);
        }
    }
    // No message touches the counts.
    EXPECT_EQ(table_->shfe_inst_cnt, before_->shfe_inst_cnt);
    EXPECT_EQ(table_->ine_inst_cnt, before_->ine_inst_cnt);
}

} // namespace udp_test
