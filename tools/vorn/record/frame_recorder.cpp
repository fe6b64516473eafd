#include "tools/vorn/record/pcap_format.h"
#include "tools/vorn/record/put_or_count.h"
#include "tools/vorn/record/recorder.h"

#include <algorithm>
#include <array>

namespace vorn_cli {

namespace {

// Of an entry; a raw frame has the number of its cycle above it.
enum Kind : uint32_t { kRaw = 1, kDecode, kPhase, kFirstUpdate };
constexpr unsigned kKindBits = 8;

constexpr std::size_t kSmallestUsable = 24;
constexpr std::chrono::milliseconds kTick{20};

class FrameRecorder final : public Recorder, private FrameKeeper {
public:
    FrameRecorder(std::unique_ptr<RecordFiles> files, const DecodeWrapper& wrapper,
                  const RecorderOptions& options)
        : options_(options), files_(std::move(files)), wrapper_(wrapper),
          decode_ring_(options.ring_bytes), raw_ring_(options.in_step ? 0 : options.ring_bytes),
          order_([this](uint64_t time_ns, std::span<const char> frame) { write(time_ns, frame); }),
          writer_(options.feed_cpu, [this] { return work(); }) {}

    FrameKeeper* frame_keeper() override { return this; }

    void on_phase(FeedPhase phase) override {
        if (phase == FeedPhase::kBringUp) {
            cycle_.fetch_add(1, std::memory_order_relaxed); // nobody reads raw frames now
        }
        const char byte = static_cast<char>(phase);
        tell(kPhase, {&byte, 1});
    }
    void on_first_update(uint64_t later_buffers) override {
        tell(kFirstUpdate, {reinterpret_cast<const char*>(&later_buffers), sizeof(later_buffers)});
    }

    RecorderCounts finish(bool keep_empty) override {
        writer_.stop();
        order_.finish();
        files_->close(keep_empty);
        return {files_->records(), files_->bytes(), raw_lost_.load() + decode_lost_.load(),
                files_->lost(),    files_->names(), files_->trouble(),
                files_->unnamed()};
    }

private:
    // The feed's threads.
    bool in_step() const override { return options_.in_step; }
    // In step the paths are polled one at a time, so that one ring has one producer at a time and
    // keeps the order of both.
    void keep_raw(std::span<const char> frame, uint64_t time_ns) override {
        FrameRing& ring = options_.in_step ? decode_ring_ : raw_ring_;
        const uint32_t kind = kRaw | cycle_.load(std::memory_order_relaxed) << kKindBits;
        put_or_count(ring, kind, time_ns, frame, options_.in_step, raw_lost_);
    }
    void keep_decode(std::span<const char> buffer, uint64_t time_ns) override {
        put_or_count(decode_ring_, kDecode, time_ns, buffer, options_.in_step, decode_lost_);
    }
    // In step there is nothing to arrange, and the other path may be using the ring.
    void tell(uint32_t kind, std::span<const char> what) {
        if (!options_.in_step) {
            decode_ring_.push_urgent(kind, what);
        }
    }

    // The writer.
    bool work() {
        std::size_t taken = 0;
        if (options_.in_step) {
            taken = decode_ring_.drain([this](const FrameRing::Entry& entry) {
                write(entry.time_ns,
                      entry.kind == kDecode ? wrapper_.wrap(entry.bytes) : entry.bytes);
                return true;
            });
        } else {
            taken = decode_ring_.drain([this](const FrameRing::Entry& entry) {
                take(entry);
                return true;
            });
            // Behind it: the end of the snapshot phase is told only when its last raw frame has
            // been put in, so take() may have to look there itself.
            taken += take_raw();
            const auto now = std::chrono::steady_clock::now();
            if (now - last_tick_ >= kTick) {
                last_tick_ = now;
                order_.tick();
            }
        }
        files_->flush_if_due();
        return taken != 0;
    }
    // Those of the cycle that the decode path has come to.
    std::size_t take_raw() {
        return raw_ring_.drain([this](const FrameRing::Entry& entry) {
            if (entry.kind != (kRaw | written_cycle_ << kKindBits)) {
                return false;
            }
            order_.raw(entry.time_ns, entry.bytes);
            return true;
        });
    }
    void take(const FrameRing::Entry& entry) {
        if (entry.kind == kDecode) {
            const bool usable =
                entry.bytes.size() >= kSmallestUsable && entry.bytes.size() <= RECV_BUF_SIZE;
            order_.decode(entry.time_ns, wrapper_.wrap(entry.bytes), usable);
            return;
        }
        take_raw(); // what the feed tells is about these
        if (entry.kind == kFirstUpdate) {
            uint64_t later = 0;
            std::copy(entry.bytes.begin(), entry.bytes.end(), reinterpret_cast<char*>(&later));
            order_.first_update(later);
            return;
        }
        switch (static_cast<FeedPhase>(entry.bytes[0])) {
        case FeedPhase::kBringUp:
            order_.cycle_begins();
            ++written_cycle_;
            break;
        case FeedPhase::kReplay:
            order_.snapshot_over();
            break;
        case FeedPhase::kLive:
            order_.live();
            break;
        default:
            break;
        }
    }
    void write(uint64_t time_ns, std::span<const char> frame) {
        last_time_ns_ = std::max(last_time_ns_, time_ns); // a capture's time does not fall
        append_pcap_record(files_->begin_record(last_time_ns_), last_time_ns_, frame);
        files_->end_record();
    }

    const RecorderOptions options_;
    std::unique_ptr<RecordFiles> files_;
    DecodeWrapper wrapper_;
    FrameRing decode_ring_; // both paths when in step
    FrameRing raw_ring_;
    std::atomic<uint32_t> cycle_{0};
    uint32_t written_cycle_ = 0;
    std::atomic<uint64_t> raw_lost_{0};
    std::atomic<uint64_t> decode_lost_{0};
    FrameOrder order_;
    uint64_t last_time_ns_ = 0;
    std::chrono::steady_clock::time_point last_tick_{};
    WriterThread writer_; // last: it uses all of the above
};

} // namespace

std::unique_ptr<Recorder> make_frame_recorder(std::unique_ptr<RecordFiles> files,
                                              const DecodeWrapper& wrapper,
                                              const RecorderOptions& options) {
    return std::make_unique<FrameRecorder>(std::move(files), wrapper, options);
}

} // namespace vorn_cli
