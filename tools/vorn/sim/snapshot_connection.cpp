#include "tools/vorn/sim/snapshot_connection.h"

#include "tools/vorn/exit_code.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>

namespace vorn_cli {

namespace {

constexpr std::size_t kMostQueued = std::size_t{64} << 20; // bytes
constexpr auto kTick = std::chrono::milliseconds(100);

// Signals are for the program's first thread, whose sleep they end.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_;
};

void set_up(int socket) {
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    // A thread that waits for its client looks up now and then.
    const timeval tick{0, std::chrono::microseconds(kTick).count()};
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &tick, sizeof(tick));
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof(tick));
}

bool try_again(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

} // namespace

SnapshotConnection::SnapshotConnection(std::string name, int socket)
    : name_(std::move(name)), socket_(socket) {
    set_up(socket_);
    const SignalsBlocked blocked;
    thread_ = std::thread([this] { run(); });
}

SnapshotConnection::~SnapshotConnection() {
    {
        const std::lock_guard lock(mutex_);
        abandoned_ = true;
    }
    changed_.notify_all();
    thread_.join();
    ::close(socket_);
}

void SnapshotConnection::send(std::span<const uint8_t> segment) {
    {
        const std::lock_guard lock(mutex_);
        if (!failure_.empty()) {
            throw Failure(kFailed, failure_);
        }
        if (queued_bytes_ + segment.size() > kMostQueued) {
            throw Failure(kFailed,
                          fmt::format("the client of {} does not read: {} MB of its snapshots wait",
                                      name_, queued_bytes_ >> 20));
        }
        queue_.emplace_back(segment.begin(), segment.end());
        queued_bytes_ += segment.size();
    }
    changed_.notify_all();
}

void SnapshotConnection::begin_close() {
    {
        const std::lock_guard lock(mutex_);
        closing_ = true;
    }
    changed_.notify_all();
}

bool SnapshotConnection::closed() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kTick, [this] { return done_; });
    if (done_ && !failure_.empty()) {
        throw Failure(kFailed, failure_);
    }
    return done_;
}

void SnapshotConnection::run() {
    std::vector<uint8_t> segment;
    while (take(segment)) {
        if (!write_all(segment)) {
            return;
        }
    }
    ::shutdown(socket_, SHUT_WR);
    await_end();
    {
        const std::lock_guard lock(mutex_);
        done_ = true;
    }
    changed_.notify_all();
}

// False when nothing will come any more.
bool SnapshotConnection::take(std::vector<uint8_t>& segment) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !queue_.empty() || closing_ || abandoned_; });
    if (abandoned_ || queue_.empty()) {
        return false;
    }
    segment = std::move(queue_.front());
    queue_.pop_front();
    queued_bytes_ -= segment.size();
    return true;
}

bool SnapshotConnection::write_all(std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        // MSG_EOR keeps the kernel from joining segments: a passive receiver finds the start of a
        // round only where it is the start of a segment.
        const ssize_t written = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_EOR);
        if (written >= 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(written));
        } else if (!try_again(errno)) {
            fail(errno);
            return false;
        }
        const std::lock_guard lock(mutex_);
        if (abandoned_) {
            return false;
        }
    }
    return true;
}

void SnapshotConnection::await_end() {
    for (char ignored[256];;) {
        const ssize_t received = ::recv(socket_, ignored, sizeof(ignored), 0);
        if (received == 0 || (received < 0 && !try_again(errno))) {
            return;
        }
        const std::lock_guard lock(mutex_);
        if (abandoned_) {
            return;
        }
    }
}

void SnapshotConnection::fail(int error) {
    {
        const std::lock_guard lock(mutex_);
        failure_ = fmt::format("the client of {} has gone: {}", name_, std::strerror(error));
        done_ = true;
    }
    changed_.notify_all();
}

} // namespace vorn_cli
