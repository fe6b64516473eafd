#pragma once

// The snapshot channel a second time, as slow and as literal as possible: sessions, reassembly,
// message decoding and price check over plain containers, every wire value read by its byte offset,
// no type of the feed used. Tests feed the same frames to both and compare everything that can be
// seen. Rules that look odd are the rules: the model must not be cleverer than the feed.

#include "wirekit/bytes.h"

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tcp_test {

class SnapshotModel {
public:
    using Bytes = wirekit::Bytes;

    // Feeds and their bits; the value is the feed's number in a session.
    static constexpr int kUnknown = -1, kShfe2ps = 0, kIne2ps = 1, kShfe4ps = 2, kIne4ps = 3;

    struct Settings {
        uint16_t port_2ps = 0;
        uint16_t port_4ps = 0;
        int topic_shfe2ps = 0;
        int topic_shfe4ps = 0;
        int topic_ine2ps = 0;
        int topic_ine4ps = 0;
        bool recvall = true;
        bool options = true;
        bool shield = false;
        std::vector<std::string> listen;
        uint8_t enabled = 0;
    };

    struct Side {
        std::array<double, 10> px{};
        std::array<int32_t, 10> vol{};
    };

    struct Record {
        std::array<uint8_t, 16> inst_id{};
        double last_px = 0;
        uint32_t volume = 0;
        uint16_t milli_sec = 0;
        uint32_t change_no = 0;
        double turnover = 0;
        double open_interest = 0;
        int32_t bid_totvol = 0;
        int32_t ask_totvol = 0;
        double bid_totamount = 0;
        double ask_totamount = 0;
        double highest = 0;
        double lowest = 0;
        Side bid;
        Side ask;
    };

    struct Scale {
        double tick = 0;
        double codec = 0;
        int32_t multiple = 0;
    };

    struct Limits {
        double upper = 0;
        double lower = 0;
    };

    struct Session {
        uint32_t src_host = 0; // bytes of the frame, first byte lowest
        uint32_t dst_host = 0;
        uint16_t src_port = 0;
        uint16_t dst_port = 0;
        std::vector<Bytes> held;
        bool buffer = false; // the joining buffer exists
        Bytes joined;
        uint32_t held_count = 0; // as counted, which need not be held.size()
        uint32_t next_seq = 0;
        uint32_t first_seq = 0;
        bool frag = false;
        bool lost = false;
        bool init = false;
        int type = kUnknown;
    };

    explicit SnapshotModel(Settings settings) : settings_(std::move(settings)) {}

    // One frame as the worker handles it.
    void frame(const Bytes& frame);
    // The checks alone: true when the frame reaches its session or carries a reset.
    bool check(const Bytes& frame);
    void clean();

    // --- What can be compared.
    std::map<int, Record> records; // by slot, those ever written since the last clean
    std::map<int, Scale> scales;
    std::map<int, Limits> limits;
    std::map<uint32_t, Session> sessions;
    int32_t shfe_count = 0;
    int32_t ine_count = 0;
    int32_t shfe_packet_no = 0;
    int32_t ine_packet_no = 0;
    uint8_t finished = 0;
    bool warn_shfe_80 = true;
    bool warn_ine_80 = true;
    bool warn_shfe_no = true;
    bool warn_ine_no = true;
    std::vector<std::pair<uint32_t, uint32_t>> stores; // register word, value
    std::vector<std::string> log;                      // "E ExanicTcpFunc function text"
    bool keep_log = true;
    uint64_t cleans = 0;
    uint64_t messages = 0;
    uint64_t price_checks = 0;

private:
    enum class Appended { kDecoded, kIncomplete, kBadHeader, kCleared };

    // A frame that passed the checks: its bytes, 256 zeros, and where things are in it.
    struct Segment {
        Bytes memory;
        std::size_t frame_size = 0;
        std::size_t at = 0; // payload
        std::size_t size = 0;
        uint32_t seq = 0;
        uint16_t src_port = 0;
        uint16_t dst_port = 0;
    };

    bool parse_frame(const Bytes& frame, Segment& segment);
    void start(Session& session, Segment& segment);
    bool walk(Session& session, const Segment& segment);
    bool choose(Session& session, int topic);
    void go_on(Session& session, Segment& segment);
    bool hold(Session& session, const Segment& segment); // false: everything was cleared
    bool drain(Session& session, uint16_t port);         // false: the frame ends
    Appended append(Session& session, const Bytes& payload, std::size_t limit, uint16_t port);
    bool split(Session& session, Bytes& memory, std::size_t at, std::size_t size, uint16_t port);
    void finish();

    void message(Bytes& memory, std::size_t at, uint16_t port);
    void inst_info(int type, const Bytes& memory, std::size_t at);
    void deal_info(int type, const Bytes& memory, std::size_t at);
    void price_detail(int type, Bytes& memory, std::size_t at, int previous_id);
    void order_totals(int type, const Bytes& memory, std::size_t at);
    void end_of_feed(Session& session);
    bool accept_number(int type, int32_t number);
    bool slot_of(int type, int32_t number, int& slot);
    bool subscribed(int slot) const;
    bool wanted(const std::string& inst_id) const;

    int price_check();
    int check_slot(int slot);
    int check_prices(const std::array<double, 10>& px, const std::array<int32_t, 10>& vol,
                     double upper, double lower, bool spread);

    void say(char level, const char* function, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

    Settings settings_;
};

} // namespace tcp_test
