#include "snapshot_frames.h"

#include "wirekit/ethernet.h"

#include <algorithm>
#include <cstring>

uint32_t slot_of(const FeedLine& feed, int32_t number) {
    return static_cast<uint32_t>(feed.is_ine ? LAST_SLOT - number : number);
}

instrument SnapshotInstrument::record() const {
    instrument record;
    std::memset(&record, 0, sizeof record);
    std::memcpy(record.inst_id, info.inst_id.data(),
                std::min<std::size_t>(info.inst_id.size(), 15));
    record.last_px = deal.last_price;
    record.volume = static_cast<uint32_t>(deal.volume);
    record.update_milli_sec = static_cast<uint16_t>(deal.update_mill_sec);
    record.change_no = static_cast<uint32_t>(deal.change_no);
    record.turnover = deal.turnover;
    record.open_interest = deal.open_interest;
    record.highest_price = deal.highest_price;
    record.lowest_price = deal.lowest_price;
    record.bid_totvol = bid_totvol;
    record.bid_totamount = bid_totamount;
    record.ask_totvol = ask_totvol;
    record.ask_totamount = ask_totamount;
    for (std::size_t i = 0; i < bids.size(); ++i) {
        record.bid_px[i] = bids[i].first;
        record.bid_vol[i] = bids[i].second;
    }
    for (std::size_t i = 0; i < asks.size(); ++i) {
        record.ask_px[i] = asks[i].first;
        record.ask_vol[i] = asks[i].second;
    }
    return record;
}

SnapshotInstrument rebar() {
    SnapshotInstrument rb;
    rb.info = {.inst_id = "rb2601",
               .underlying_inst_id = "rb",
               .volume_multiple = 10,
               .price_tick = 1.0,
               .codec_price = 3000.0,
               .inst_no = 3};
    rb.deal = {.inst_no = 3,
               .last_price = 3010.0,
               .volume = 100,
               .turnover = 3.01e6,
               .open_interest = 5000.0,
               .highest_price = 3050.0,
               .lowest_price = 2990.0,
               .upper_limit_price = 3300.0,
               .lower_limit_price = 2700.0,
               .action_day = "20260818",
               .update_time = "09:00:00",
               .update_mill_sec = 500,
               .change_no = 7};
    rb.bids = {{3009.0, 5}, {3008.0, 6}};
    rb.asks = {{3011.0, 4}, {3012.0, 8}, {3014.0, 1}};
    rb.bid_totvol = 11;
    rb.bid_totamount = 33093.0;
    rb.ask_totvol = 13;
    rb.ask_totamount = 39154.0;
    return rb;
}

SnapshotInstrument crude() {
    SnapshotInstrument sc;
    sc.info = {.inst_id = "sc2601",
               .underlying_inst_id = "sc",
               .volume_multiple = 1000,
               .price_tick = 0.5,
               .codec_price = 500.0,
               .inst_no = 0};
    sc.deal = {.inst_no = 0,
               .last_price = 510.5,
               .volume = 7,
               .turnover = 3.5735e6,
               .open_interest = 900.0,
               .highest_price = 512.0,
               .lowest_price = 509.0,
               .upper_limit_price = 560.0,
               .lower_limit_price = 460.0,
               .action_day = "20260818",
               .update_time = "09:00:01",
               .update_mill_sec = 0,
               .change_no = 41};
    sc.bids = {{510.0, 2}};
    sc.asks = {{511.0, 3}};
    return sc;
}

std::vector<wirekit::Bytes> snapshot_frames(const FeedLine& feed,
                                            const std::vector<SnapshotInstrument>& instruments,
                                            uint32_t round) {
    std::vector<wirekit::Bytes> messages;
    wirekit::MdqpMessageBuilder dictionary(wirekit::kFlagMore);
    dictionary.snap(feed.topic, 1);
    for (const SnapshotInstrument& each : instruments) {
        dictionary.inst(each.info);
    }
    dictionary.packet_no(1);
    messages.push_back(dictionary.bytes());
    int32_t packet_no = 2;
    for (const SnapshotInstrument& each : instruments) {
        wirekit::MdqpMessageBuilder values(wirekit::kFlagMore);
        values.deal(each.deal);
        for (const auto& [price, volume] : each.bids) {
            values.price(each.info.inst_no, '0', price, volume);
        }
        for (const auto& [price, volume] : each.asks) {
            values.price(each.info.inst_no, '1', price, volume);
        }
        values.order_totals(each.info.inst_no, each.bid_totvol, each.bid_totamount, each.ask_totvol,
                            each.ask_totamount);
        messages.push_back(values.packet_no(packet_no++).bytes());
    }
    wirekit::MdqpMessageBuilder last(wirekit::kFlagLast);
    messages.push_back(last.packet_no(packet_no).bytes());

    std::vector<wirekit::Bytes> frames;
    uint32_t sequence = 1000 + round * 1000000;
    for (const wirekit::Bytes& message : messages) {
        frames.push_back(wirekit::tcp_segment()
                             .to(0x0A010102, feed.local_port)
                             .seq(sequence)
                             .payload(message)
                             .bytes());
        sequence += static_cast<uint32_t>(message.size());
    }
    return frames;
}
