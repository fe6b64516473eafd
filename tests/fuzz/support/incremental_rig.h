#pragma once

// The incremental channel for fuzz targets: one channel on a table of a dozen records that differ
// in what matters to the decoder, for the life of the process. After each input the records are put
// back; nothing else of the table may have changed.

#include "ExanicMdTypes.h"
#include "udp/ExanicUdpFunc.h"

#include <array>
#include <cstdint>
#include <memory>
#include <span>

namespace fuzz {

inline constexpr uint16_t kShfeTopic = 1000;
inline constexpr uint16_t kIneTopic = 5000;
inline constexpr std::size_t kSeededCount = 12;

class IncrementalRig {
public:
    static IncrementalRig& instance();

    // Bit 0: options are not handled, 4 and 5 both: everything is logged, 6 recovery.
    void begin(uint8_t control);
    // Slots of the seeded records; each has an exchange and a number there.
    static uint32_t slot(std::size_t index);
    static bool is_ine(std::size_t index) { return slot(index) >= SHFE_MAX_INST_CNT; }
    static uint32_t number(std::size_t index);
    const instrument& record(std::size_t index) const { return table_->instmts[slot(index)]; }

    // Puts a frame into the card's decode port.
    void arrive(std::span<const uint8_t> bytes);
    void arrive_status(int status);
    // Each checks what must hold of its result. `buffer` is what it will decode.
    void live(std::span<const uint8_t> buffer);
    void cache();
    void replay(std::span<const uint8_t> buffer);
    void end();

    CExanicUdpFunc& core() { return *core_; }
    CacheBufInfo& cached() { return cached_; }
    share& table() { return *table_; }

private:
    IncrementalRig();
    void before_decoding();
    void after_decoding(int32_t result, std::span<const uint8_t> buffer);

    ExanicMdConfigData config_;
    std::unique_ptr<share> table_;
    std::unique_ptr<PriceCalcInfo> calc_;
    CacheBufInfo cached_{};
    uint32_t slot_ = 0;
    std::unique_ptr<uint32_t[]> registers_;
    std::unique_ptr<CExanicUdpFunc> core_;
    std::array<instrument, kSeededCount> seeds_{};
    std::array<instrument, kSeededCount> expected_{}; // the records as they should be
    uint32_t touched_ = 0;                            // bit i: record i is no more its seed
};

} // namespace fuzz
