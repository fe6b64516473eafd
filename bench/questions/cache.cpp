// G4: a replayed entry against a live message. G5: caching a frame against a bare copy of it.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"
#include "bench/reference/feed_parts.h"
#include "bench/reference/live_stream.h"

#include "CommonLog.h"

#include <cstring>

namespace {

using namespace bench;

constexpr uint32_t kMessages = 200'000;

void ask(uint32_t instruments) {
    IncrementalFeed feed(instruments);
    const FrameList frames = make_live_stream(instruments, kMessages);
    const std::string name = std::to_string(instruments) + " instruments";

    const auto live = [&] {
        for (uint32_t n = 0; n < kMessages; ++n) {
            if (feed.channel->UdpRecv() == RET_TO_CALLBACK) {
                feed.call_back();
            }
        }
    };
    // As the run loop does it: one poll, which finds nothing, and one entry in each pass.
    const auto replay = [&] {
        while (feed.cache.cachedCount > 0) {
            feed.channel->CachePacket();
            if (feed.channel->ProcessCached() == RET_TO_CALLBACK) {
                feed.call_back();
            }
        }
    };
    const auto fill = [&] {
        for (uint32_t n = 0; n < kMessages; ++n) {
            feed.channel->CachePacket();
        }
    };
    const auto serve_afresh = [&] {
        feed.reset();
        serve(frames);
    };
    Contest contest;
    contest.operations = kMessages;
    const Times applied =
        run_contest(contest, {{"live", serve_afresh, live, [&] { return feed.hash(); }},
                              {"replay",
                               [&] {
                                   serve_afresh();
                                   fill();
                               },
                               replay, [&] { return feed.hash(); }}});
    report_figure("G4", "live", name, applied.ns("live"), "ns");
    report_figure("G4", "replay", name, applied.ns("replay"), "ns");
    report_goal({"G4", name, applied.ratio("replay", "live"), Better::kSmaller, 1.1, 1.0});

    // The least that keeping a frame takes: receive it, copy it behind the one before.
    exanic_rx_t* const rx = exanic_acquire_rx_buffer(nullptr, 0, 0);
    char received[RECV_BUF_SIZE];
    std::size_t at = 0;
    const auto copy = [&] {
        for (uint32_t n = 0; n < kMessages; ++n) {
            const ssize_t size = exanic_receive_frame(rx, received, sizeof(received), nullptr);
            if (size > 0) {
                std::memcpy(feed.cache.pCacheBuf + at, received, static_cast<std::size_t>(size));
                at += static_cast<std::size_t>(size);
            }
        }
    };
    const Times kept = run_contest(contest, {{"cache", serve_afresh, fill, {}},
                                             {"copy",
                                              [&] {
                                                  serve_afresh();
                                                  at = 0;
                                              },
                                              copy,
                                              {}}});
    report_figure("G5", "cache", name, kept.ns("cache"), "ns");
    report_figure("G5", "copy", name, kept.ns("copy"), "ns");
    report_goal({"G5", name, kept.ratio("cache", "copy"), Better::kSmaller, 3, 2});
}

} // namespace

int main() {
    report_run("cache", pin_to_one_processor());
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(7));
    ask(800);
    return 0;
}
