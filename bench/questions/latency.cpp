// G3: how evenly one message is handled. Each call is fenced and timed alone; record and message
// are in the caches.

#include "bench/harness/contest.h"
#include "bench/harness/fenced_clock.h"
#include "bench/harness/report.h"
#include "bench/reference/feed_parts.h"
#include "bench/reference/live_stream.h"

#include "CommonLog.h"

#include <algorithm>
#include <vector>

namespace {

using namespace bench;

constexpr uint32_t kMessages = 200'000;
constexpr uint32_t kInstruments = 8; // their records stay in the first-level cache
constexpr int kRounds = 11;

} // namespace

int main() {
    report_run("latency", pin_to_one_processor());
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(7));
    const double scale = ticks_per_ns();
    IncrementalFeed feed(kInstruments);
    const FrameList frames = make_live_stream(kInstruments, kMessages);

    std::vector<double> ratios;
    std::vector<double> p50s, p99s, p999s, highest;
    for (int round = -1; round < kRounds; ++round) {
        feed.reset();
        serve(frames);
        std::vector<double> times(kMessages);
        for (uint32_t n = 0; n < kMessages; ++n) {
            warm_next();
            const uint64_t begin = fenced_now();
            if (feed.channel->UdpRecv() == RET_TO_CALLBACK) {
                feed.call_back();
            }
            times[n] = static_cast<double>(fenced_now() - begin) / scale;
        }
        if (round < 0) {
            continue;
        }
        std::sort(times.begin(), times.end());
        p50s.push_back(quantile(times, 0.5));
        p99s.push_back(quantile(times, 0.99));
        p999s.push_back(quantile(times, 0.999));
        highest.push_back(times.back());
        ratios.push_back(p99s.back() / p50s.back());
    }
    report_figure("G3", "p50", "one message", median(p50s), "ns");
    report_figure("G3", "p99", "one message", median(p99s), "ns");
    report_figure("G3", "p99.9", "one message", median(p999s), "ns");
    report_figure("G3", "max", "one message", median(highest), "ns");
    report_goal({"G3", "p99 against p50", median(ratios), Better::kSmaller, 4, 2.5});
    return 0;
}
