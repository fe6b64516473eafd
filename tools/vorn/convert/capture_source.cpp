// Rows of a capture: the feed runs over it with a consumer that makes rows.

#include "tools/vorn/capture/capture_reader.h"
#include "tools/vorn/convert/row_sources.h"
#include "tools/vorn/feed/feed_run.h"
#include "tools/vorn/run_flag.h"

#include <exception>
#include <fmt/format.h>

namespace vorn_cli {

namespace {

// Everything that matters comes on the feed's caller thread.
class RowMaker final : public FeedWatcher, private FrameKeeper {
public:
    RowMaker(RowTaker& taker, uint64_t begin_ns) : taker_(taker), time_ns_(begin_ns) {
        vorn_md_set_event_callback(&RowMaker::on_event, this);
    }
    ~RowMaker() override { vorn_md_set_event_callback(nullptr, nullptr); }
    RowMaker(const RowMaker&) = delete;
    RowMaker& operator=(const RowMaker&) = delete;

    void on_update(const instrument& record, uint32_t slot) override {
        ResearchRow row = update_row(record, slot);
        row.receive_time_ns = time_ns_;
        if (phase_ != VORN_MD_PHASE_LIVE) {
            row.flags |= kRowReplay;
        }
        put(row);
    }
    FrameKeeper* frame_keeper() override { return this; }

    // What went wrong in a callback, which must not throw through the feed.
    void rethrow() const {
        if (error_) {
            std::rethrow_exception(error_);
        }
    }

private:
    bool in_step() const override { return false; } // the order of the raw frames is not looked at
    void keep_raw(std::span<const char>, uint64_t) override {}
    void keep_decode(std::span<const char>, uint64_t time_ns) override { time_ns_ = time_ns; }

    static void on_event(const vorn_md_event_t* event, void* context) {
        static_cast<RowMaker*>(context)->take_event(*event);
    }
    void take_event(const vorn_md_event_t& event) {
        phase_ = event.phase;
        ResearchRow row = event_row(event);
        row.receive_time_ns = time_ns_;
        put(row);
    }

    void put(const ResearchRow& row) {
        if (error_) {
            return;
        }
        try {
            taker_.put(row);
        } catch (...) {
            error_ = std::current_exception();
        }
        if (error_ || taker_.done()) {
            stop_run();
        }
    }

    RowTaker& taker_;
    uint64_t time_ns_; // of the decode buffer that came last
    uint32_t phase_ = VORN_MD_PHASE_STOPPED;
    std::exception_ptr error_;
};

uint64_t time_of_first_frame(const std::string& path) {
    CaptureReader reader(path);
    CaptureFrame frame;
    return reader.next(frame) ? frame.timestamp_ns : 0;
}

} // namespace

SourceEnd rows_of_capture(const std::string& path, const std::string& config, RowTaker& taker) {
    RowMaker maker(taker, time_of_first_frame(path));
    const FeedReport report = run_feed({config, path, 0}, maker);
    maker.rethrow();
    SourceEnd end;
    end.interrupted = report.interrupted && !taker.done();
    end.failed = report.result != 0 && !end.interrupted && !taker.done();
    if (end.failed) {
        end.remark = fmt::format("the feed gave up: {}", reason_of(report.log));
    }
    return end;
}

} // namespace vorn_cli
