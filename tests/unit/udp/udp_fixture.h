#pragma once

// The incremental channel with everything that the run loop would hand it: an instrument table, a
// price table, a configuration, the scripted card's register window and its decode port.

#include "CommonLog.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_card.h"
#include "udp/ExanicUdpFunc.h"
#include "wirekit/mirp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace udp_test {

constexpr uint16_t kShfe2psTopic = 1000;
constexpr uint16_t kShfe4psTopic = 1101;
constexpr uint16_t kIne2psTopic = 5000;
constexpr uint16_t kIne4psTopic = 5101;

constexpr uint32_t kNoSlot = 0xDEADBEEF; // curInstNo before a message; a slot is below 20480
constexpr uint32_t kSnapTimeWord = 12;

// The instrument that most tests speak about: an SHFE future, alone on its slot.
constexpr uint32_t kNumber = 17;
constexpr uint32_t kSlot = 17;
constexpr uint32_t kChangeNo = 7; // of the last change that its record has

constexpr uint32_t kTime = 93000;
constexpr uint16_t kMillisec = 500;
constexpr int32_t kPacketNo = 4711;

// What one message left behind.
struct Outcome {
    int32_t result = 0;
    uint32_t slot = kNoSlot;                    // kNoSlot: curInstNo was not written
    std::vector<uint32_t> changed;              // slots whose record differs from before
    std::vector<support::RegisterStore> stores; // into the register window, in order
    std::vector<std::string> log;               // "E ExanicUdpFunc _ParseMirp text"
};

// Lines of the outcome at one of the levels, e.g. "EW".
std::vector<std::string> at_levels(const Outcome& outcome, const std::string& levels);

// Equal in all 336 bytes; names the members that differ.
::testing::AssertionResult same_record(const instrument& expected, const instrument& actual);

// A record in the middle of a trading day: every member has a value of its own, ten levels a side,
// best bid 100 and best ask 101, one price unit between levels.
instrument lived_in_record(const std::string& inst_id, uint32_t change_no = kChangeNo);

void set_id(instrument& record, const std::string& inst_id);
double next_below(double value);
double next_above(double value);

class UdpTest : public ::testing::Test {
protected:
    UdpTest();

    // Puts a lived-in record on a slot, with prices in ticks of `tick` from `codec_price`.
    instrument& subscribe(uint32_t slot, const std::string& inst_id, double tick = 1.0,
                          double codec_price = 0.0, int32_t volume_multiple = 1);

    // A message of kNumber with the next change number, header only.
    static wirekit::DecodeBufferBuilder message();

    // Decodes from a heap block of exactly the message's size, so that the sanitizer sees a read
    // behind it. Captures the log at every level.
    Outcome parse(const wirekit::Bytes& bytes);
    Outcome parse(const wirekit::DecodeBufferBuilder& builder) { return parse(builder.bytes()); }

    // Any call on the channel, watched in the same way.
    template <typename Call>
    Outcome watch(Call&& call) {
        begin_watch();
        Outcome outcome;
        {
            support::LogCapture capture(31);
            outcome.result = call();
            outcome.log = capture.summary();
        }
        end_watch(outcome);
        return outcome;
    }

    instrument& record(uint32_t slot = kSlot) { return table_->instmts[slot]; }

    ExanicMdConfigData config_;
    std::unique_ptr<share> table_;
    std::unique_ptr<PriceCalcInfo> calc_;
    CacheBufInfo cache_{};
    uint32_t cur_inst_no_ = 0;
    CExanicUdpFunc udp_;

private:
    void begin_watch();
    void end_watch(Outcome& outcome);

    std::unique_ptr<share> before_;
};

} // namespace udp_test
