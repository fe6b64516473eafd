// G13: what a reader of the bus costs the callback that publishes. Each call is fenced and timed
// alone, at the rate of a busy market; beside it no reader, one that was stopped in the middle of
// following, and one that follows on another CPU.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"

#include "bus/bus_reader.h"
#include "bus/bus_writer.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>
#include <x86intrin.h>

namespace {

using namespace bench;

constexpr uint32_t kUpdates = 100'000;
constexpr uint32_t kInstruments = 400;
constexpr double kNsApart = 2000;
constexpr int kRounds = 11;
enum Reader { kNone, kStopped, kFollowing, kReaders };
constexpr const char* kNames[] = {"no reader", "stopped reader", "following reader"};

uint64_t fenced_now() {
    _mm_lfence();
    const uint64_t now = __rdtsc();
    _mm_lfence();
    return now;
}

double ticks_per_ns() {
    const auto begin = std::chrono::steady_clock::now();
    const uint64_t first = fenced_now();
    while (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(50)) {
    }
    const uint64_t last = fenced_now();
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - begin;
    return static_cast<double>(last - first) / elapsed.count();
}

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

std::vector<double> measure(vorn_bus::BusWriter& writer, double scale) {
    std::vector<double> times(kUpdates);
    instrument record{};
    record.inst_id[0] = 'x';
    const uint64_t begin = fenced_now();
    for (uint32_t n = 0; n < kUpdates; ++n) {
        const auto due = begin + static_cast<uint64_t>(n * kNsApart * scale);
        while (fenced_now() < due) {
        }
        record.change_no = n;
        const uint64_t before = fenced_now();
        writer.publish(record, n % kInstruments);
        times[n] = static_cast<double>(fenced_now() - before) / scale;
    }
    std::sort(times.begin(), times.end());
    return times;
}

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
                    times = measure(writer, scale);
                } else {
                    const ReaderProcess process(name, cpus, reader == kStopped);
                    times = measure(writer, scale);
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
