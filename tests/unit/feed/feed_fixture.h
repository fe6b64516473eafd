#pragma once

// Runs vorn_recv on the scripted card through whole cycles. The script is driven from the polls of
// the decode port, that is on the caller's thread, so that every frame arrives at a known pass of a
// known loop; nothing here depends on how fast anything runs.

#include "ExanicMdImpl.h"
#include "snapshot_frames.h"
#include "system_calls.h"
#include "tests/support/bring_up.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_card.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <sched.h>
#include <string>
#include <thread>
#include <vector>

using support::RegisterStore;
using support::ScriptedCard;
using wirekit::Bytes;

// One bring-up and what the card delivers after it.
struct Cycle {
    // Decode buffers that are cached before the first raw frame is delivered.
    std::vector<Bytes> cached;
    std::vector<Bytes> snapshot; // raw frames
    // Decode buffers after the snapshot, one a poll; an empty one answers "nothing there".
    std::vector<Bytes> after;
};

// One call of the callback.
struct Update {
    uint32_t slot;
    instrument record;
    std::thread::id thread;
};

class FeedFixture {
public:
    FeedFixture();
    ~FeedFixture();
    FeedFixture(const FeedFixture&) = delete;
    FeedFixture& operator=(const FeedFixture&) = delete;

    // Writes `config`, runs the feed with the log captured and returns its result. The run flag
    // drops once the last cycle's frames have all been handled. After a failure the buffers that
    // the feed leaves allocated are freed, so that a program of many such tests stays small.
    int run();
    void stop();

    ScriptedCard& card = ScriptedCard::instance();
    support::TempDir dir;
    std::string config_path;
    std::string config; // content of the file
    std::vector<Cycle> cycles;
    int keep_running = 1;
    int log_mask_before = 1; // the feed itself raises it
    bool endless = false;    // the run flag drops only when the test drops it

    // Called on the caller's thread at each poll of the decode port, before the script goes on.
    // `loading`: the snapshot phase; `poll`: number within the phase, from 1.
    std::function<void(std::size_t cycle, bool loading, uint64_t poll)> at_poll;
    // Called on the decoder thread at each poll of the raw port.
    std::function<void(uint64_t poll)> at_raw_poll;
    // Called by the callback, after the update was kept.
    std::function<void(instrument*)> at_update;

    std::vector<Update> updates;
    std::vector<std::string> log; // as LogCapture::summary()
    int log_mask_after = 0;
    const support::LogCapture* capture() const { return capture_.get(); } // while running

    // Phases seen: the number of polls of the decode port in each.
    struct Phase {
        std::size_t cycle;
        bool loading;
        uint64_t polls;
        bool operator==(const Phase&) const = default;
    };
    std::vector<Phase> phases;

    // The instrument table of the running feed.
    share* table() const;
    int cpu() const { return cpu_; }

    // Log lines at the given levels.
    std::vector<std::string> log_at(const std::string& levels) const;
    // The lines of an undisturbed cycle, up to "initialization completed", at levels EWI.
    std::vector<std::string> cycle_log(const std::string& mask,
                                       const std::vector<std::string>& finished) const;

private:
    static void on_update(instrument* record);
    void on_decode_poll();

    static FeedFixture* current_;
    std::unique_ptr<support::LogCapture> capture_;
    cpu_set_t affinity_;
    int cpu_ = 0;
    int step_ = 0; // of the current cycle's script
};

// A configuration that enables both exchanges and subscribes to both instruments; `more` goes
// behind it.
std::string config_text(int cpu, const std::string& more = "");
std::string shfe_config(int cpu, const std::string& more = "");

// Decode buffers without any field: they stamp the record with time and change number.
Bytes shfe_stamp(uint32_t change_no, uint32_t time = 0);
Bytes ine_stamp(uint32_t change_no, uint32_t time = 0);

// What every run begins with.
inline constexpr char kVersionLine[] =
    "I ExanicMdImpl vorn_recv software version: Aug 18 2026 15:02:36 Shfe V2.1.1.12";

// The groups and ports of config_text().
extern const std::vector<RegisterStore> kShfeLines;
extern const std::vector<RegisterStore> kIneLines;
using Lines = std::vector<std::string>;
using Stores = std::vector<RegisterStore>;
using Buffers = std::vector<Bytes>;

// One list behind the other.
template <typename Item, typename... More>
std::vector<Item> joined(std::vector<Item> first, const More&... more) {
    (first.insert(first.end(), more.begin(), more.end()), ...);
    return first;
}

// Every field of the record on a line of its own.
std::string describe(const instrument& record);

// Byte for byte, with a readable difference.
void expect_record(const instrument& actual, const instrument& expected);
