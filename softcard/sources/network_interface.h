#pragma once

// What the system says about its network interfaces.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace softcard {

// Why frames of this interface cannot be used, in one line that says what would work; empty when
// nothing speaks against it. Needs no privileges.
std::string interface_trouble(const std::string& name);

// In bytes, without the Ethernet header; 0 when it cannot be told.
uint32_t interface_mtu(const std::string& name);

// The offloads that are on and merge frames beyond the MTU or leave checksums to a card, by the
// names that ethtool -K takes: "gro", "tso" and the like.
std::vector<std::string> harmful_offloads(const std::string& name);
// The command that turns them all off.
std::string offloads_off_command(const std::string& name);

// Memberships of multicast groups on one interface, for as long as it lives. Nothing is received
// through it: it is there so that the network sends the groups here.
class Memberships {
public:
    Memberships() = default;
    ~Memberships();
    Memberships(const Memberships&) = delete;
    Memberships& operator=(const Memberships&) = delete;

    // These groups (IPv4, host order) instead of those before; what is no multicast address is
    // passed over, and so is a group named twice. Empty, or what could not be joined and why.
    std::string set(const std::string& interface, std::span<const uint32_t> groups);

private:
    int socket_ = -1;
};

} // namespace softcard
