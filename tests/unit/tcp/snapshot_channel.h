#pragma once

// A snapshot channel on a table of its own, driven frame by frame on the test's thread. The members
// that the worker calls are called directly; the frame always lies in memory of exactly its size
// and the slack, so that a sanitizer sees every access beyond.

#include "tcp/ExanicTcpFunc.h"
#include "wirekit/ethernet.h"
#include "wirekit/mdqp.h"

#include <array>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tcp_test {

using wirekit::Bytes;
using Log = std::vector<std::string>; // "E ExanicTcpFunc _PacketHandler text", one string a line

inline constexpr uint16_t kMd2psPort = 33022; // source port of the 2PS stream
inline constexpr uint16_t kMd4psPort = 33024; // source port of the 4PS stream
inline constexpr uint16_t kPort = 50001;      // local port, selects the session
inline constexpr uint32_t kExchangeIp = 0x0A010101;
inline constexpr uint32_t kLocalIp = 0x0A010102;

inline constexpr int16_t kShfe2psTopic = 1000;
inline constexpr int16_t kShfe4psTopic = 5000;
inline constexpr int16_t kIne2psTopic = 1100;
inline constexpr int16_t kIne4psTopic = -5100; // ids are signed

inline constexpr uint32_t kRegisterWords = 32768;

// Everything that the channel owns or writes, as it was at one moment.
struct ChannelState {
    Bytes table;
    Bytes calc;
    Bytes limits;
    Bytes sessions;
    std::map<uint32_t, Bytes> joined;            // by port: bytes of the unfinished message
    std::map<uint32_t, std::vector<Bytes>> held; // by port: frames of the early segments
    uint8_t finished = 0;
    std::array<bool, 4> switches{};
};

class SnapshotChannel : public testing::Test {
public:
    // Every instrument subscribed, options too, all four feeds enabled; the log is silent.
    SnapshotChannel();
    ~SnapshotChannel() override;

    // A new channel object on a zeroed table, with the configuration as it stands.
    void rebuild();

    // What the worker's task does with a frame of an unfinished snapshot.
    void deliver(const Bytes& frame);
    // One complete message, as reassembly hands it over. Returns it as the decoder left it.
    Bytes parse(const Bytes& message, uint16_t port = kPort);
    // A message of one exchange's feed, decoded on the local port.
    Bytes parse_as(EMdqpDataType type, const Bytes& message);

    // Runs an action with every level enabled and returns the lines at the levels asked for.
    Log logged(const std::function<void()>& action, const std::string& levels = "EWIDX");
    Log deliver_logged(const Bytes& frame, const std::string& levels = "EWIDX");

    TcpSession& session(uint16_t port = kPort) { return core->m_sessions[port]; }
    Bytes joined(uint16_t port = kPort);                    // bytes of the unfinished message
    std::vector<uint32_t> held_seqs(uint16_t port = kPort); // sequence numbers of early segments
    instrument& slot(int index) { return table->instmts[index]; }

    // Stands for decoded instruments where only the record matters.
    void subscribe(int slot_index, const std::string& inst_id);
    // A book that fails the price check, so that a finished snapshot shows in the log.
    void plant_bad_book();
    void set_masks(uint8_t enabled_mask, uint8_t finished_mask);

    ChannelState state() const;
    // Empty when nothing differs from `before`, else the name of the first part that does.
    std::string difference(const ChannelState& before) const;

    ExanicMdConfigData config;
    std::unique_ptr<share> table;
    std::unique_ptr<PriceCalcInfo> calc;
    UEnableMask enabled{};
    UEnableMask finished{};
    std::vector<uint32_t> registers;
    std::unique_ptr<CExanicTcpFunc> core;
};

// "W ExanicTcpFunc _PacketHandler text".
std::string line(char level, const std::string& function, const std::string& message);
// The lines of one function, or whose text begins so.
Log only(const Log& log, const std::string& what);
// One line, from the front or the last; empty when there is none.
std::string at(const Log& log, std::size_t index);
std::string last(const Log& log);

wirekit::TcpSegmentBuilder segment(uint32_t seq, const Bytes& payload, uint16_t port = kPort);
// Segment whose payload begins a snapshot of the topic: one message of `size` bytes (45 or more)
// with a packet number and filler behind the topic.
Bytes start_message(int16_t topic = kShfe2psTopic, int packet_no = 1, std::size_t size = 60);
// Any further message, of 21 or more bytes.
Bytes plain_message(int packet_no, std::size_t size = 40, uint8_t flag = wirekit::kFlagMore);

template <typename Item>
std::vector<Item> operator+(std::vector<Item> left, const std::vector<Item>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace tcp_test
