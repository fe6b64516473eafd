#pragma once

// Servers of a test: one, or a cluster.

#include "hosts.h"
#include "process.h"

#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace vorn_fanout {

class NatsServers {
public:
    // Starts `count` of them on the servers' host; each keeps its files below `directory`.
    NatsServers(const Hosts& hosts, const std::filesystem::path& directory, int count);

    std::string urls() const; // of all, with commas between
    void kill(int server) { servers_[index(server)]->end_by(SIGKILL); }
    void start(int server);
    int count() const { return static_cast<int>(servers_.size()); }
    // The number of the one that leads the stream VORN, asked over the network.
    int leader() const;

private:
    static std::size_t index(int server) { return static_cast<std::size_t>(server); }
    std::string port(int base, int server) const { return std::to_string(base + server); }

    const Hosts& hosts_;
    const std::filesystem::path directory_;
    std::vector<std::unique_ptr<Process>> servers_;
};

} // namespace vorn_fanout
