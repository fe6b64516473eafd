#include "seeds.h"

#include "wirekit/mdqp.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace seeds {
namespace {

namespace fs = std::filesystem;

fs::path root;

} // namespace

using wirekit::mdqp_message;

void set_folder(const std::string& folder) {
    root = folder;
}

std::string folder_of(const std::string& target) {
    fs::create_directories(root / target);
    return root / target;
}

void put(const std::string& target, const std::string& name, const Bytes& bytes) {
    const fs::path path = fs::path(folder_of(target)) / name;
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

Bytes bytes_of(const std::string& text) {
    return {text.begin(), text.end()};
}

Bytes file_bytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    return bytes_of(text);
}

Bytes operator+(Bytes left, const Bytes& right) {
    wirekit::append(left, right);
    return left;
}

Bytes slice(const Bytes& bytes, std::size_t from, std::size_t to) {
    to = std::min(to, bytes.size());
    return {bytes.begin() + static_cast<std::ptrdiff_t>(from),
            bytes.begin() + static_cast<std::ptrdiff_t>(to)};
}

Bytes number(uint32_t value) {
    Bytes bytes(4);
    wirekit::put_le32(bytes.data(), value);
    return bytes;
}

Bytes round(int16_t topic, double second_bid) {
    const auto limits = [](int32_t number, int32_t change_no) {
        return wirekit::DealInfo{.inst_no = number,
                                 .last_price = 100,
                                 .volume = 7,
                                 .turnover = 700,
                                 .open_interest = 11,
                                 .highest_price = wirekit::kNoValue,
                                 .lowest_price = wirekit::kNoValue,
                                 .upper_limit_price = 110,
                                 .lower_limit_price = 90,
                                 .update_time = "09:00:00",
                                 .change_no = change_no};
    };
    return Bytes(mdqp_message()
                     .snap(topic, 1)
                     .inst({.inst_id = "cu2603", .price_tick = 0.5, .inst_no = 0})
                     .inst({.inst_id = "au2606", .codec_price = wirekit::kNoValue, .inst_no = 1})
                     .inst({.inst_id = "cu2603C100", .codec_price = 3, .inst_no = 2})
                     .packet_no(5)
                     .bytes()) +
           mdqp_message()
               .deal(limits(0, 3))
               .price(0, '0', 100, 1)
               .price(0, '0', second_bid, 2)
               .price(0, '1', 101, 3)
               .price(0, '1', 101.5, 4)
               .order_totals(0, 3, 300, 7, 707)
               .packet_no(6)
               .bytes() +
           mdqp_message(wirekit::kFlagLast)
               .deal(limits(1, 0))
               .price(1, '1', wirekit::kNoValue, 0)
               .packet_no(7)
               .bytes();
}

Bytes entry(uint8_t kind, const Bytes& fields) {
    return Bytes{kind, static_cast<uint8_t>(fields.size())} + fields;
}

Bytes raw_entry(uint8_t kind, const Bytes& buffer) {
    return Bytes{kind, static_cast<uint8_t>(buffer.size()),
                 static_cast<uint8_t>(buffer.size() >> 8)} +
           buffer;
}

Script& Script::add(Place place, const Bytes& payload, uint8_t port, uint8_t flags) {
    return shaped(place, static_cast<uint16_t>(payload.size()), payload, port, flags);
}

Script& Script::shaped(Place place, uint16_t shape, const Bytes& behind, uint8_t port,
                       uint8_t flags) {
    bytes_.push_back(static_cast<uint8_t>(port | place << 2 | flags));
    bytes_.push_back(static_cast<uint8_t>(shape));
    bytes_.push_back(static_cast<uint8_t>(shape >> 8));
    wirekit::append(bytes_, behind);
    return *this;
}

} // namespace seeds
