#pragma once

// The snapshot channel for fuzz targets: one channel on one table for the life of the process,
// driven frame by frame on the target's thread, and put back after each input by undoing only what
// an input can have touched. A record is written only once a dictionary entry has given it an
// identifier, and every such entry raises a count of the table to beyond its number and writes the
// slot's price step, which the channel never reads: below the counts, a step that is not the one
// that the rig has put there tells the slots. The sessions touched are those of the frames' local
// ports.
//
// A clean writes 11 MB and walks 65536 sessions, and a price check copies every record below the
// counts. The linker puts stand-ins of the same effect in their place (--wrap) unless an input asks
// for the real ones, so that a campaign makes some ten thousand inputs a second.

#include "ExanicMdTypes.h"
#include "tcp/ExanicTcpFunc.h"

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace fuzz {

inline constexpr uint16_t kMd2psPort = 33022;
inline constexpr uint16_t kMd4psPort = 22000;
inline constexpr int16_t kTopics[] = {1000, 5000, 1101, 5101}; // by EMdqpDataType

class SnapshotRig {
public:
    static SnapshotRig& instance();

    // First byte of every input: bit 0 recovery, 1 options not handled, 2 a list of instruments
    // instead of all, 3 failing books are kept, 4 and 5 both: everything is logged, 6 all four
    // feeds instead of two, 7 the first few cleans and price checks are the real ones, in
    // a replay always, while fuzzing now and then.
    void begin(uint8_t control);
    // What the worker does with a received frame; sizes that are never received are ignored.
    void frame(std::span<const uint8_t> bytes);
    // Whole messages as reassembly hands them over; a last one that is cut short is left out.
    void messages(std::span<const uint8_t> bytes, EMdqpDataType type, uint16_t port);
    // Checks what must hold, and puts everything back.
    void end();

    TcpSession& session(uint16_t port) { return core_->m_sessions[port]; }
    CExanicTcpFunc& core() { return *core_; }
    share& table() { return *table_; }

    void clean();          // what stands for _Cleandata
    int32_t check_books(); // what stands for ShfePriceCheck

private:
    SnapshotRig();
    void use_port(uint16_t port);
    template <typename Action>
    void for_each_known(Action action);
    void clear_table();
    void forget_steps();
    bool is_real_call();
    void check_session(const TcpSession& session) const;
    void check_table() const;
    void check_all_clear() const;

    ExanicMdConfigData config_;
    std::unique_ptr<share> table_;
    std::unique_ptr<PriceCalcInfo> calc_;
    UEnableMask enabled_{};
    UEnableMask finished_{};
    std::vector<uint32_t> registers_;
    std::unique_ptr<CExanicTcpFunc> core_;
    std::vector<uint16_t> ports_; // whose sessions this input may have touched
    std::size_t delivered_ = 0;   // bytes of its frames
    bool real_wanted_ = false;    // by this input, which has not come to such a call yet
    int real_left_ = 0;           // calls that still go to the real clean and price check
};

} // namespace fuzz
