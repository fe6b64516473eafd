#include "tools/vorn/record/csv_row.h"
#include "tools/vorn/record/put_or_count.h"
#include "tools/vorn/record/recorder.h"

#include <algorithm>
#include <cstring>

namespace vorn_cli {

namespace {

RecorderCounts counts_of(const RecordFiles& files, uint64_t lost_in_ring) {
    return {files.records(), files.bytes(),   lost_in_ring,   files.lost(),
            files.names(),   files.trouble(), files.unnamed()};
}

// Every update as a row. The record is copied into the ring as it is: formatting takes far longer
// than a copy and is the writer's.
class RowRecorder final : public Recorder, private FrameKeeper {
public:
    RowRecorder(std::unique_ptr<RecordFiles> files, const RecorderOptions& options)
        : options_(options), files_(std::move(files)), ring_(options.ring_bytes),
          writer_(options.feed_cpu, [this] { return work(); }) {}

    FrameKeeper* frame_keeper() override { return this; }

    void on_update(const instrument& record) override {
        put_or_count(ring_, 0, time_ns_, {reinterpret_cast<const char*>(&record), sizeof(record)},
                     options_.in_step, lost_);
    }

    RecorderCounts finish(bool keep_empty) override {
        writer_.stop();
        files_->close(keep_empty);
        return counts_of(*files_, lost_.load());
    }

private:
    // Rows have no time of their own for the rotation; they take that of the buffer before.
    bool in_step() const override { return false; }
    void keep_raw(std::span<const char>, uint64_t) override {}
    void keep_decode(std::span<const char>, uint64_t time_ns) override { time_ns_ = time_ns; }

    bool work() {
        const std::size_t taken = ring_.drain([this](const FrameRing::Entry& entry) {
            instrument record;
            std::memcpy(&record, entry.bytes.data(), sizeof(record));
            last_time_ns_ = std::max(last_time_ns_, entry.time_ns);
            append_csv_row(files_->begin_record(last_time_ns_), record);
            files_->end_record();
            return true;
        });
        files_->flush_if_due();
        return taken != 0;
    }

    const RecorderOptions options_;
    std::unique_ptr<RecordFiles> files_;
    FrameRing ring_;
    std::atomic<uint64_t> lost_{0};
    uint64_t time_ns_ = 0;      // the feed's thread
    uint64_t last_time_ns_ = 0; // the writer
    WriterThread writer_;       // last: it uses all of the above
};

// Every update as a row that is in the file before the feed goes on: one write a row, no ring and
// no thread. What a process that is killed has told of is in the file.
class WriteThroughRecorder final : public Recorder, private FrameKeeper {
public:
    explicit WriteThroughRecorder(std::unique_ptr<RecordFiles> files) : files_(std::move(files)) {}

    FrameKeeper* frame_keeper() override { return this; }

    void on_update(const instrument& record) override {
        append_csv_row(files_->begin_record(time_ns_), record);
        files_->end_record();
        files_->flush();
    }

    RecorderCounts finish(bool keep_empty) override {
        files_->close(keep_empty);
        return counts_of(*files_, 0);
    }

private:
    bool in_step() const override { return false; }
    void keep_raw(std::span<const char>, uint64_t) override {}
    void keep_decode(std::span<const char>, uint64_t time_ns) override {
        time_ns_ = std::max(time_ns_, time_ns);
    }

    std::unique_ptr<RecordFiles> files_;
    uint64_t time_ns_ = 0; // of the buffer that the row is made from
};

} // namespace

std::unique_ptr<Recorder> make_row_recorder(std::unique_ptr<RecordFiles> files,
                                            const RecorderOptions& options) {
    if (options.write_through) {
        return std::make_unique<WriteThroughRecorder>(std::move(files));
    }
    return std::make_unique<RowRecorder>(std::move(files), options);
}

} // namespace vorn_cli
