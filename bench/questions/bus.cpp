// G13: what a reader of the bus costs the callback that publishes; beside it no reader, one that
// was stopped in the middle of following, and one that follows on another CPU.

#include "bench/harness/child.h"
#include "bench/harness/contest.h"
#include "bench/harness/publish_times.h"
#include "bench/harness/report.h"

#include "bus/bus_reader.h"
#include "bus/bus_writer.h"

#include <array>
#include <csignal>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace bench;

constexpr uint32_t kUpdates = 100'000;
constexpr uint32_t kInstruments = 400;
constexpr double kNsApart = 2000;
constexpr int kRounds = 11;
enum Reader { kNone, kStopped, kFollowing, kReaders };
constexpr const char* kNames[] = {"no reader", "stopped reader", "following reader"};

[[noreturn]] void follow(const std::string& name, int ready) {
    const vorn_bus::BusReader bus(name);
    vorn_bus::RingCursor cursor = bus.follow_oldest();
    vorn_bus::RingRecord record;
    (void)cursor.next(record);
    if (::write(ready, "r", 1) != 1) {
        ::_exit(1);
    }
    while (true) {
        if (cursor.next(record)) {
            keep(record);
        } else {
            _mm_pause();
        }
    }
}

// Reads the bus in a child; returns when it is in its loop.
class ReaderProcess {
public:
    ReaderProcess(const std::string& name, const cpu_set_t& cpus)
        : ready_(open_pipe()), child_(cpus, [&] { follow(name, ready_[1]); }) {
        ::close(ready_[1]);
        char byte = 0;
        if (::read(ready_[0], &byte, 1) != 1) {
            std::exit(1);
        }
        ::close(ready_[0]);
    }
    void stop() const { child_.stop(); }

private:
    static std::array<int, 2> open_pipe() {
        std::array<int, 2> ends{};
        if (::pipe(ends.data()) != 0) {
            std::exit(1);
        }
        return ends;
    }

    std::array<int, 2> ready_;
    Child child_;
};

} // namespace

int main() {
    const cpu_set_t allowed = allowed_processors();
    const int processor = pin_to_one_processor();
    const cpu_set_t cpus = processors_beside(allowed, processor);
    report_run("bus", processor);
    const std::string name = "bench." + std::to_string(::getpid());
    const double scale = ticks_per_ns();
    std::array<std::vector<double>, kReaders> p50s;
    std::array<std::vector<double>, kReaders> p99s;
    std::vector<double> ratios;
    {
        vorn_bus::BusWriter writer({name});
        for (int round = -1; round < kRounds; ++round) {
            std::array<double, kReaders> p99{};
            for (const Reader reader : {kNone, kStopped, kFollowing}) {
                std::vector<double> times;
                if (reader == kNone) {
                    times = publish_times(writer, scale, kUpdates, kNsApart, kInstruments);
                } else {
                    const ReaderProcess process(name, cpus);
                    if (reader == kStopped) {
                        process.stop();
                    }
                    times = publish_times(writer, scale, kUpdates, kNsApart, kInstruments);
                }
                p99[reader] = quantile(times, 0.99);
                if (round >= 0) {
                    p50s[reader].push_back(quantile(times, 0.5));
                    p99s[reader].push_back(p99[reader]);
                }
            }
            if (round >= 0) {
                ratios.push_back(p99[kStopped] / p99[kNone]);
            }
        }
    }
    vorn_bus::remove_bus(name);
    for (const Reader reader : {kNone, kStopped, kFollowing}) {
        report_figure("G13", "p50", kNames[reader], median(p50s[reader]), "ns");
        report_figure("G13", "p99", kNames[reader], median(p99s[reader]), "ns");
    }
    report_goal({"G13", "p99 with a stopped reader", median(ratios), Better::kSmaller, 1.10, 1.02});
    return 0;
}
