// G12: nanoseconds for a message as work grows: instruments, fields in a message, cache backlog.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"
#include "bench/reference/feed_parts.h"
#include "bench/reference/live_stream.h"

#include "CommonLog.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace bench;

// The least of the rounds: a curve is to show the work, not what the machine did beside it.
double timed_ns(uint64_t operations, const std::function<void()>& reset,
                const std::function<void()>& run) {
    std::vector<double> times;
    for (int round = -1; round < 7; ++round) {
        reset();
        const auto begin = std::chrono::steady_clock::now();
        run();
        const std::chrono::duration<double, std::nano> elapsed =
            std::chrono::steady_clock::now() - begin;
        if (round >= 0) {
            times.push_back(elapsed.count() / static_cast<double>(operations));
        }
    }
    return *std::min_element(times.begin(), times.end());
}

double live_ns(IncrementalFeed& feed, const FrameList& frames) {
    return timed_ns(
        frames.size(),
        [&] {
            feed.reset();
            serve(frames);
        },
        [&] {
            for (std::size_t n = 0; n < frames.size(); ++n) {
                if (feed.channel->UdpRecv() == RET_TO_CALLBACK) {
                    feed.call_back();
                }
            }
        });
}

void by_instruments() {
    for (const uint32_t instruments : {1u, 10u, 100u, 800u, 2'000u, 5'000u, 10'000u, 20'480u}) {
        IncrementalFeed feed(instruments);
        const FrameList frames = make_live_stream(instruments, 200'000);
        report_figure("G12", "instruments", std::to_string(instruments), live_ns(feed, frames),
                      "ns");
    }
}

// The worst step of a field's price from one size of message to the next.
void by_fields() {
    IncrementalFeed feed(800);
    std::vector<double> per_field;
    double before = 0;
    uint32_t fields_before = 0;
    for (const uint32_t fields : {1u, 2u, 5u, 10u, 20u, 40u}) {
        const FrameList frames = make_wide_stream(800, 50'000, fields);
        const double ns = live_ns(feed, frames);
        report_figure("G12", "fields", std::to_string(fields), ns, "ns");
        if (fields_before != 0) {
            per_field.push_back((ns - before) / (fields - fields_before));
        }
        before = ns;
        fields_before = fields;
    }
    // From ten fields on, where a step is long enough to be told from the noise.
    report_goal({"G12", "ns per further field, 40 against 10", per_field.back() / per_field[2],
                 Better::kSmaller, kNoMust, 1.5});
}

void by_backlog() {
    IncrementalFeed feed(800);
    std::vector<double> times;
    for (const uint32_t backlog : {10u, 1'000u, 100'000u, 500'000u, 2'000'000u}) {
        const FrameList frames = make_live_stream(800, backlog);
        const double ns = timed_ns(
            backlog,
            [&] {
                feed.reset();
                serve(frames);
                for (uint32_t n = 0; n < backlog; ++n) {
                    feed.channel->CachePacket();
                }
            },
            [&] {
                while (feed.cache.cachedCount > 0) {
                    feed.channel->CachePacket();
                    if (feed.channel->ProcessCached() == RET_TO_CALLBACK) {
                        feed.call_back();
                    }
                }
            });
        report_figure("G12", "backlog", std::to_string(backlog), ns, "ns");
        times.push_back(ns);
    }
    report_goal({"G12", "replay of 2 million against 100,000", times.back() / times[2],
                 Better::kSmaller, kNoMust, 1.5});
}

} // namespace

int main() {
    report_run("growth", pin_to_one_processor());
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(7));
    by_instruments();
    by_fields();
    by_backlog();
    return 0;
}
