#include "hosts.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <unistd.h>

namespace vorn_fanout {

namespace {

bool shell(const std::string& command) {
    return std::system((command + " > /dev/null 2>&1").c_str()) == 0;
}

constexpr char kPrefix[] = "vornft"; // then the process's number

// Namespaces of tests that were killed.
void remove_leftovers() {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/run/netns", ignored)) {
        const std::string name = entry.path().filename();
        const int pid =
            name.starts_with(kPrefix) ? std::atoi(name.c_str() + sizeof(kPrefix) - 1) : 0;
        if (pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH) {
            shell("ip netns del " + name);
        }
    }
}

} // namespace

std::string own_address() {
    const int pid = ::getpid();
    return "127." + std::to_string(1 + (pid >> 16) % 250) + "." +
           std::to_string((pid >> 8) & 0xff) + "." + std::to_string(pid & 0xff);
}

Hosts::Hosts(const std::vector<std::string>& names)
    : prefix_(kPrefix + std::to_string(::getpid())) {
    if (::geteuid() == 0) {
        remove_leftovers();
        apart_ = make(names);
    }
    address_ = apart_ ? "10.77.0.1" : own_address();
}

Hosts::~Hosts() {
    for (const std::string& name : made_) {
        shell("ip netns del " + name);
    }
}

// A bridge in the servers' namespace, a veth pair to it from every other one.
bool Hosts::make(const std::vector<std::string>& names) {
    const std::string hub = name_of("");
    const auto add = [&](const std::string& name) {
        const bool fine =
            shell("ip netns add " + name) && shell("ip -n " + name + " link set lo up");
        made_.push_back(name);
        return fine;
    };
    if (!add(hub) || !shell("ip -n " + hub + " link add br0 type bridge") ||
        !shell("ip -n " + hub + " addr add 10.77.0.1/24 dev br0") ||
        !shell("ip -n " + hub + " link set br0 up")) {
        return false;
    }
    int number = 1;
    for (const std::string& host : names) {
        const std::string name = name_of(host);
        const std::string port = "p" + std::to_string(++number);
        if (!add(name) ||
            !shell("ip -n " + hub + " link add " + port + " type veth peer name eth0 netns " +
                   name) ||
            !shell("ip -n " + hub + " link set " + port + " master br0 up") ||
            !shell("ip -n " + name + " addr add 10.77.0." + std::to_string(number) +
                   "/24 dev eth0") ||
            !shell("ip -n " + name + " link set eth0 up")) {
            return false;
        }
    }
    return true;
}

std::vector<std::string> Hosts::on(const std::string& host,
                                   std::vector<std::string> command) const {
    if (apart_) {
        const std::vector<std::string> there = {"ip", "netns", "exec", name_of(host)};
        command.insert(command.begin(), there.begin(), there.end());
    }
    return command;
}

void Hosts::enter() const {
    if (!apart_) {
        return;
    }
    const int file = ::open(("/run/netns/" + name_of("")).c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0 || ::setns(file, CLONE_NEWNET) != 0) {
        std::abort();
    }
    ::close(file);
}

} // namespace vorn_fanout
