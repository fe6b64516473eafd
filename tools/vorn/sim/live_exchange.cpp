#include "tools/vorn/sim/live_exchange.h"

#include "tools/vorn/exit_code.h"
#include "wirekit/ethernet.h"

#include <fmt/format.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vorn_cli {

namespace {

using std::chrono::nanoseconds;
using Clock = std::chrono::steady_clock;

constexpr int kTickMs = 100;
constexpr auto kCloseWithin = std::chrono::seconds(30);
// A frame this little ahead of its time is not worth a sleep.
constexpr auto kShortestSleep = std::chrono::microseconds(50);
// A passive receiver need not follow sequence numbers that wrap, so a connection whose numbers
// start this close to their end is refused. Where they start moves on with time, all numbers in
// some minutes: within seconds the client's next attempt starts behind the end.
constexpr uint32_t kRoomForNumbers = 64u << 20;

[[noreturn]] void fail(const std::string& what) {
    throw Failure(kFailed, fmt::format("{}: {}", what, std::strerror(errno)));
}

std::string dotted(uint32_t address) {
    return fmt::format("{}.{}.{}.{}", address >> 24, address >> 16 & 0xFF, address >> 8 & 0xFF,
                       address & 0xFF);
}

int index_of(const std::string& interface) {
    const unsigned index = if_nametoindex(interface.c_str());
    if (index == 0) {
        throw Failure(kUsage,
                      fmt::format("there is no interface {}; ip link lists them", interface));
    }
    return static_cast<int>(index);
}

uint32_t first_address(const std::string& interface) {
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) {
        fail("cannot list the addresses of this machine");
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(all, &freeifaddrs);
    for (const ifaddrs* each = all; each != nullptr; each = each->ifa_next) {
        if (interface == each->ifa_name && each->ifa_addr != nullptr &&
            each->ifa_addr->sa_family == AF_INET) {
            sockaddr_in address{};
            std::memcpy(&address, each->ifa_addr, sizeof(address));
            return ntohl(address.sin_addr.s_addr);
        }
    }
    throw Failure(kUsage, fmt::format("interface {} has no IPv4 address; give it one (ip address "
                                      "add ADDRESS/24 dev {}) or name one with --bind",
                                      interface, interface));
}

uint32_t parsed_address(const std::string& text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
        throw Failure(kUsage, fmt::format("--bind takes an IPv4 address, not '{}'", text));
    }
    return ntohl(address.s_addr);
}

sockaddr_in to_sockaddr(uint32_t address, uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(port);
    return result;
}

bool bind_to(int socket, uint32_t address, uint16_t port) {
    const sockaddr_in at = to_sockaddr(address, port);
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&at), sizeof(at)) == 0;
}

// Whether the numbers of what is sent on the connection will wrap before long. The system tells it
// to the privileged only; without, the answer is no, which is right 63 times in 64.
bool numbers_will_wrap(int socket) {
    constexpr int kSendQueue = 2;
    const int on = 1;
    const int off = -1; // without sending a probe
    uint32_t number = 0;
    socklen_t size = sizeof(number);
    if (setsockopt(socket, IPPROTO_TCP, TCP_REPAIR, &on, sizeof(on)) != 0) {
        return false;
    }
    const bool known =
        setsockopt(socket, IPPROTO_TCP, TCP_REPAIR_QUEUE, &kSendQueue, sizeof(kSendQueue)) == 0 &&
        getsockopt(socket, IPPROTO_TCP, TCP_QUEUE_SEQ, &number, &size) == 0;
    setsockopt(socket, IPPROTO_TCP, TCP_REPAIR, &off, sizeof(off));
    // Which that has cleared; without it the next exchange cannot listen here for a minute.
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    return known && number > UINT32_MAX - kRoomForNumbers;
}

void refuse(int socket) {
    const linger at_once{1, 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    ::close(socket);
}

} // namespace

LiveExchange::LiveExchange(const LiveOptions& options, const exchange_sim::SessionOptions& session)
    : options_(options), snapshot_port_(session.snapshot_port),
      interface_index_(index_of(options.interface)) {
    address_ =
        options.bind.empty() ? first_address(options.interface) : parsed_address(options.bind);
    if (session.feeds != exchange_sim::Feeds::kIne) {
        feeds_[session.shfe.client_port].name = "SHFE";
    }
    if (session.feeds != exchange_sim::Feeds::kShfe) {
        feeds_[session.ine.client_port].name = "INE";
    }
    open_sender();
    open_listener();
}

LiveExchange::~LiveExchange() {
    feeds_.clear();
    ::close(listener_);
    ::close(sender_);
}

std::string LiveExchange::address() const {
    return fmt::format("{}:{}", dotted(address_), snapshot_port_);
}

void LiveExchange::open_sender() {
    sender_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sender_ < 0) {
        fail("cannot open a UDP socket");
    }
    ip_mreqn out{};
    out.imr_ifindex = interface_index_;
    const int ttl = 1;
    if (setsockopt(sender_, IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof(out)) != 0 ||
        setsockopt(sender_, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl)) != 0) {
        fail(fmt::format("cannot send multicast on {}", options_.interface));
    }
    if (!bind_to(sender_, address_, 0)) {
        fail(fmt::format("cannot send from {}", dotted(address_)));
    }
}

void LiveExchange::open_listener() {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (listener_ < 0 || !bind_to(listener_, address_, snapshot_port_) ||
        ::listen(listener_, 8) != 0) {
        fail(fmt::format("cannot listen on {}", address()));
    }
}

bool LiveExchange::all_connected() const {
    return std::all_of(feeds_.begin(), feeds_.end(),
                       [](const auto& each) { return each.second.connection != nullptr; });
}

bool LiveExchange::await_clients(const RunFlag& run) {
    const auto deadline = Clock::now() + std::chrono::duration<double>(options_.wait_s);
    while (!all_connected()) {
        if (!run.running()) {
            return false;
        }
        if (Clock::now() > deadline) {
            std::string missing;
            for (const auto& [port, feed] : feeds_) {
                if (feed.connection == nullptr) {
                    missing += fmt::format("{}{} (its port {})", missing.empty() ? "" : ", ",
                                           feed.name, port);
                }
            }
            throw Failure(kTimedOut,
                          fmt::format("no client came to {} within {} s for {}; start vorn client, "
                                      "or give it more time with --wait",
                                      address(), options_.wait_s, missing));
        }
        pollfd waiting{listener_, POLLIN, 0};
        if (::poll(&waiting, 1, kTickMs) > 0) {
            accept_client();
        }
    }
    return true;
}

// A client is its feed's by the port from which it comes; one from another port stands for the
// first feed that has none.
void LiveExchange::accept_client() {
    sockaddr_in from{};
    socklen_t size = sizeof(from);
    const int socket =
        ::accept4(listener_, reinterpret_cast<sockaddr*>(&from), &size, SOCK_CLOEXEC);
    if (socket < 0) {
        return; // gone again
    }
    auto feed = feeds_.find(ntohs(from.sin_port));
    if (feed == feeds_.end()) {
        feed = std::find_if(feeds_.begin(), feeds_.end(),
                            [](const auto& each) { return each.second.connection == nullptr; });
    }
    if (feed == feeds_.end() || feed->second.connection != nullptr || numbers_will_wrap(socket)) {
        refuse(socket);
        return;
    }
    feed->second.connection = std::make_unique<SnapshotConnection>(feed->second.name, socket);
}

bool LiveExchange::await_time(uint64_t timestamp_ns, const RunFlag& run) {
    if (!started_) {
        started_ = true;
        first_ns_ = timestamp_ns;
        start_ = Clock::now();
    }
    const auto due = start_ + nanoseconds(static_cast<int64_t>(
                                  static_cast<double>(timestamp_ns - first_ns_) / options_.speed));
    for (;;) {
        if (!run.running()) {
            return false;
        }
        const nanoseconds ahead = due - Clock::now();
        if (ahead < kShortestSleep) {
            report_.latest = std::max(report_.latest, -ahead);
            return true;
        }
        const timespec time{ahead.count() / 1'000'000'000, ahead.count() % 1'000'000'000};
        ::nanosleep(&time, nullptr); // a signal ends it
    }
}

bool LiveExchange::send(const exchange_sim::WireFrame& frame, const RunFlag& run) {
    if (!await_time(frame.timestamp_ns, run)) {
        return false;
    }
    const auto parsed = wirekit::parse_frame(frame.bytes);
    if (parsed.kind == wirekit::ParsedFrame::Kind::kUdp) {
        send_datagram(parsed.to, parsed.payload);
        ++report_.datagrams;
    } else if (parsed.kind == wirekit::ParsedFrame::Kind::kTcp && !parsed.payload.empty()) {
        // Handshakes and acknowledgements are the network's own.
        const auto feed = feeds_.find(parsed.to.port);
        if (feed != feeds_.end()) {
            feed->second.connection->send(parsed.payload);
            ++report_.segments;
        }
    }
    return true;
}

void LiveExchange::send_datagram(const wirekit::Endpoint& to, std::span<const uint8_t> payload) {
    const sockaddr_in address = to_sockaddr(to.ip, to.port);
    while (::sendto(sender_, payload.data(), payload.size(), 0,
                    reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
        if (errno == ENOBUFS) { // the interface's queue is full; it empties by itself
            const timespec moment{0, 100'000};
            ::nanosleep(&moment, nullptr);
        } else if (errno != EINTR) {
            fail(fmt::format("cannot send to {}:{} on {}", dotted(to.ip), to.port,
                             options_.interface));
        }
    }
}

void LiveExchange::finish(const RunFlag& run) {
    const auto deadline = Clock::now() + kCloseWithin;
    for (auto& [port, feed] : feeds_) {
        feed.connection->close([&] { return run.running() && Clock::now() < deadline; });
    }
    if (run.running() && Clock::now() >= deadline) {
        throw Failure(kFailed, "a client has not read its snapshots to the end");
    }
}

} // namespace vorn_cli
