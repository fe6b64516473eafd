#include "softcard/sources/network_interface.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace softcard {

namespace {

// A socket to ask the system with.
class Question {
public:
    explicit Question(const std::string& name)
        : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        request_.ifr_name[name.copy(request_.ifr_name, IFNAMSIZ - 1)] = '\0';
    }
    ~Question() { ::close(socket_); }
    Question(const Question&) = delete;
    Question& operator=(const Question&) = delete;

    bool ask(unsigned long what) { return ::ioctl(socket_, what, &request_) == 0; }
    // Of one ethtool command without arguments; 0 when the driver does not know it.
    uint32_t ask_ethtool(uint32_t command) {
        ethtool_value value{};
        value.cmd = command;
        request_.ifr_data = reinterpret_cast<char*>(&value);
        const bool known = ask(SIOCETHTOOL);
        request_.ifr_data = nullptr;
        return known ? value.data : 0;
    }
    const ifreq& answer() const { return request_; }

private:
    int socket_;
    ifreq request_{};
};

bool is_loopback(const std::string& name) {
    Question question(name);
    return question.ask(SIOCGIFFLAGS) && (question.answer().ifr_flags & IFF_LOOPBACK) != 0;
}

// "eth0, eth1", without loopback.
std::string usable_names() {
    const std::unique_ptr<struct if_nameindex, decltype(&if_freenameindex)> all(if_nameindex(),
                                                                                &if_freenameindex);
    std::string names;
    for (const struct if_nameindex* each = all.get(); each != nullptr && each->if_index != 0;
         ++each) {
        if (!is_loopback(each->if_name)) {
            names += (names.empty() ? "" : ", ") + std::string(each->if_name);
        }
    }
    return names;
}

} // namespace

std::string interface_trouble(const std::string& name) {
    Question question(name);
    if (name.size() >= IFNAMSIZ || !question.ask(SIOCGIFFLAGS)) {
        const std::string names = usable_names();
        return "there is no interface " + name + "; " +
               (names.empty() ? "this machine has none but loopback" : "there are: " + names);
    }
    const auto flags = static_cast<unsigned>(question.answer().ifr_flags);
    if ((flags & IFF_LOOPBACK) != 0) {
        return "loopback (" + name +
               ") cannot work: its frames are up to 62 kB long and have no "
               "checksums; use a real interface or a veth pair between network namespaces";
    }
    if ((flags & IFF_UP) == 0) {
        return "interface " + name + " is down; ip link set " + name + " up";
    }
    return {};
}

uint32_t interface_mtu(const std::string& name) {
    Question question(name);
    return question.ask(SIOCGIFMTU) ? static_cast<uint32_t>(question.answer().ifr_mtu) : 0;
}

std::vector<std::string> harmful_offloads(const std::string& name) {
    Question question(name);
    std::vector<std::string> names;
    constexpr std::pair<uint32_t, const char*> kSwitches[] = {
        {ETHTOOL_GGRO, "gro"}, {ETHTOOL_GTSO, "tso"}, {ETHTOOL_GGSO, "gso"}};
    for (const auto& [command, offload] : kSwitches) {
        if (question.ask_ethtool(command) != 0) {
            names.emplace_back(offload);
        }
    }
    if ((question.ask_ethtool(ETHTOOL_GFLAGS) & ETH_FLAG_LRO) != 0) {
        names.emplace_back("lro");
    }
    return names;
}

std::string offloads_off_command(const std::string& name) {
    return "ethtool -K " + name + " rx off tx off sg off tso off gso off gro off lro off";
}

Memberships::~Memberships() {
    if (socket_ >= 0) {
        ::close(socket_); // the system leaves the groups
    }
}

std::string Memberships::set(const std::string& interface, std::span<const uint32_t> groups) {
    // Never bound to a port, so that nothing queues up in it.
    const int fresh = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    std::string trouble;
    for (const uint32_t group : groups) {
        ip_mreqn request{};
        request.imr_multiaddr.s_addr = htonl(group);
        request.imr_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
        if (IN_MULTICAST(group) &&
            ::setsockopt(fresh, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) != 0 &&
            errno != EADDRINUSE) {
            char text[INET_ADDRSTRLEN] = "";
            ::inet_ntop(AF_INET, &request.imr_multiaddr, text, sizeof(text));
            trouble = "cannot join " + std::string(text) + " on " + interface + ": " +
                      std::strerror(errno);
        }
    }
    // Only now, so that a group that stays is not left in between.
    if (socket_ >= 0) {
        ::close(socket_);
    }
    socket_ = fresh;
    return trouble;
}

} // namespace softcard
