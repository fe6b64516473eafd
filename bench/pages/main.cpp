// G14: what open pages cost the callback that publishes on a bus: none, or 200 streams of `vorn
// serve` that are read and one that never is. Server and pages run on the other CPUs.

#include "bench/harness/child.h"
#include "bench/harness/contest.h"
#include "bench/harness/publish_times.h"
#include "bench/harness/report.h"

#include "bus/bus_reader.h"

#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace bench;

constexpr uint32_t kUpdates = 100'000;
constexpr uint32_t kInstruments = 400;
constexpr double kNsApart = 20'000; // 50,000 updates a second
constexpr int kRounds = 7;
constexpr int kPages = 200;
constexpr uint16_t kPort = 18'714;

int open_stream() {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::string request = "GET /api/stream?instrument=x HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    if (::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::write(descriptor, request.data(), request.size()) !=
            static_cast<ssize_t>(request.size())) {
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}

// Reads all streams but one until it is killed; says on `ready` when every one has begun.
void be_pages(int ready) {
    std::vector<pollfd> pages;
    while (pages.size() < kPages + 1) {
        const int descriptor = open_stream();
        if (descriptor < 0) { // the server is not there yet
            ::usleep(50'000);
            continue;
        }
        pages.push_back({descriptor, POLLIN, 0});
    }
    pages.pop_back(); // stays open, unread
    std::vector<bool> begun(pages.size());
    std::size_t waiting = pages.size();
    std::array<char, 65536> bytes{};
    while (::poll(pages.data(), pages.size(), -1) > 0) {
        for (std::size_t i = 0; i < pages.size(); ++i) {
            if ((pages[i].revents & (POLLIN | POLLHUP)) == 0) {
                continue;
            }
            if (::read(pages[i].fd, bytes.data(), bytes.size()) <= 0) {
                return; // a page was refused or dropped: not what is to be measured
            }
            if (!begun[i]) {
                begun[i] = true;
                if (--waiting == 0 && ::write(ready, "r", 1) != 1) {
                    return;
                }
            }
        }
    }
}

bool wait_for(int ready) {
    char byte = 0;
    return ::read(ready, &byte, 1) == 1;
}

} // namespace

int main() {
    const cpu_set_t allowed = allowed_processors();
    const int processor = pin_to_one_processor();
    const cpu_set_t cpus = processors_beside(allowed, processor);
    report_run("pages", processor);
    const std::string name = "bench." + std::to_string(::getpid());
    const double scale = ticks_per_ns();
    std::vector<double> ratios;
    std::array<std::vector<double>, 2> p50s;
    std::array<std::vector<double>, 2> p99s;
    int status = 0;
    {
        vorn_bus::BusWriter writer({name});
        for (int round = -1; round < kRounds && status == 0; ++round) {
            std::array<double, 2> p99{};
            for (const bool with_pages : {false, true}) {
                std::vector<double> times;
                const auto measure = [&] {
                    times = publish_times(writer, scale, kUpdates, kNsApart, kInstruments);
                };
                if (!with_pages) {
                    measure();
                } else {
                    const Child server(cpus, [&] {
                        const int nothing = ::open("/dev/null", O_RDWR);
                        ::dup2(nothing, STDOUT_FILENO);
                        ::dup2(nothing, STDERR_FILENO);
                        const std::string listen = "127.0.0.1:" + std::to_string(kPort);
                        ::execl(VORN_PROGRAM, VORN_PROGRAM, "serve", "--bus", name.c_str(),
                                "--listen", listen.c_str(), static_cast<char*>(nullptr));
                    });
                    std::array<int, 2> ready{};
                    if (::pipe(ready.data()) != 0) {
                        std::perror("bench: pipe");
                        return 1;
                    }
                    const Child pages(cpus, [&] {
                        ::close(ready[0]);
                        be_pages(ready[1]);
                    });
                    ::close(ready[1]);
                    if (!wait_for(ready[0])) {
                        std::fprintf(stderr, "bench: the pages could not be opened\n");
                        status = 1;
                    } else {
                        measure();
                    }
                    ::close(ready[0]);
                }
                if (status != 0) {
                    break;
                }
                p99[with_pages] = quantile(times, 0.99);
                if (round >= 0) {
                    p50s[with_pages].push_back(quantile(times, 0.5));
                    p99s[with_pages].push_back(p99[with_pages]);
                }
            }
            if (round >= 0 && status == 0) {
                ratios.push_back(p99[1] / p99[0]);
            }
        }
    }
    vorn_bus::remove_bus(name);
    if (status != 0) {
        return status;
    }
    for (const bool with_pages : {false, true}) {
        const std::string at = with_pages ? "201 pages" : "no page";
        report_figure("G14", "p50", at, median(p50s[with_pages]), "ns");
        report_figure("G14", "p99", at, median(p99s[with_pages]), "ns");
    }
    report_goal({"G14", "p99 with 200 pages and a stuck one", median(ratios), Better::kSmaller,
                 1.10, 1.02});
    return 0;
}
