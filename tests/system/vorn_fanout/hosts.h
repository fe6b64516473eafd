#pragma once

// The machines of a test. As root each is a network namespace of its own, joined to one in which
// the servers run; without that privilege, or where namespaces cannot be made, all are this
// machine, and the servers listen on a loopback address that no other test uses.

#include <string>
#include <vector>

namespace vorn_fanout {

// An address of loopback that belongs to this process.
std::string own_address();

class Hosts {
public:
    // `names` are short: they are parts of the names of namespaces.
    explicit Hosts(const std::vector<std::string>& names);
    ~Hosts();
    Hosts(const Hosts&) = delete;
    Hosts& operator=(const Hosts&) = delete;

    bool apart() const { return apart_; }
    // Where the servers listen, as all hosts reach it.
    const std::string& server_address() const { return address_; }
    // The command as it runs on a host; "" is the servers'.
    std::vector<std::string> on(const std::string& host, std::vector<std::string> command) const;
    // Moves the calling process to the servers' host.
    void enter() const;

private:
    std::string name_of(const std::string& host) const { return prefix_ + host; }
    bool make(const std::vector<std::string>& names);

    std::string prefix_;
    std::string address_;
    std::vector<std::string> made_; // namespaces
    bool apart_ = false;
};

} // namespace vorn_fanout
