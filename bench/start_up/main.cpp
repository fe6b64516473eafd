// G11, second half: how long from the start to the first callback, and where that time goes, with
// 20,480 instruments on the software card in step mode, where nothing waits for the exchange.
//
// On a card of its own the bring-up is shorter: each store into the filter tables, 40,960 of them,
// is a trap into the software card here and a store across the bus there.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"

#include "exchange_sim/pcap_writer.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/feed/feed_run.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRuns = 7;

class FirstCallback final : public vorn_cli::FeedWatcher {
public:
    void on_phase(vorn_cli::FeedPhase phase) override {
        if (first_ == Clock::time_point{}) {
            began_[static_cast<std::size_t>(phase)] = Clock::now();
        }
    }
    void on_update(const instrument&, uint32_t) override {
        if (first_ == Clock::time_point{}) {
            first_ = Clock::now();
        }
    }
    // Milliseconds up to the first callback, from the beginning of one phase to that of another.
    double spent(vorn_cli::FeedPhase from, vorn_cli::FeedPhase to) const {
        return milliseconds(at(from), at(to));
    }
    double rest(vorn_cli::FeedPhase from) const { return milliseconds(at(from), first_); }

private:
    // A phase that had not begun took no time.
    Clock::time_point at(vorn_cli::FeedPhase phase) const {
        const auto began = began_[static_cast<std::size_t>(phase)];
        return began == Clock::time_point{} ? first_ : began;
    }
    static double milliseconds(Clock::time_point from, Clock::time_point to) {
        return std::chrono::duration<double, std::milli>(to - from).count();
    }

    // The run begins with the bring-up, which nobody is told of.
    std::array<Clock::time_point, vorn_cli::kFeedPhases> began_{Clock::now()};
    Clock::time_point first_{};
};

void run(const std::string& directory) {
    exchange_sim::SessionOptions session;
    session.instruments = 20'480;
    session.changes = 60'000;
    session.rate = 20'000;
    const std::string capture = directory + "/session.pcap";
    const auto written = exchange_sim::write_session(capture, session);
    if (!written.ok()) {
        throw vorn_cli::Failure(vorn_cli::kFailed, written.error);
    }
    using vorn_cli::FeedPhase;
    std::array<std::vector<double>, 5> ms;
    for (int i = 0; i < kRuns; ++i) {
        FirstCallback watcher;
        const auto report = vorn_cli::run_feed({{}, capture}, watcher);
        if (report.result != 0 || report.counters.applied == 0) {
            throw vorn_cli::Failure(vorn_cli::kFailed, "the feed made no update");
        }
        ms[0].push_back(watcher.spent(FeedPhase::kBringUp, FeedPhase::kSnapshot));
        ms[1].push_back(watcher.spent(FeedPhase::kSnapshot, FeedPhase::kReplay));
        ms[2].push_back(watcher.spent(FeedPhase::kReplay, FeedPhase::kLive));
        ms[3].push_back(watcher.rest(FeedPhase::kLive));
        ms[4].push_back(watcher.rest(FeedPhase::kBringUp));
    }
    const char* const names[] = {"bring-up", "snapshot", "replay", "live", "whole"};
    for (std::size_t i = 0; i < ms.size(); ++i) {
        bench::report_figure("G11", names[i], "start to first callback", bench::median(ms[i]),
                             "ms");
    }
}

} // namespace

int main() {
    bench::report_run("start_up", -1); // the feed pins its threads itself
    std::string directory = std::filesystem::temp_directory_path() / "vorn_bench_XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) {
        std::perror("bench: mkdtemp");
        return 1;
    }
    int status = 0;
    try {
        run(directory);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench: %s\n", error.what());
        status = 1;
    }
    std::filesystem::remove_all(directory);
    return status;
}
