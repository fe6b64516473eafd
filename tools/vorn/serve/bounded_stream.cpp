#include "tools/vorn/serve/bounded_stream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

namespace vorn_cli {

namespace {

// How soon a server that ends is noticed by who waits here.
constexpr std::chrono::milliseconds kGlance{200};

using NameOf = int (*)(int, sockaddr*, socklen_t*);

void name_socket(int socket, NameOf name_of, std::string& ip, int& port) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    char host[NI_MAXHOST] = "";
    char service[NI_MAXSERV] = "0";
    if (name_of(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        ::getnameinfo(reinterpret_cast<sockaddr*>(&address), length, host, sizeof(host), service,
                      sizeof(service), NI_NUMERICHOST | NI_NUMERICSERV);
    }
    ip = host;
    port = std::atoi(service);
}

} // namespace

BoundedStream::BoundedStream(int socket, const ConnectionBounds& bounds,
                             const std::atomic<bool>& stopping)
    : socket_(socket), bounds_(bounds), stopping_(stopping) {
    ::fcntl(socket, F_SETFL, ::fcntl(socket, F_GETFL) | O_NONBLOCK);
}

bool BoundedStream::wait_for(short events, Clock::time_point deadline) const {
    pollfd waiting{socket_, events, 0};
    while (!stopping_) {
        // Rounded up, so that the deadline has passed when nothing is left.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        const auto wait = std::clamp(left, std::chrono::milliseconds(0), kGlance);
        const int ready = ::poll(&waiting, 1, static_cast<int>(wait.count()));
        if (ready > 0) {
            return true;
        }
        if ((ready < 0 && errno != EINTR) || (ready == 0 && left <= wait)) {
            return false;
        }
    }
    return false;
}

bool BoundedStream::fill(Clock::time_point deadline) {
    for (;;) {
        const ssize_t got = ::recv(socket_, buffer_, sizeof(buffer_), 0);
        if (got > 0) {
            begin_ = 0;
            end_ = static_cast<std::size_t>(got);
            return true;
        }
        if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
            return false;
        }
        if (!wait_for(POLLIN, deadline)) {
            return false;
        }
    }
}

bool BoundedStream::begin_request() {
    head_bytes_ = 0;
    refusal_ = 0;
    if (begin_ == end_ && !fill(Clock::now() + bounds_.idle_time)) {
        return false;
    }
    deadline_ = Clock::now() + bounds_.head_time;
    return true;
}

bool BoundedStream::is_readable() const {
    return begin_ != end_ || wait_for(POLLIN, deadline_);
}

bool BoundedStream::is_writable() const {
    return wait_for(POLLOUT, Clock::now() + bounds_.write_time);
}

ssize_t BoundedStream::read(char* to, std::size_t size) {
    if (refusal_ != 0) {
        return -1;
    }
    if (head_bytes_ >= bounds_.head_bytes) {
        refusal_ = 431;
        return -1;
    }
    if (Clock::now() >= deadline_ || (begin_ == end_ && !fill(deadline_))) {
        if (Clock::now() >= deadline_) {
            refusal_ = 408;
        }
        return -1;
    }
    const std::size_t taken = std::min({size, end_ - begin_, bounds_.head_bytes - head_bytes_});
    std::memcpy(to, buffer_ + begin_, taken);
    begin_ += taken;
    head_bytes_ += taken;
    return static_cast<ssize_t>(taken);
}

ssize_t BoundedStream::write(const char* from, std::size_t size) {
    if (refusal_ != 0) {
        return static_cast<ssize_t>(size);
    }
    return send_all(from, size) ? static_cast<ssize_t>(size) : -1;
}

bool BoundedStream::send_refusal(const std::string& text) {
    return send_all(text.data(), text.size());
}

bool BoundedStream::send_all(const char* from, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(socket_, from, size, MSG_NOSIGNAL);
        if (sent > 0) {
            from += sent;
            size -= static_cast<std::size_t>(sent);
        } else if (errno != EINTR &&
                   (errno != EAGAIN || !wait_for(POLLOUT, Clock::now() + bounds_.write_time))) {
            return false;
        }
    }
    return true;
}

void BoundedStream::get_remote_ip_and_port(std::string& ip, int& port) const {
    name_socket(socket_, ::getpeername, ip, port);
}

void BoundedStream::get_local_ip_and_port(std::string& ip, int& port) const {
    name_socket(socket_, ::getsockname, ip, port);
}

} // namespace vorn_cli
