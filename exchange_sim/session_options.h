#pragma once

// What a session is made of. The same options give the same bytes.

#include "wirekit/ethernet.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace exchange_sim {

inline constexpr uint32_t kMaxShfeInstruments = 16384;
inline constexpr uint32_t kMaxIneInstruments = 4096;

enum class Feeds : uint8_t { kBoth, kShfe, kIne };
enum class Lines : uint8_t { kBoth, kA, kB };

// Where one exchange's feed is sent and by which topic it is known.
struct FeedAddress {
    wirekit::Endpoint line_a;
    wirekit::Endpoint line_b;
    uint16_t topic_id = 0;
    uint16_t client_port = 0; // receiving end of the snapshot's TCP connection
};

struct SessionOptions {
    uint64_t seed = 1;
    // Instruments of all feeds together. Futures are listed first, then options fill up, strike by
    // strike, once the futures are exhausted or the share of options asks for them.
    uint32_t instruments = 400;
    uint32_t options_percent = 30;
    uint32_t spreads_percent = 6; // calendar spreads and TAS contracts, half each
    Feeds feeds = Feeds::kBoth;
    Lines lines = Lines::kBoth;

    // The market closes at whichever comes first; 0 means without bound. The closing sweep adds one
    // change for each instrument.
    uint64_t changes = 1'000'000;
    uint64_t seconds_ns = 0;
    uint32_t rate = 100'000; // changes a second of simulated time, on average

    // Snapshot rounds. 0 for a time means in proportion to the length of the session: the first
    // round after a twentieth, then one every fifth, each taking a hundredth. At least one round is
    // completed before the session ends unless `rounds` is 0.
    uint32_t rounds = UINT32_MAX; // at most so many for each feed
    uint64_t first_round_ns = 0;
    uint64_t round_interval_ns = 0; // from start to start
    uint64_t round_length_ns = 0;
    // Of how many instruments a message of a round is: the mix described in snapshot_publisher.h
    // when 0. The first message of a round is short whatever this says.
    uint32_t message_instruments = 0;

    // The session's day and the time of day at which it starts, at the exchange (UTC+8).
    uint32_t date = 20260115;      // yyyymmdd
    uint32_t start_second = 32400; // of the day: 09:00:00

    FeedAddress shfe{{0xEF042A48, 21000}, {0xEF032A47, 21000}, 1000, 50001};
    FeedAddress ine{{0xEF033447, 25000}, {0xEF043448, 25000}, 5000, 50002};
    uint16_t snapshot_port = 33022; // server's end of the snapshot's TCP connections
};

struct ParsedOptions {
    SessionOptions options;
    std::string error; // empty: the options are good
    bool ok() const { return error.empty(); }
};

// `text` holds key=value pairs separated by blanks, commas, semicolons or line ends; a '#' starts a
// comment that ends with the line. An error text names what is wrong and lists the known keys.
ParsedOptions parse_session_options(std::string_view text);
ParsedOptions parse_session_options(const std::map<std::string, std::string>& pairs);

// Empty when the options fit together, else what is wrong.
std::string check_session_options(const SessionOptions& options);

// One line for each key: its name, its default and what it means.
std::string session_options_help();

// Midnight of the session's day at the exchange, in seconds since the Unix epoch.
int64_t session_midnight(const SessionOptions& options);

} // namespace exchange_sim
