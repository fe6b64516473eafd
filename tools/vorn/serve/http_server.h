#pragma once

// The HTTP server under the page: cpp-httplib's, with a bounded number of connections.
//
// A connection has a thread of its own while it lasts. Threads are made as they are needed, up to
// the bound, and kept; a connection beyond it is answered with 503 by the accepting thread, which
// waits for nobody, and closed. Nothing that a client does ends the server.

#include "tools/vorn/serve/bounded_stream.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace vorn_cli {

struct ServerBounds {
    std::size_t connections = 320;
    ConnectionBounds connection;
};

struct ServerCounts {
    std::atomic<uint64_t> connections{0}; // open
    std::atomic<uint64_t> requests{0};
    std::atomic<uint64_t> refused{0}; // connections beyond the bound
};

// Answers {"error": "..."} of one line.
std::string error_json(const std::string& text);
// A whole answer of that kind, for who has no request to answer to; the connection ends with it.
std::string refusal_text(int status, const std::string& text);

class HttpServer final : private httplib::Server {
public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    // `handler` answers GET and HEAD requests, on many threads at a time. Other methods get 405.
    HttpServer(const ServerBounds& bounds, Handler handler);
    ~HttpServer() override;

    // Returns the port. Throws Failure when nothing can be bound there.
    uint16_t bind(const std::string& host, uint16_t port);
    // Serves until stop(); every connection has ended when it returns. False: accepting failed.
    bool run();
    void stop(); // any thread
    bool stopping() const { return stopping_; }
    const ServerCounts& counts() const { return counts_; }

private:
    bool process_and_close_socket(socket_t socket) override;
    void serve_connection(int socket);

    const ServerBounds bounds_;
    Handler handler_;
    ServerCounts counts_;
    std::atomic<bool> stopping_{false};
};

} // namespace vorn_cli
