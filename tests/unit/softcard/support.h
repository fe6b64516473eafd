#pragma once

// Sources, frames, captures and a listener for signals, for the tests of the software card.

#include "softcard/firmware/card.h"
#include "softcard/registers/register_map.h"
#include "softcard/registers/register_window.h"
#include "softcard/sources/frame_source.h"
#include "wirekit/ethernet.h"
#include "wirekit/mdqp.h"
#include "wirekit/mirp.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace softcard::test {

using wirekit::Bytes;

// Frames given in advance, one millisecond apart.
class ScriptSource final : public FrameSource {
public:
    explicit ScriptSource(std::vector<Bytes> frames) : frames_(std::move(frames)) {}

    bool next(SourceFrame& frame) override {
        if (at_ == frames_.size()) {
            return false;
        }
        frame.timestamp_ns = 1'700'000'000'000'000'000 + at_ * 1'000'000;
        frame.bytes = frames_[at_++];
        return true;
    }

private:
    std::vector<Bytes> frames_;
    std::size_t at_ = 0;
};

inline constexpr uint32_t kShfeGroupA = 0xEF042A48, kShfeGroupB = 0xEF032A47;
inline constexpr uint32_t kIneGroupA = 0xEF033447, kIneGroupB = 0xEF043448;
inline constexpr uint16_t kShfePort = 21000, kInePort = 25000;

inline void program_lines(volatile uint32_t* registers) {
    registers[16] = kShfeGroupA;
    registers[18] = kShfePort;
    registers[20] = kShfeGroupB;
    registers[22] = kShfePort;
    registers[17] = kIneGroupA;
    registers[19] = kInePort;
    registers[21] = kIneGroupB;
    registers[23] = kInePort;
}

inline void switch_on(volatile uint32_t* registers) {
    registers[kDecodeSwitchWord] = 1;
    registers[kRawSwitchWord] = 1;
    registers[kAllIneSwitchWord] = 1;
    registers[kAllShfeSwitchWord] = 1;
}

// As the feed does when it has its snapshot.
inline void end_snapshot(volatile uint32_t* registers) {
    registers[kAllIneSwitchWord] = 0;
    registers[kAllShfeSwitchWord] = 0;
    registers[kRawSwitchWord] = 0;
}

inline std::unique_ptr<RegisterWindow> new_window() {
    std::string error;
    auto window = RegisterWindow::create(error);
    EXPECT_NE(window, nullptr) << error;
    return window;
}

inline Bytes decode_payload(uint32_t instrument_no, uint32_t change_no) {
    return wirekit::decode_buffer().instrument(instrument_no).change_no(change_no).bytes();
}

// A datagram to SHFE's line A.
inline Bytes shfe_change(uint32_t instrument_no, uint32_t change_no) {
    return wirekit::udp_datagram()
        .to(kShfeGroupA, kShfePort)
        .payload(decode_payload(instrument_no, change_no))
        .bytes();
}

// One MDQP message of `body` bytes behind its header.
inline Bytes message(uint8_t flag, std::size_t body) {
    Bytes bytes(8 + body);
    bytes[0] = flag;
    bytes[1] = static_cast<uint8_t>(wirekit::kTypeSnapshot);
    wirekit::put_le16(&bytes[2], static_cast<uint16_t>(body));
    return bytes;
}
inline Bytes more(std::size_t body = 40) {
    return message(wirekit::kFlagMore, body);
}
inline Bytes last(std::size_t body = 40) {
    return message(wirekit::kFlagLast, body);
}

inline Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        wirekit::append(all, part);
    }
    return all;
}

// One direction of a TCP connection; each segment follows on the one before.
class Stream {
public:
    explicit Stream(uint16_t client_port = 50001) : client_port_(client_port) {}

    Bytes next(const Bytes& payload) {
        Bytes frame = at(seq_, payload);
        seq_ += static_cast<uint32_t>(payload.size());
        return frame;
    }
    Bytes at(uint32_t seq, const Bytes& payload) const { return builder(seq, payload).bytes(); }
    Bytes damaged(uint32_t seq, const Bytes& payload) const {
        return builder(seq, payload).bad_checksum().bytes();
    }
    uint32_t seq() const { return seq_; }
    void skip(std::size_t bytes) { seq_ += static_cast<uint32_t>(bytes); }

    wirekit::TcpSegmentBuilder builder(uint32_t seq, const Bytes& payload) const {
        return wirekit::tcp_segment().to(0x0A010102, client_port_).seq(seq).payload(payload);
    }

private:
    uint16_t client_port_;
    uint32_t seq_ = 1000;
};

// A directory of this test's own, gone with the object.
class TempDir {
public:
    TempDir() {
        std::string name = (std::filesystem::temp_directory_path() / "softcard-XXXXXX").string();
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        path_ = name;
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string file(const std::string& name, const Bytes& bytes) const {
        const auto path = path_ / name;
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        return path.string();
    }
    std::string path(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

// Captures, written by byte.
inline constexpr uint32_t kPcapMicro = 0xA1B2C3D4, kPcapNano = 0xA1B23C4D;

inline void append_le32(Bytes& to, uint32_t value) {
    to.resize(to.size() + 4);
    wirekit::put_le32(to.data() + to.size() - 4, value);
}

inline Bytes pcap_header(uint32_t magic = kPcapNano, uint32_t link_type = 1) {
    Bytes bytes;
    for (const uint32_t word : {magic, 0x00040002u, 0u, 0u, 262144u, link_type}) {
        append_le32(bytes, word);
    }
    return bytes;
}

inline void append_record(Bytes& pcap, uint32_t seconds, uint32_t fraction, const Bytes& frame) {
    const auto size = static_cast<uint32_t>(frame.size());
    for (const uint32_t word : {seconds, fraction, size, size}) {
        append_le32(pcap, word);
    }
    wirekit::append(pcap, frame);
}

inline Bytes pcap_of(const std::vector<Bytes>& frames) {
    Bytes pcap = pcap_header();
    uint32_t nanoseconds = 0;
    for (const Bytes& frame : frames) {
        append_record(pcap, 1'700'000'000, nanoseconds++, frame);
    }
    return pcap;
}

// Counts SIGINT while it lives.
class InterruptCounter {
public:
    InterruptCounter() {
        count_ = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { ++count_; };
        sigaction(SIGINT, &action, &earlier_);
    }
    ~InterruptCounter() { sigaction(SIGINT, &earlier_, nullptr); }
    InterruptCounter(const InterruptCounter&) = delete;
    InterruptCounter& operator=(const InterruptCounter&) = delete;

    int count() const { return count_; }

private:
    static inline std::atomic<int> count_{0};
    struct sigaction earlier_ {};
};

// One poll: the frame, empty when there is none. Fails on a negative status.
inline Bytes poll(Card& card, Reader& reader) {
    std::array<char, 2048> buffer;
    const ssize_t size = card.receive(reader, buffer.data(), buffer.size(), nullptr);
    EXPECT_GE(size, 0);
    return size <= 0 ? Bytes() : Bytes(buffer.begin(), buffer.begin() + size);
}

} // namespace softcard::test
