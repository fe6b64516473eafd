// Whole runs of the feed's entry. The script is driven from the polls of the decode port, that is
// on the caller's thread, so that every frame arrives at a known pass of a known loop; the raw port
// gets all frames of a cycle once the decode buffers before them have been cached.

#include "stage.h"

#include "ExanicMdImpl.h"
#include "tests/unit/feed/system_calls.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exanic/fifo_rx.h>
#include <new>
#include <sched.h>

namespace differential {
namespace {

constexpr char kFile[] = "scenario.ini";
constexpr auto kPatience = std::chrono::minutes(10); // a run that hangs, not one that waits

enum class Loading : uint8_t {
    kCompletes, // the frames complete the snapshot
    kStopped,   // the run flag drops once all frames are taken
    kOutOfTime, // the clock runs from then on
};

struct Cycle {
    std::vector<Bytes> cached;
    std::vector<Bytes> frames;
    std::vector<Bytes> after;
    Loading loading = Loading::kCompletes;
};

std::vector<Bytes> read_list(Reader& scenario) {
    std::vector<Bytes> list(scenario.get<uint32_t>());
    for (Bytes& each : list) {
        each = scenario.bytes();
    }
    return list;
}

class Run {
public:
    Run(Stage& stage, Trace& trace) : stage_(stage), trace_(trace) {}

    void go(Reader& scenario) {
        const Bytes content = scenario.bytes();
        refuse(stage_.card, scenario.get<uint8_t>());
        cycles_.resize(scenario.get<uint32_t>());
        for (Cycle& cycle : cycles_) {
            cycle.cached = read_list(scenario);
            cycle.frames = read_list(scenario);
            cycle.after = read_list(scenario);
            cycle.loading = scenario.get<Loading>();
        }
        std::FILE* file = std::fopen(kFile, "wb");
        std::fwrite(content.data(), 1, content.size(), file);
        std::fclose(file);
        run();
    }

private:
    void run() {
        system_calls::reset();
        system_calls::set_wall_clock(clock_);
        current_ = this;
        set_update_md_callback(&Run::on_update);
        stage_.card.on_poll(
            [this](int port, uint64_t) { port == 0 ? on_decode_poll() : on_raw_poll(); });
        cpu_set_t affinity;
        ::sched_getaffinity(0, sizeof affinity, &affinity);
        char path[] = "scenario.ini";
        int result = 0;
        {
            const support::LogCapture capture(31);
            result = ::vorn_recv(path, &keep_running_);
            trace_.item('e', result);
            trace_log(trace_, capture.lines());
        }
        ::sched_setaffinity(0, sizeof affinity, &affinity);
        stage_.card.on_poll(nullptr);
        stage_.trace_stores(trace_);
        for (const std::string& call : stage_.card.calls()) {
            trace_.begin('q');
            trace_.append(call.data(), call.size());
            trace_.end();
        }
        if (result == -1) { // the feed leaves its buffers allocated
            std::free(system_calls::take_block(sizeof(share)));
            ::operator delete[](system_calls::take_block(CACHE_BUF_SIZE));
        }
        system_calls::reset();
    }

    share* table() const {
        return static_cast<share*>(system_calls::allocation_of(sizeof(share)).block);
    }

    static void on_update(instrument* record) {
        current_->trace_.item('b', static_cast<uint32_t>(record - current_->table()->instmts),
                              *record);
    }

    void stop() { __atomic_store_n(&keep_running_, 0, __ATOMIC_RELAXED); }

    // Word 512 tells the phases apart: the raw path is open exactly while the snapshot is loaded.
    void on_decode_poll() {
        if (std::chrono::steady_clock::now() - begin_ > kPatience) {
            trace_.item('!');
            stop();
            return;
        }
        const bool loading = stage_.card.reg(512) == 1;
        if (loading != loading_) {
            loading_ = loading;
            cycle_ += loading ? 1 : 0;
            polls_ = 0;
            step_ = 0;
        }
        ++polls_;
        if (cycle_ > cycles_.size()) { // a gap in the last cycle
            stop();
            return;
        }
        const Cycle& cycle = cycles_[cycle_ - 1];
        loading ? load(cycle) : replay(cycle);
    }

    void load(const Cycle& cycle) {
        if (step_ == 0) {
            // What a gap left unread on the port belongs to this cycle now.
            buffers_ = stage_.card.left(0) + cycle.cached.size() + cycle.after.size();
            push(0, cycle.cached);
            step_ = 1;
        }
        if (step_ == 1 && stage_.card.left(0) == 0) {
            push(1, cycle.frames);
            step_ = 2;
        }
        if (step_ == 2 && cycle.loading != Loading::kCompletes && stage_.card.left(1) == 0) {
            if (cycle.loading == Loading::kStopped) {
                stop();
            } else {
                clock_runs_ = true;
            }
        }
    }

    void replay(const Cycle& cycle) {
        if (step_ == 0) {
            drop_raw_frames();
            push(0, cycle.after);
            step_ = 1;
        }
        // A pass of the replay handles one cached entry and a pass of the live loop one buffer, so
        // by this poll everything of this cycle has been handled.
        if (polls_ > buffers_) {
            const share& all = *table();
            trace_.item('n', all.shfe_inst_cnt, all.ine_inst_cnt, all.shfe_pktno, all.ine_pktno);
            trace_used_records(trace_, all, nullptr);
            stop();
        }
    }

    // How many frames behind a finished snapshot the decoder still took is chance; it is gone by
    // now.
    void drop_raw_frames() {
        char buffer[RECV_BUF_SIZE];
        while (stage_.card.left(1) > 0) {
            ::exanic_receive_frame(stage_.card.rx(1), buffer, sizeof buffer, nullptr);
        }
    }

    void push(int port, const std::vector<Bytes>& frames) {
        for (const Bytes& frame : frames) {
            if (frame.empty()) {
                stage_.card.push_nothing(port);
            } else {
                stage_.card.push(port, frame);
            }
        }
    }

    void on_raw_poll() { // decoder's thread
        if (clock_runs_) {
            clock_ += 121;
            system_calls::set_wall_clock(clock_);
        }
    }

    static Run* current_;
    Stage& stage_;
    Trace& trace_;
    std::vector<Cycle> cycles_;
    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    int keep_running_ = 1;
    bool loading_ = false;
    std::size_t cycle_ = 0; // from 1
    uint64_t polls_ = 0;
    uint64_t buffers_ = 0; // of this cycle, on their way or to come
    int step_ = 0;
    std::atomic<bool> clock_runs_{false};
    int64_t clock_ = 1000000;
};

Run* Run::current_ = nullptr;

} // namespace

void run_feed(Stage& stage, Reader& scenario, Trace& trace) {
    Run(stage, trace).go(scenario);
}

} // namespace differential
