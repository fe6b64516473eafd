#include "tools/vorn/serve/http_server.h"

#include "tools/vorn/exit_code.h"
#include "tools/vorn/serve/connection_threads.h"
#include "tools/vorn/serve/listen_address.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <unistd.h>

namespace vorn_cli {

namespace {

constexpr int kBacklog = 1024;

const char* reason_of_status(int status) {
    switch (status) {
    case 408:
        return "Request Timeout";
    case 431:
        return "Request Header Fields Too Large";
    case 503:
        return "Service Unavailable";
    default:
        return "Error";
    }
}

// Another server on the port is an error, not a sharer.
void only_reuse_address(socket_t socket) {
    const int on = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
}

const char* error_of_status(int status) {
    switch (status) {
    case 400:
        return "this is not an HTTP request that can be understood";
    case 414:
        return "the address is too long";
    case 416:
        return "there is no such range";
    case 417:
        return "what is expected here cannot be done";
    default:
        return "the request failed";
    }
}

} // namespace

std::string error_json(const std::string& text) {
    const auto replace = nlohmann::json::error_handler_t::replace;
    return nlohmann::json{{"error", text}}.dump(-1, ' ', true, replace) + "\n";
}

std::string refusal_text(int status, const std::string& text) {
    const std::string body = error_json(text);
    return fmt::format("HTTP/1.1 {} {}\r\nContent-Type: application/json\r\nContent-Length: {}\r\n"
                       "Cache-Control: no-store\r\nRetry-After: 5\r\nConnection: close\r\n\r\n{}",
                       status, reason_of_status(status), body.size(), body);
}

HttpServer::HttpServer(const ServerBounds& bounds, Handler handler)
    : bounds_(bounds), handler_(std::move(handler)) {
    new_task_queue = [this] { return new ConnectionThreads(bounds_.connections); };
    set_socket_options(only_reuse_address);
    set_tcp_nodelay(true);
    set_idle_interval(std::chrono::milliseconds(100));
    set_payload_max_length(0);
    set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        ++counts_.requests;
        if (request.method == "GET" || request.method == "HEAD") {
            handler_(request, response);
        } else {
            response.status = 405;
            response.set_header("Allow", "GET, HEAD");
            response.set_content(error_json("only GET and HEAD work here"), "application/json");
        }
        return HandlerResponse::Handled;
    });
    set_exception_handler([](const httplib::Request&, httplib::Response& response,
                             const std::exception_ptr&) { response.status = 500; });
    set_error_handler([](const httplib::Request&, httplib::Response& response) {
        if (response.body.empty()) {
            response.set_content(error_json(error_of_status(response.status)), "application/json");
        }
    });
}

HttpServer::~HttpServer() {
    stop();
}

uint16_t HttpServer::bind(const std::string& host, uint16_t port) {
    errno = 0;
    const int bound = port == 0 ? bind_to_any_port(host)
                                : (bind_to_port(host, port) ? static_cast<int>(port) : -1);
    if (bound < 0) {
        throw Failure(kFailed, fmt::format("cannot listen on {}: {}", authority_of({host, port}),
                                           errno != 0 ? std::strerror(errno)
                                                      : "this machine has no such address"));
    }
    // The library's own backlog is a handful, which a few dozen pages that open at once overrun.
    ::listen(svr_sock_, kBacklog);
    return static_cast<uint16_t>(bound);
}

bool HttpServer::run() {
    return listen_after_bind();
}

void HttpServer::stop() {
    stopping_ = true;
    if (is_running()) {
        httplib::Server::stop();
    }
}

bool HttpServer::process_and_close_socket(socket_t socket) {
    if (ConnectionThreads::refusing()) {
        ++counts_.refused;
        const std::string text =
            refusal_text(503, "too many connections are open; try again in some seconds");
        ::send(socket, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        ::shutdown(socket, SHUT_WR);
        ConnectionThreads::close_later(socket);
        return false;
    }
    ++counts_.connections;
    try {
        serve_connection(socket);
    } catch (const std::exception&) {
        // Memory is short, at most: this connection ends, the others go on.
    }
    ::shutdown(socket, SHUT_RDWR);
    ::close(socket);
    --counts_.connections;
    return true;
}

void HttpServer::serve_connection(int socket) {
    BoundedStream stream(socket, bounds_.connection, stopping_);
    bool open = true;
    while (open && !stopping_ && stream.begin_request()) {
        bool understood = false;
        bool has_body = false;
        bool closed = false;
        const bool answered =
            process_request(stream, false, closed, [&](const httplib::Request& request) {
                understood = true;
                has_body =
                    request.has_header("Content-Length") || request.has_header("Transfer-Encoding");
            });
        if (stream.refusal() != 0) {
            stream.send_refusal(refusal_text(
                stream.refusal(), stream.refusal() == 431
                                      ? fmt::format("the head of a request has at most {} bytes",
                                                    bounds_.connection.head_bytes)
                                      : "the request did not come to its end in time"));
        }
        // Behind a head that was not understood, or a body that nobody reads, a next request has no
        // certain beginning.
        open = answered && understood && !closed && !has_body && stream.refusal() == 0;
    }
    // What is unread when a socket closes takes back what was sent.
    ::shutdown(socket, SHUT_WR);
    char bytes[4096];
    for (int i = 0; i < 64 && ::recv(socket, bytes, sizeof(bytes), MSG_DONTWAIT) > 0; ++i) {
    }
}

} // namespace vorn_cli
