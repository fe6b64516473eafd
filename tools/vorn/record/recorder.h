#pragma once

// The two kinds of recording: every frame into a capture, or every update into the recorder's CSV.
// Either way the feed's threads pay a copy into a ring (frame_ring.h), and a thread of its own
// (writer_thread.h) does the rest; unless rows are written through, by the feed's thread itself.
//
// When a ring is full the card decides: one that runs by itself must not wait, so what came is
// counted as lost; one that moves only as it is read waits without harm, so the feed's thread does
// and nothing is lost.

#include "tools/vorn/feed/card_tap.h"
#include "tools/vorn/record/decode_wrapper.h"
#include "tools/vorn/record/frame_order.h"
#include "tools/vorn/record/frame_ring.h"
#include "tools/vorn/record/record_files.h"
#include "tools/vorn/record/writer_thread.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

namespace vorn_cli {

struct RecorderOptions {
    std::size_t ring_bytes = std::size_t{32} << 20; // of each ring
    bool in_step = false;                           // see works_in_step()
    int feed_cpu = -1;
    bool write_through = false; // rows only: each is in the file before the feed goes on
};

struct RecorderCounts {
    uint64_t records = 0; // in the files
    uint64_t bytes = 0;
    uint64_t lost_in_ring = 0;
    uint64_t lost_on_disk = 0;
    std::vector<std::string> files;
    std::string trouble; // with the disk, the first; empty if there was none
    bool unnamed = false;
    uint64_t lost() const { return lost_in_ring + lost_on_disk; }
};

// What the subcommand tells a recorder of either kind. Calls on the feed's caller thread.
class Recorder {
public:
    Recorder() = default;
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    virtual ~Recorder() = default;

    virtual FrameKeeper* frame_keeper() = 0;
    virtual void on_update(const instrument&) {}
    virtual void on_phase(FeedPhase) {}
    virtual void on_first_update(uint64_t /*later_buffers*/) {}

    // After the feed has returned: brings everything to disk and gives the files their names. An
    // empty recording is removed unless `keep_empty`.
    virtual RecorderCounts finish(bool keep_empty) = 0;
};

// `files` stands open; throws Failure only from making threads and rings.
std::unique_ptr<Recorder> make_frame_recorder(std::unique_ptr<RecordFiles> files,
                                              const DecodeWrapper& wrapper,
                                              const RecorderOptions& options);
std::unique_ptr<Recorder> make_row_recorder(std::unique_ptr<RecordFiles> files,
                                            const RecorderOptions& options);

} // namespace vorn_cli
