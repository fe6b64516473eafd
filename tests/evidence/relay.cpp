// A cable with faults: passes frames from one network interface to another and back, and spoils
// those that carry the snapshot (TCP segments with payload from the server's port). What happens to
// the n-th of them follows from the seed and n alone; when it comes, and what TCP then does, does
// not.
//
//     relay IF IF --seed N --port N --drop P --delay P --duplicate P --flip P --until N
//
// P are in 1/10000 of the frames. A delayed frame comes behind one to four others of its kind, or
// after 20 ms if no others come; a flip is of one bit behind the Ethernet header. One line of JSON
// on standard output when it listens, and one with its counts at SIGTERM.
//
// Exit status: 0 fine, 1 failed, 2 usage. Needs CAP_NET_RAW.

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Frame = std::vector<uint8_t>;

constexpr std::size_t kEthernet = 14;
constexpr auto kLongestDelay = std::chrono::milliseconds(20);

volatile std::sig_atomic_t stopped = 0;

struct Faults {
    uint64_t seed = 1;
    uint64_t port = 33022;
    uint64_t drop = 0;
    uint64_t delay = 0;
    uint64_t duplicate = 0;
    uint64_t flip = 0;
    uint64_t until = UINT64_MAX;
};

struct Counts {
    uint64_t passed = 0;   // all frames
    uint64_t snapshot = 0; // those that may be spoilt
    uint64_t dropped = 0;
    uint64_t delayed = 0;
    uint64_t duplicated = 0;
    uint64_t flipped = 0;
};

// splitmix64, begun anew for every frame.
class Chance {
public:
    Chance(uint64_t seed, uint64_t number) : state_(seed * 0x9E3779B97F4A7C15 + number) {}
    uint64_t below(uint64_t limit) {
        uint64_t z = state_ += 0x9E3779B97F4A7C15;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
        return (z ^ (z >> 31)) % limit;
    }
    bool one_of(uint64_t ten_thousandths) { return below(10000) < ten_thousandths; }

private:
    uint64_t state_;
};

int open_interface(const char* name) {
    const int index = static_cast<int>(::if_nametoindex(name));
    const int fd = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    const int room = 64 << 20;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = index;
    packet_mreq everything{};
    everything.mr_ifindex = index;
    everything.mr_type = PACKET_MR_PROMISC;
    if (index == 0 || fd < 0 ||
        ::setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) != 0 ||
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0 ||
        ::setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &everything, sizeof everything) != 0 ||
        ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::fprintf(stderr, "relay: %s: %s\n", name, std::strerror(errno));
        std::exit(1);
    }
    return fd;
}

// A TCP segment over IPv4 with payload, from that port.
bool carries_snapshot(const Frame& frame, uint64_t port) {
    if (frame.size() < kEthernet + 40 || frame[12] != 8 || frame[13] != 0 || frame[23] != 6) {
        return false;
    }
    const std::size_t ip_size = (frame[kEthernet] & 15u) * 4;
    const std::size_t tcp = kEthernet + ip_size;
    if (frame.size() < tcp + 20 || (frame[tcp] << 8 | frame[tcp + 1]) != static_cast<int>(port)) {
        return false;
    }
    const std::size_t total = frame[16] << 8 | frame[17];
    return total > ip_size + (frame[tcp + 12] >> 4u) * 4u;
}

// One direction of the cable.
class Way {
public:
    Way(int from, int to, const Faults& faults, Counts& counts)
        : from_(from), to_(to), faults_(faults), counts_(counts) {}

    // Everything that waits at the near end.
    void pass() {
        std::array<uint8_t, 65536> buffer;
        ssize_t size = 0;
        while ((size = ::recv(from_, buffer.data(), buffer.size(), 0)) > 0) {
            Frame frame(buffer.begin(), buffer.begin() + size);
            if (carries_snapshot(frame, faults_.port) && ++counts_.snapshot <= faults_.until) {
                pass_spoilt(std::move(frame));
            } else {
                send(frame);
            }
        }
    }
    void release_overdue() {
        const auto now = Clock::now();
        while (!delayed_.empty() && delayed_.front().until <= now) {
            send(delayed_.front().frame);
            delayed_.pop_front();
        }
    }

private:
    struct Delayed {
        Frame frame;
        uint64_t behind; // number of the frame that it comes behind
        Clock::time_point until;
    };

    void pass_spoilt(Frame frame) {
        const uint64_t number = counts_.snapshot;
        Chance chance(faults_.seed, number);
        const bool duplicate = chance.one_of(faults_.duplicate);
        if (chance.one_of(faults_.flip)) {
            ++counts_.flipped;
            const uint64_t bit = chance.below((frame.size() - kEthernet) * 8);
            frame[kEthernet + bit / 8] ^= static_cast<uint8_t>(1u << bit % 8);
        }
        if (chance.one_of(faults_.drop)) {
            ++counts_.dropped;
        } else if (chance.one_of(faults_.delay)) {
            ++counts_.delayed;
            delayed_.push_back(
                {std::move(frame), number + 1 + chance.below(4), Clock::now() + kLongestDelay});
        } else {
            send(frame);
            if (duplicate) {
                ++counts_.duplicated;
                send(frame);
            }
        }
        for (auto it = delayed_.begin(); it != delayed_.end();) {
            if (it->behind <= number) {
                send(it->frame);
                it = delayed_.erase(it);
            } else {
                ++it;
            }
        }
    }
    // A full queue at the far end is waited for.
    void send(const Frame& frame) {
        ++counts_.passed;
        while (::send(to_, frame.data(), frame.size(), 0) < 0 && !stopped) {
            if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR) {
                std::perror("relay: send");
                std::exit(1);
            }
            pollfd writable{to_, POLLOUT, 0};
            ::poll(&writable, 1, 1);
        }
    }

    const int from_;
    const int to_;
    const Faults& faults_;
    Counts& counts_;
    std::deque<Delayed> delayed_;
};

bool parse(int argc, char** argv, Faults& faults) {
    if (argc < 3 || argc % 2 == 0) {
        return false;
    }
    const struct {
        const char* name;
        uint64_t* value;
    } options[] = {{"--seed", &faults.seed},  {"--port", &faults.port},
                   {"--drop", &faults.drop},  {"--delay", &faults.delay},
                   {"--flip", &faults.flip},  {"--duplicate", &faults.duplicate},
                   {"--until", &faults.until}};
    for (int i = 3; i < argc; i += 2) {
        const auto* option =
            std::find_if(std::begin(options), std::end(options),
                         [&](const auto& one) { return std::strcmp(one.name, argv[i]) == 0; });
        char* end = nullptr;
        const unsigned long long value = std::strtoull(argv[i + 1], &end, 10);
        if (option == std::end(options) || *argv[i + 1] == '\0' || *end != '\0') {
            return false;
        }
        *option->value = value;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    Faults faults;
    if (!parse(argc, argv, faults)) {
        std::fprintf(stderr, "usage: relay IF IF [--seed N] [--port N] [--drop P] [--delay P] "
                             "[--duplicate P] [--flip P] [--until N], P in 1/10000\n");
        return 2;
    }
    const int ends[2] = {open_interface(argv[1]), open_interface(argv[2])};
    for (const int number : {SIGINT, SIGTERM}) {
        struct sigaction action {};
        action.sa_handler = [](int) { stopped = 1; };
        ::sigaction(number, &action, nullptr);
    }
    Counts counts;
    Way there(ends[0], ends[1], faults, counts);
    Way back(ends[1], ends[0], faults, counts);
    std::printf("{\"listens\":true}\n");
    std::fflush(stdout);
    while (!stopped) {
        pollfd readable[2] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}};
        ::poll(readable, 2, 5);
        there.pass();
        back.pass();
        there.release_overdue();
        back.release_overdue();
    }
    const auto n = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    std::printf("{\"passed\":%llu,\"snapshot\":%llu,\"dropped\":%llu,\"delayed\":%llu,"
                "\"duplicated\":%llu,\"flipped\":%llu}\n",
                n(counts.passed), n(counts.snapshot), n(counts.dropped), n(counts.delayed),
                n(counts.duplicated), n(counts.flipped));
    return 0;
}
