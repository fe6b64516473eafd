#pragma once

// A connection as the HTTP library reads and writes it, with bounds on what a client may cost: the
// bytes of a request's head, the time in which it must be there, and the time that an answer may
// wait for a client that does not read.

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace vorn_cli {

struct ConnectionBounds {
    std::size_t head_bytes = std::size_t{16} * 1024;
    std::chrono::milliseconds head_time{10'000};  // from its first byte to its last
    std::chrono::milliseconds idle_time{10'000};  // between two requests
    std::chrono::milliseconds write_time{10'000}; // for a client to take anything at all
};

class BoundedStream final : public httplib::Stream {
public:
    // The socket stays the caller's; it is made non-blocking. `stopping` ends every wait.
    BoundedStream(int socket, const ConnectionBounds& bounds, const std::atomic<bool>& stopping);

    // Waits for the first byte of a request. False: none came, or the client has gone.
    bool begin_request();
    // What ended the request: 0, 408 (too slow) or 431 (too long). What the library writes behind
    // that is not sent, so that the caller can say it in its own words.
    int refusal() const { return refusal_; }
    bool send_refusal(const std::string& text);

    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char* to, std::size_t size) override;
    ssize_t write(const char* from, std::size_t size) override;
    using httplib::Stream::write;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    socket_t socket() const override { return socket_; }

private:
    using Clock = std::chrono::steady_clock;

    bool wait_for(short events, Clock::time_point deadline) const;
    bool fill(Clock::time_point deadline);
    bool send_all(const char* from, std::size_t size);

    const int socket_;
    const ConnectionBounds bounds_;
    const std::atomic<bool>& stopping_;
    char buffer_[4096];
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::size_t head_bytes_ = 0;
    Clock::time_point deadline_;
    int refusal_ = 0;
};

} // namespace vorn_cli
