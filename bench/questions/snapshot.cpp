// G6, first half: a raw frame of a snapshot, checked, put in order, split and decoded.
// G11: a full snapshot of 20,480 instruments from the card to "completed", with the hand-over to
// the worker, as the snapshot decoder thread runs it.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"
#include "bench/harness/stand_in_card.h"
#include "bench/reference/literal_snapshot.h"
#include "bench/reference/literal_worker.h"
#include "bench/reference/snapshot_round.h"

#include "CommonLog.h"

#include <cstring>
#include <memory>
#include <sched.h>
#include <vector>

namespace {

using namespace bench;

uint64_t hash_of(const Market& market) {
    return hash_bytes(&market, sizeof(market));
}

// Frames one by one on this thread.
void ask_frames() {
    const FrameList frames = snapshot_round(800);
    std::vector<std::vector<char>> blocks = blocks_of(frames);
    SnapshotFeed feed;
    const auto market = std::make_unique<Market>();
    LiteralSnapshot literal(*market, registers());
    Contest contest;
    contest.operations = frames.size();
    contest.rounds = 31;
    const Times times = run_contest(
        contest, {{"vorn", [&] { feed.channel->_Cleandata(); },
                   [&] {
                       for (std::size_t i = 0; i < blocks.size(); ++i) {
                           feed.channel->_PacketHandler(blocks[i].data(),
                                                        static_cast<unsigned>(frames.length(i)));
                       }
                   },
                   [&] { return hash_of(*feed.market); }},
                  {"literal", [&] { literal.clean(); },
                   [&] {
                       for (std::size_t i = 0; i < blocks.size(); ++i) {
                           literal.handle(blocks[i].data(),
                                          static_cast<uint32_t>(frames.length(i)));
                       }
                   },
                   [&] { return hash_of(*market); }}});
    report_figure("G6", "vorn", "snapshot frame", times.ns("vorn"), "ns");
    report_figure("G6", "literal", "snapshot frame", times.ns("literal"), "ns");
    report_goal({"G6", "snapshot frame", times.ratio("literal", "vorn"), Better::kLarger, 3, 6});
}

// From the card to "completed".
void ask_whole() {
    const FrameList frames = snapshot_round(20'480);
    SnapshotFeed feed;
    const auto market = std::make_unique<Market>();
    LiteralSnapshot literal(*market, registers());
    exanic_rx_t* const rx = exanic_acquire_rx_buffer(nullptr, 1, 0);
    char received[RECV_BUF_SIZE];

    const auto literal_run = [&] {
        literal.clean();
        LiteralWorker worker;
        while (literal.finished() != feed.enabled.mask) {
            const ssize_t size = exanic_receive_frame(rx, received, sizeof(received), nullptr);
            if (size <= 0) {
                sched_yield();
                continue;
            }
            const auto length = static_cast<uint32_t>(size);
            std::unique_ptr<char[]> frame(new char[length + DECODE_SLACK]());
            std::memcpy(frame.get(), received, length);
            worker.enqueue([&literal, frame = std::move(frame), length] {
                literal.handle(frame.get(), length);
            });
        }
    };
    const auto reset = [&] { serve(frames); };
    Contest contest;
    contest.operations = 1;
    contest.rounds = 9;
    const Times times =
        run_contest(contest, {{"vorn", reset,
                               [&] {
                                   feed.channel->StartRunning();
                                   feed.channel->RunTcpDecoder();
                               },
                               [&] { return hash_of(*feed.market); }},
                              {"literal", reset, literal_run, [&] { return hash_of(*market); }}});
    report_figure("G11", "vorn", "20480 instruments", times.ns("vorn") / 1e6, "ms");
    report_figure("G11", "literal", "20480 instruments", times.ns("literal") / 1e6, "ms");
    report_goal({"G11", "full snapshot of 20480 instruments", times.ratio("literal", "vorn"),
                 Better::kLarger, 3, 6});
}

} // namespace

int main() {
    report_run("snapshot", pin_to_one_processor());
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(3)); // not when a snapshot ends
    ask_frames();
    ask_whole();
    return 0;
}
