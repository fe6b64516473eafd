// What does recording add to a poll that hands out a frame?
//
// Hands decode buffers to the recorder as the feed's thread does, at the rate of a busy market and
// pinned to a CPU, and measures the call: the virtual call, the time stamp and the copy into the
// ring, while the writer thread drains into a file. In blocks of 64 calls, because reading the
// clock takes as long as a call.

#include "tools/vorn/check/effective_config.h"
#include "tools/vorn/feed/card_time.h"
#include "tools/vorn/record/open_recorder.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sched.h>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::duration<double, std::nano>;

constexpr std::size_t kBlock = 64;

// Keeps nothing: the virtual call and the time stamp alone.
class Nothing final : public vorn_cli::FrameKeeper {
public:
    bool in_step() const override { return false; }
    void keep_raw(std::span<const char>, uint64_t) override {}
    void keep_decode(std::span<const char> buffer, uint64_t) override { seen = buffer.size(); }
    volatile std::size_t seen = 0;
};

int pin_to_last_cpu() {
    cpu_set_t set;
    CPU_ZERO(&set);
    int cpu = -1;
    if (sched_getaffinity(0, sizeof(set), &set) == 0) {
        for (int i = 0; i < CPU_SETSIZE; ++i) {
            cpu = CPU_ISSET(static_cast<std::size_t>(i), &set) ? i : cpu;
        }
        CPU_ZERO(&set);
        CPU_SET(static_cast<std::size_t>(cpu), &set);
        sched_setaffinity(0, sizeof(set), &set);
    }
    return cpu;
}

std::string machine() {
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("model name")) {
            return line.substr(line.find(':') + 2);
        }
    }
    return "unknown processor";
}

// Nanoseconds a call, one value a block.
std::vector<double> measure(vorn_cli::FrameKeeper& keeper, std::size_t size, std::size_t blocks,
                            double rate) {
    const std::vector<char> buffer(size, 'x');
    std::vector<double> values;
    values.reserve(blocks);
    const auto begin = Clock::now();
    for (std::size_t block = 0; block < blocks; ++block) {
        const auto due = begin + std::chrono::duration_cast<Clock::duration>(
                                     Nanoseconds(1e9 * static_cast<double>(block * kBlock) / rate));
        while (Clock::now() < due) {
        }
        const auto before = Clock::now();
        for (std::size_t i = 0; i < kBlock; ++i) {
            keeper.keep_decode(buffer, vorn_cli::time_of_receipt_ns());
        }
        values.push_back(Nanoseconds(Clock::now() - before).count() / kBlock);
    }
    values.erase(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(blocks / 10));
    std::sort(values.begin(), values.end());
    return values;
}

void print(const char* what, const std::vector<double>& sorted) {
    const auto at = [&](double part) {
        return sorted[static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1))];
    };
    fmt::print("{:<12} p50 {:6.1f}  p99 {:6.1f}  p99.9 {:6.1f}  max {:8.1f} ns a frame\n", what,
               at(0.5), at(0.99), at(0.999), at(1));
}

} // namespace

int main(int argc, char** argv) {
    const std::size_t size = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 150;
    const double rate = argc > 2 ? std::strtod(argv[2], nullptr) : 500'000;
    const std::string path = argc > 3 ? argv[3] : "record_copy.pcap";
    if (size < 24 || size > 2048 || rate <= 0) {
        fmt::print(stderr, "usage: bench_record_copy [BYTES (150)] [FRAMES_PER_SECOND (500000)] "
                           "[FILE (record_copy.pcap)]\n");
        return 2;
    }
    constexpr std::size_t kBlocks = 40'000;
    vorn_cli::RecorderRequest request;
    request.output = path;
    request.force = true;
    request.config = vorn_cli::effective_config(vorn_cli::IniFile{});
    request.config.device = "exanic0";
    const int cpu = pin_to_last_cpu();
    request.config.cpucore = static_cast<int16_t>(cpu);
    // The writer leaves that CPU if it may use another one.
    cpu_set_t all;
    CPU_ZERO(&all);
    for (std::size_t i = 0; i < CPU_SETSIZE; ++i) {
        CPU_SET(i, &all);
    }
    sched_setaffinity(0, sizeof(all), &all);
    const auto recorder = vorn_cli::open_recorder(request);
    pin_to_last_cpu();

    fmt::print("{}, CPU {}; buffers of {} bytes, {:.0f} a second\n", machine(), cpu, size, rate);
    Nothing nothing;
    print("stamp alone", measure(nothing, size, kBlocks, rate));
    print("recording", measure(*recorder->frame_keeper(), size, kBlocks, rate));
    const auto counts = recorder->finish(true);
    fmt::print("{} frames written, {} lost\n", counts.records, counts.lost());
    std::remove(path.c_str());
    return counts.lost() == 0 ? 0 : 1;
}
