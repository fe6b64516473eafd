#include "session_capture.h"

#include "tests/unit/exchange_sim/wire_reader.h"

#include <gtest/gtest.h>

namespace vorn_session {

namespace {

constexpr std::size_t kFileHeader = 24;
constexpr std::size_t kFrameHeader = 16; // seconds, nanoseconds, captured length, length
constexpr uint16_t kIneTopic = 5000;
constexpr uint16_t kIneClientPort = 50002;
constexpr uint16_t kServerPort = 33022;

} // namespace

SessionCapture::SessionCapture(const std::string& bytes)
    : file_header_(bytes.substr(0, kFileHeader)) {
    const auto* const data = reinterpret_cast<const uint8_t*>(bytes.data());
    for (std::size_t at = kFileHeader; at + kFrameHeader <= bytes.size();) {
        const std::size_t length = wirekit::get_le32(data + at + 8);
        const uint8_t* const begin = data + at + kFrameHeader;
        frames_.push_back({{data + at, begin}, {begin, begin + length}, false});
        if (wirekit::parse_frame(frames_.back().bytes).kind == wirekit::ParsedFrame::Kind::kUdp) {
            changes_.push_back(frames_.size() - 1);
        }
        at += kFrameHeader + length;
    }
}

std::string SessionCapture::bytes() const {
    std::string bytes = file_header_;
    for (const Frame& frame : frames_) {
        if (!frame.dropped) {
            bytes.append(frame.head.begin(), frame.head.end());
            bytes.append(frame.bytes.begin(), frame.bytes.end());
        }
    }
    return bytes;
}

uint64_t SessionCapture::time_ns(std::size_t i) const {
    const uint8_t* const head = frames_[i].head.data();
    return uint64_t{wirekit::get_le32(head)} * 1'000'000'000 + wirekit::get_le32(head + 4);
}

std::span<uint8_t> SessionCapture::buffer(std::size_t i) {
    wirekit::Bytes& bytes = frames_[i].bytes;
    const auto payload = wirekit::parse_frame(bytes).payload;
    return {bytes.data() + (payload.data() - bytes.data()), payload.size()};
}

InstrumentKey SessionCapture::instrument(std::size_t i) {
    const auto data = buffer(i);
    return {wirekit::get_le16(data.data()) == kIneTopic ? 1 : 0, wirekit::get_le32(&data[14])};
}

uint32_t SessionCapture::change_no(std::size_t i) {
    return wirekit::get_le32(&buffer(i)[18]);
}

std::vector<std::size_t> SessionCapture::copies(InstrumentKey key, uint32_t change_number) {
    std::vector<std::size_t> found;
    for (const std::size_t i : changes_) {
        if (instrument(i) == key && change_no(i) == change_number) {
            found.push_back(i);
        }
    }
    return found;
}

std::map<InstrumentKey, exchange_sim::testing::SnapshotEntry> SessionCapture::first_rounds() {
    exchange_sim::testing::StreamReader streams[2];
    for (Frame& frame : frames_) {
        const auto parsed = wirekit::parse_frame(frame.bytes);
        if (parsed.kind == wirekit::ParsedFrame::Kind::kTcp && parsed.from.port == kServerPort) {
            streams[parsed.to.port == kIneClientPort ? 1 : 0].segment(parsed);
        }
    }
    std::map<InstrumentKey, exchange_sim::testing::SnapshotEntry> all;
    for (int feed = 0; feed < 2; ++feed) {
        exchange_sim::testing::SnapshotTable table;
        const auto rounds = exchange_sim::testing::rounds_of(streams[feed]);
        for (const auto& message : rounds.at(0)) {
            exchange_sim::testing::apply_mdqp_message(table, message.bytes);
        }
        for (const auto& [number, entry] : table) {
            all[{feed, static_cast<uint32_t>(number)}] = entry;
        }
    }
    return all;
}

} // namespace vorn_session
