#include "tests/unit/tcp/random_traffic.h"

#include "wirekit/ethernet.h"

#include <algorithm>
#include <limits>

namespace tcp_test {

namespace {

using wirekit::Bytes;
using wirekit::MdqpMessageBuilder;

Bytes slice(const Bytes& bytes, std::size_t from, std::size_t to) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                 bytes.begin() + static_cast<std::ptrdiff_t>(to));
}

} // namespace

std::vector<Bytes> RandomTraffic::sequence() {
    std::vector<std::vector<Bytes>> streams(1 + below(3));
    std::size_t left = 0;
    for (std::vector<Bytes>& frames : streams) {
        frames = stream_frames();
        left += frames.size();
    }
    std::vector<Bytes> merged;
    std::vector<std::size_t> next(streams.size(), 0);
    while (left > 0) {
        const std::size_t i = below(static_cast<uint32_t>(streams.size()));
        if (next[i] < streams[i].size()) {
            merged.push_back(streams[i][next[i]++]);
            --left;
        }
    }
    return merged;
}

std::vector<Bytes> RandomTraffic::stream_frames() {
    const auto src_port = pick(settings_.src_ports);
    const auto dst_port = static_cast<uint16_t>(40000 + below(one_in(2) ? 3 : 50));
    const uint32_t first_seq = one_in(8) ? 0xFFFFFFFFu - below(3000) : below(1000) * 1000;
    const Bytes bytes = stream();
    std::vector<Piece> pieces = cut(bytes, first_seq);
    if (one_in(60)) { // a flood far ahead
        for (uint32_t copies = 0; copies < 505; ++copies) {
            const uint32_t ahead = 500000 + (one_in(3) ? copies : below(500));
            const std::size_t at = pieces.size() / 2;
            pieces.insert(pieces.begin() + static_cast<std::ptrdiff_t>(at),
                          {first_seq + ahead, Bytes(5, 0x11)});
        }
    }
    if (one_in(2)) {
        disturb(pieces, bytes, first_seq);
    }
    if (!one_in(4)) { // the sender repeats what was not acknowledged
        const std::vector<Piece> again = cut(bytes, first_seq);
        const std::size_t from = one_in(3) ? below(static_cast<uint32_t>(again.size())) : 0;
        pieces.insert(pieces.end(), again.begin() + static_cast<std::ptrdiff_t>(from), again.end());
    }
    std::vector<Bytes> frames;
    for (const Piece& piece : pieces) {
        frames.push_back(frame(piece, src_port, dst_port));
    }
    return frames;
}

Bytes RandomTraffic::stream() {
    Bytes bytes;
    const uint32_t count = 2 + below(12);
    for (uint32_t i = 0; i < count; ++i) {
        const bool last = i + 1 == count || one_in(20);
        wirekit::append(bytes, message(last ? wirekit::kFlagLast : wirekit::kFlagMore, i == 0));
        if (settings_.hostile && one_in(40)) {
            wirekit::append(bytes, Bytes(below(30), static_cast<uint8_t>(below(256))));
        }
    }
    return bytes;
}

Bytes RandomTraffic::message(uint8_t flag, bool first) {
    if (settings_.hostile && one_in(30)) {
        flag = static_cast<uint8_t>(below(256));
    }
    MdqpMessageBuilder built(flag,
                             settings_.hostile && one_in(40) ? static_cast<int8_t>(below(256) - 128)
                                                             : wirekit::kTypeSnapshot,
                             static_cast<int32_t>(below(1000)));
    if (first && !(settings_.hostile && one_in(10))) {
        built.snap(pick(settings_.topics), static_cast<int32_t>(below(100)));
    }
    const uint32_t count = below(settings_.hostile ? 10 : 3);
    for (uint32_t i = 0; i < count; ++i) {
        if (settings_.hostile) {
            hostile_field(built);
        } else {
            good_instrument(built);
        }
    }
    built.packet_no(static_cast<int32_t>(below(100000)));
    if (one_in(3)) { // long ones take several segments
        const uint32_t size = one_in(20) ? 20000 : one_in(5) ? 3000 : 300;
        built.field(0x1002, static_cast<uint16_t>(size), Bytes(size, 0x55));
    }
    if (settings_.hostile && one_in(25)) {
        built.length(static_cast<uint16_t>(one_in(2) ? below(65536) : below(40)));
    }
    return built.bytes();
}

// Entry, deal, totals and a book that passes the check.
void RandomTraffic::good_instrument(MdqpMessageBuilder& built) {
    const auto no = static_cast<int32_t>(below(40));
    built.inst({.inst_id = inst_id(),
                .volume_multiple = 5,
                .price_tick = 0.5,
                .codec_price = 100,
                .inst_no = no});
    built.deal({.inst_no = no,
                .last_price = price(),
                .volume = volume(),
                .turnover = price(),
                .upper_limit_price = 1000,
                .lower_limit_price = -1000,
                .update_time = "09:00:00",
                .update_mill_sec = volume(),
                .change_no = volume()});
    const uint32_t levels = below(7);
    for (uint32_t i = 0; i < levels; ++i) {
        built.price(no, '0', 100 - static_cast<int32_t>(i), static_cast<int32_t>(1 + below(9)));
        built.price(no, '1', 101 + static_cast<int32_t>(i), static_cast<int32_t>(1 + below(9)));
    }
    if (one_in(2)) {
        built.order_totals(no, volume(), price(), volume(), price());
    }
}

void RandomTraffic::hostile_field(MdqpMessageBuilder& built) {
    switch (below(9)) {
    case 0:
    case 1:
        built.inst({.inst_id = inst_id(),
                    .volume_multiple = volume(),
                    .price_tick = price(),
                    .codec_price = price(),
                    .inst_no = number()});
        break;
    case 2:
        built.deal({.inst_no = number(),
                    .last_price = price(),
                    .volume = volume(),
                    .turnover = price(),
                    .open_interest = price(),
                    .highest_price = price(),
                    .lowest_price = price(),
                    .upper_limit_price = price(),
                    .lower_limit_price = price(),
                    .update_time = "12:34:56",
                    .update_mill_sec = volume(),
                    .change_no = volume()});
        break;
    case 3:
    case 4:
        for (uint32_t i = 1 + below(8); i > 0; --i) {
            built.price(number(), one_in(10) ? 'x' : one_in(2) ? '0' : '1', price(), volume());
        }
        break;
    case 5:
        built.order_totals(number(), volume(), price(), volume(), price());
        break;
    case 6:
        built.packet_no(volume());
        break;
    case 7: // a record whose field says another size
        if (one_in(3)) {
            const std::vector<uint16_t> ids = {0x0101, 0x0102, 0x0103, 0x0104, 0x1001, 0x1004};
            const uint32_t size = one_in(4) ? 0 : below(60);
            built.field(pick(ids), static_cast<uint16_t>(size),
                        Bytes(size, static_cast<uint8_t>(below(4))));
        }
        break;
    default: {
        const std::vector<uint16_t> ids = {0x0031, 0x0032, 0x1002, 0x1003, 0x7777};
        const uint32_t size = 1 + below(20);
        built.field(pick(ids), static_cast<uint16_t>(size), Bytes(size, 0x55));
        break;
    }
    }
}

std::vector<RandomTraffic::Piece> RandomTraffic::cut(const Bytes& bytes, uint32_t first_seq) {
    // Some streams come in tiny segments, some in full ones.
    const uint32_t largest = one_in(5) ? 30 + below(100) : one_in(2) ? 300 : 1460;
    const bool whole_messages = one_in(3);
    std::vector<Piece> pieces;
    for (std::size_t at = 0; at < bytes.size();) {
        std::size_t size = one_in(3) ? 1 + below(largest) : largest;
        if (at == 0 && !one_in(10)) { // the first message begins a segment of its own
            const std::size_t message_size = wirekit::get_le16(bytes.data() + 2) + 8u;
            size = std::min(message_size, std::max<std::size_t>(size, 60));
        }
        if (whole_messages && bytes.size() - at >= 8) {
            size = std::min<std::size_t>(1460, wirekit::get_le16(bytes.data() + at + 2) + 8u);
        }
        const std::size_t end = std::min(bytes.size(), at + size);
        pieces.push_back({first_seq + static_cast<uint32_t>(at), slice(bytes, at, end)});
        at = end;
    }
    return pieces;
}

void RandomTraffic::disturb(std::vector<Piece>& pieces, const Bytes& bytes, uint32_t first_seq) {
    const uint32_t rarity = 3 + below(40);
    std::vector<Piece> arrived;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        if (i > 0 && one_in(rarity)) {
            continue; // lost
        }
        arrived.push_back(pieces[i]);
        if (one_in(rarity)) { // repeated
            for (uint32_t copies = 1 + below(3); copies > 0; --copies) {
                arrived.push_back(pieces[i]);
            }
        }
        if (one_in(rarity)) { // sent again with other borders
            const std::size_t from = below(static_cast<uint32_t>(bytes.size()));
            const std::size_t to = std::min(bytes.size(), from + 1 + below(1400));
            arrived.push_back({first_seq + static_cast<uint32_t>(from), slice(bytes, from, to)});
        }
    }
    for (std::size_t i = 1; i + 1 < arrived.size(); ++i) { // reordered
        if (one_in(rarity)) {
            const std::size_t other = std::min(arrived.size() - 1, i + 1 + below(6));
            std::swap(arrived[i], arrived[other]);
        }
    }
    pieces = std::move(arrived);
}

Bytes RandomTraffic::frame(const Piece& piece, uint16_t src_port, uint16_t dst_port) {
    auto segment = wirekit::tcp_segment().from(0x0A010101, src_port).to(0x0A010102, dst_port);
    segment.seq(piece.seq).payload(piece.payload);
    switch (below(120)) {
    case 0:
        segment.bad_checksum();
        break;
    case 1:
        segment.from(0x0A0101FE, src_port);
        break;
    case 2:
        segment.to(0x0A0101FE, dst_port);
        break;
    case 3:
        segment.ip_options(4 * below(11)).tcp_options(4 * below(11));
        break;
    case 4:
        segment.padding(below(8));
        break;
    case 5:
        if (one_in(6)) {
            segment.flags(wirekit::kTcpRst | wirekit::kTcpAck);
        } else {
            segment.flags(wirekit::kTcpRst);
        }
        break;
    case 6:
        segment.from(0x0A010101, pick(settings_.src_ports));
        break;
    default:
        break;
    }
    Bytes bytes = segment.bytes();
    if (one_in(150)) { // damaged on the way
        bytes[below(static_cast<uint32_t>(bytes.size()))] ^= static_cast<uint8_t>(1u << below(8));
    }
    if (one_in(300)) {
        bytes.resize(15 + below(static_cast<uint32_t>(bytes.size()) - 15));
    }
    return bytes;
}

int32_t RandomTraffic::number() {
    const std::vector<int32_t> odd = {
        -1,    -20480, std::numeric_limits<int32_t>::min(), 4095,  4096,
        16383, 16384,  std::numeric_limits<int32_t>::max(), 12800, 3200};
    return one_in(12) ? pick(odd) : static_cast<int32_t>(below(6));
}

double RandomTraffic::price() {
    const std::vector<double> odd = {0.0,
                                     -0.0,
                                     wirekit::kNoValue,
                                     -wirekit::kNoValue,
                                     std::numeric_limits<double>::quiet_NaN(),
                                     std::numeric_limits<double>::infinity(),
                                     0.000009,
                                     0.00001,
                                     -0.00001,
                                     1e300};
    if (settings_.hostile && one_in(4)) {
        return pick(odd);
    }
    return 100 + static_cast<double>(below(12)) * 0.5 + (one_in(6) ? 0.00001 : 0.0);
}

int32_t RandomTraffic::volume() {
    if (settings_.hostile && one_in(5)) {
        const std::vector<int32_t> odd = {0, -1, std::numeric_limits<int32_t>::min(),
                                          std::numeric_limits<int32_t>::max(), 65536};
        return pick(odd);
    }
    return static_cast<int32_t>(1 + below(1000));
}

std::string RandomTraffic::inst_id() {
    static const std::vector<std::string> ids = {
        "cu2601",       "cu2602", "al2601", "sc2612", "scTAS2612", "cu-al",
        "cu2601C70000", "cu",     " cu",    "",       "zn26",      "123456789012345"};
    return settings_.hostile ? pick(ids) : ids[below(6)];
}

} // namespace tcp_test
