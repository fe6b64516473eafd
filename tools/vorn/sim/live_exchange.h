#pragma once

// The simulated exchange on a real network: its datagrams as real multicast, its snapshot rounds
// over real TCP connections, each frame at its time. What is sent is the session, byte for byte of
// payload; headers, acknowledgements and the splitting of segments are the network's.

#include "exchange_sim/session.h"
#include "tools/vorn/run_flag.h"
#include "tools/vorn/sim/snapshot_connection.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace vorn_cli {

struct LiveOptions {
    std::string interface;
    std::string bind;   // address of this end; empty: the first that the interface has
    double speed = 1;   // times as fast as the session's time stamps
    double wait_s = 30; // for the clients
};

struct LiveReport {
    uint64_t datagrams = 0;
    uint64_t segments = 0;
    std::chrono::nanoseconds latest{}; // the furthest that a frame was behind its time
};

// One thread uses it; each connection has a thread of its own (snapshot_connection.h).
class LiveExchange {
public:
    // Opens what it needs. Throws Failure, here and below.
    LiveExchange(const LiveOptions& options, const exchange_sim::SessionOptions& session);
    ~LiveExchange();
    LiveExchange(const LiveExchange&) = delete;
    LiveExchange& operator=(const LiveExchange&) = delete;

    // Until each feed's client is connected; false when the run was ended meanwhile. A client that
    // does not come in time is a Failure with kTimedOut.
    bool await_clients(const RunFlag& run);

    // Waits for the frame's time and sends what it carries; false when the run was ended meanwhile.
    bool send(const exchange_sim::WireFrame& frame, const RunFlag& run);

    // After the last frame: everything is written, the connections are closed.
    void finish(const RunFlag& run);

    const LiveReport& report() const { return report_; }
    // "172.20.11.11:33022"
    std::string address() const;

private:
    struct Feed {
        std::string name;
        std::unique_ptr<SnapshotConnection> connection;
    };

    void open_sender();
    void open_listener();
    void accept_client();
    bool all_connected() const;
    bool await_time(uint64_t timestamp_ns, const RunFlag& run);
    void send_datagram(const wirekit::Endpoint& to, std::span<const uint8_t> payload);

    const LiveOptions options_;
    const uint16_t snapshot_port_;
    const int interface_index_;
    uint32_t address_ = 0; // host order
    int sender_ = -1;
    int listener_ = -1;
    std::map<uint16_t, Feed> feeds_; // by the port of the client's end
    bool started_ = false;
    uint64_t first_ns_ = 0;
    std::chrono::steady_clock::time_point start_{};
    LiveReport report_;
};

} // namespace vorn_cli
