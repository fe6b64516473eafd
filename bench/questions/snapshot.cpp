// G6, first half: a raw frame of a snapshot, checked, put in order, split and decoded.
// G11: a full snapshot of 20,480 instruments from the card to "completed", with the hand-over to
// the worker, as the snapshot decoder thread runs it.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"
#include "bench/harness/stand_in_card.h"
#include "bench/reference/feed_parts.h"
#include "bench/reference/literal_snapshot.h"
#include "bench/reference/literal_worker.h"

#include "CommonLog.h"
#include "exchange_sim/session.h"
#include "wirekit/bytes.h"

#include <cstring>
#include <memory>
#include <sched.h>
#include <vector>

namespace {

using namespace bench;

constexpr std::size_t kTcpPayload = 14 + 20 + 20;

// The frames of the server's side of one snapshot round of both exchanges.
FrameList round_of(uint32_t instruments) {
    exchange_sim::SessionOptions options;
    options.instruments = instruments;
    options.changes = 50'000;
    options.rounds = 1;
    exchange_sim::Session session(options);
    FrameList frames;
    for (exchange_sim::WireFrame frame; session.next(frame);) {
        const bool tcp = frame.bytes[23] == 6;
        const bool served = tcp && wirekit::get_be16(&frame.bytes[34]) == options.snapshot_port;
        if (served && frame.bytes.size() > kTcpPayload) {
            frames.add(frame.bytes.data(), frame.bytes.size());
        }
    }
    return frames;
}

// The snapshot channel of the feed on tables of its own.
struct Feed {
    std::unique_ptr<Market> market = std::make_unique<Market>();
    ExanicMdConfigData config = feed_config();
    UEnableMask enabled{};
    UEnableMask finished{};
    std::unique_ptr<CExanicTcpFunc> channel;

    Feed() {
        config.recvall = 1;
        config.md2ps_snap_port = 33022;
        config.md4ps_snap_port = 22000;
        config.timeout_cnt = 10;
        enabled.mask = MASK_SHFE_2PS | MASK_INE_2PS;
        channel = std::make_unique<CExanicTcpFunc>(config, &market->table, enabled, finished,
                                                   market->scale);
        channel->InitTcp(registers(), exanic_acquire_rx_buffer(nullptr, 1, 0));
    }
};

uint64_t hash_of(const Market& market) {
    return hash_bytes(&market, sizeof(market));
}

// Frames one by one on this thread.
void ask_frames() {
    const FrameList frames = round_of(800);
    // Each in a block of its own with zero bytes behind it, as the worker gets them.
    std::vector<std::vector<char>> blocks;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        blocks.emplace_back(frames.bytes(i), frames.bytes(i) + frames.length(i));
        blocks.back().resize(frames.length(i) + DECODE_SLACK);
    }
    Feed feed;
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
    const FrameList frames = round_of(20'480);
    Feed feed;
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
