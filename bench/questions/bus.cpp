// G13: what a reader of the bus costs the callback that publishes; beside it no reader, one that
// was stopped in the middle of following, and one that follows on another CPU.

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

// A process that follows the bus, off the writer's CPU where there is another.
class ReaderProcess {
public:
    ReaderProcess(const std::string& name, const cpu_set_t& cpus, bool stop) {
        std::array<int, 2> ready{};
        if (::pipe(ready.data()) != 0) {
            std::exit(1);
        }
        pid_ = ::fork();
        if (pid_ == 0) {
            ::sched_setaffinity(0, sizeof(cpus), &cpus);
            follow(name, ready[1]);
        }
        ::close(ready[1]);
        char byte = 0;
        if (::read(ready[0], &byte, 1) != 1) { // it is in its loop
            std::exit(1);
        }
        ::close(ready[0]);
        if (stop) {
            ::kill(pid_, SIGSTOP);
            int status = 0;
            ::waitpid(pid_, &status, WUNTRACED);
        }
    }
    ~ReaderProcess() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    ReaderProcess(const ReaderProcess&) = delete;
    ReaderProcess& operator=(const ReaderProcess&) = delete;

private:
    [[noreturn]] static void follow(const std::string& name, int ready) {
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
    pid_t pid_;
};

} // namespace

int main() {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    ::sched_getaffinity(0, sizeof(cpus), &cpus);
    const int processor = pin_to_one_processor();
    if (CPU_COUNT(&cpus) > 1) {
        CPU_CLR(static_cast<unsigned>(processor), &cpus);
    }
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
                    const ReaderProcess process(name, cpus, reader == kStopped);
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
