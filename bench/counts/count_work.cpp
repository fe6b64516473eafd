// Does one kind of work a fixed number of times inside bench_measured(), so that a tool which
// counts instructions can be told to count that function only.
//
//   count_work live|replay|cache|frames

#include "bench/harness/stand_in_card.h"
#include "bench/reference/feed_parts.h"
#include "bench/reference/live_stream.h"
#include "bench/reference/snapshot_round.h"

#include "CommonLog.h"

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

// Found by its name.
extern "C" __attribute__((noinline)) void bench_measured(const std::function<void()>& work) {
    work();
    asm volatile("" ::: "memory"); // not a tail call
}

namespace {

using namespace bench;

constexpr uint32_t kMessages = 20'000;
constexpr uint32_t kInstruments = 800;

int count_incremental(const std::string& what) {
    IncrementalFeed feed(kInstruments);
    const FrameList frames = make_live_stream(kInstruments, kMessages);
    serve(frames);
    const auto live = [&] {
        for (uint32_t n = 0; n < kMessages; ++n) {
            if (feed.channel->UdpRecv() == RET_TO_CALLBACK) {
                feed.call_back();
            }
        }
    };
    const auto cache = [&] {
        for (uint32_t n = 0; n < kMessages; ++n) {
            feed.channel->CachePacket();
        }
    };
    const auto replay = [&] {
        while (feed.cache.cachedCount > 0) {
            feed.channel->CachePacket();
            if (feed.channel->ProcessCached() == RET_TO_CALLBACK) {
                feed.call_back();
            }
        }
    };
    if (what == "live") {
        bench_measured(live);
    } else if (what == "cache") {
        bench_measured(cache);
    } else {
        cache();
        bench_measured(replay);
    }
    return 0;
}

int count_frames() {
    const FrameList frames = snapshot_round(kInstruments);
    SnapshotFeed feed;
    std::vector<std::vector<char>> blocks = blocks_of(frames);
    feed.channel->_Cleandata();
    bench_measured([&] {
        for (std::size_t i = 0; i < blocks.size(); ++i) {
            feed.channel->_PacketHandler(blocks[i].data(), static_cast<unsigned>(frames.length(i)));
        }
    });
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string what = argc == 2 ? argv[1] : "";
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(3));
    if (what == "live" || what == "replay" || what == "cache") {
        return count_incremental(what);
    }
    if (what == "frames") {
        return count_frames();
    }
    std::fprintf(stderr, "usage: count_work live|replay|cache|frames\n");
    return 2;
}
