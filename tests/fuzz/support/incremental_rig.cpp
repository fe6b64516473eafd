#include "incremental_rig.h"

#include "CommonLog.h"
#include "fuzz_card.h"
#include "fuzz_input.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>
#include <sys/mman.h>
#include <system_error>
#include <utility>

namespace fuzz {
namespace {

constexpr std::size_t kRegisterWords = 32768;
constexpr std::size_t kGuard = 65536; // bytes around the cache that no access may touch
constexpr int kLogMasks[] = {0, 0, 0, 31};

struct Seed {
    uint32_t slot;
    std::string_view id; // 16 characters leave no room for a NUL
    int levels;          // each side
    uint32_t change_no;
    double tick;
    double codec;
    int32_t multiple;
};
constexpr double kHuge = std::numeric_limits<double>::max();
constexpr Seed kSeeds[kSeededCount] = {
    {0, "cu2603", 10, 7, 10, 50000, 5},
    {1, "au2606", 5, 0, 0.02, 600, 1000},
    {2, "ag2612", 0, 41, 1, 0, 15},
    {3, "rb2605C3500", 4, 7, 0.5, 30, 10},    // an option
    {4, "sn2603TAS", 5, 7, 1, 0, 1},          // may be crossed
    {5, "", 3, 7, 1, 0, 1},                   // no identifier: not subscribed
    {6, {"\0\0\0\0\0\0C", 7}, 3, 7, 1, 0, 1}, // the same, as an option looks
    {SHFE_MAX_INST_CNT - 1, "zn2603", 6, 0xFFFFFFFE, 5, 20000, 5},
    {LAST_SLOT, "sc2603", 9, 7, 0.1, 500, 1000},
    {LAST_SLOT - 1, "nr2603-nr2604TAS", 5, 7, 5, 0, 10},
    {LAST_SLOT - 7, "lu2603", 2, 7, kHuge, -kHuge, -1}, // amounts leave the doubles
    {SHFE_MAX_INST_CNT, "bc2603", 5, 7, 0, 0, 0},       // prices that are all the same
};

void fill(instrument& record, const Seed& seed) {
    std::memcpy(record.inst_id, seed.id.data(), seed.id.size());
    record.change_no = seed.change_no;
    record.last_px = seed.codec;
    record.volume = 100;
    record.open_interest = 1000;
    record.turnover = 1e6;
    record.bid_totvol = 50;
    record.ask_totvol = std::numeric_limits<int32_t>::max();
    record.bid_totamount = 1e5;
    record.ask_totamount = 2e5;
    record.highest_price = seed.codec + 5;
    record.lowest_price = seed.codec - 5;
    for (int i = 0; i < seed.levels; ++i) {
        record.bid_px[i] = seed.codec - (i + 1) * seed.tick;
        record.ask_px[i] = seed.codec + (i + 1) * seed.tick;
        record.bid_vol[i] = 10 + i;
        record.ask_vol[i] = 20 + i;
    }
}

bool is_empty(double price, int32_t volume) {
    return price > -0.00001 && price < 0.00001 && volume < 1;
}

// What a consumer may rely on after an update: falling bids, rising asks, no crossed touch.
bool is_in_order(const instrument& record) {
    const std::string_view id(reinterpret_cast<const char*>(record.inst_id),
                              strnlen(reinterpret_cast<const char*>(record.inst_id), 16));
    if (id.find("TAS") != std::string_view::npos) {
        return true;
    }
    const auto bid = [&](int i) { return !is_empty(record.bid_px[i], record.bid_vol[i]); };
    const auto ask = [&](int i) { return !is_empty(record.ask_px[i], record.ask_vol[i]); };
    for (int i = 0; i + 1 < BID_PX_LEVEL; ++i) {
        if ((bid(i) && bid(i + 1) && record.bid_px[i + 1] >= record.bid_px[i]) ||
            (ask(i) && ask(i + 1) && record.ask_px[i + 1] <= record.ask_px[i])) {
            return false;
        }
    }
    return !(bid(0) && ask(0) && record.bid_px[0] >= record.ask_px[0]);
}

constexpr std::size_t kRecordWords = sizeof(instrument) / 8;

bool is_same(const instrument& left, const instrument& right) {
    return fuzz::is_same(&left, &right, kRecordWords);
}

// Equal but for the exchange's type, which every accepted buffer writes.
bool is_same_but_type(const instrument& left, instrument& right) {
    const uint16_t type = std::exchange(right.type, left.type);
    const bool same = is_same(left, right);
    right.type = type;
    return same;
}

char* map_cache() {
    const std::size_t size = CACHE_BUF_SIZE + 2 * kGuard;
    void* block =
        ::mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    char* cache = static_cast<char*>(block) + kGuard;
    if (block == MAP_FAILED || ::mprotect(cache, CACHE_BUF_SIZE, PROT_READ | PROT_WRITE) != 0) {
        throw std::system_error(errno, std::generic_category(), "memory for the cache");
    }
    return cache;
}

} // namespace

IncrementalRig& IncrementalRig::instance() {
    static IncrementalRig& rig = *new IncrementalRig;
    return rig;
}

IncrementalRig::IncrementalRig()
    : table_(std::make_unique<share>()), calc_(std::make_unique<PriceCalcInfo>()),
      registers_(std::make_unique<uint32_t[]>(kRegisterWords)),
      core_(std::make_unique<CExanicUdpFunc>(config_, table_.get(), cached_, *calc_, slot_)) {
    config_.shfe2ps_topic_id = kShfeTopic;
    config_.ine2ps_topic_id = kIneTopic;
    config_.shfe4ps_topic_id = 1101;
    config_.ine4ps_topic_id = 5101;
    table_->shfe_inst_cnt = SHFE_MAX_INST_CNT;
    table_->ine_inst_cnt = INE_MAX_INST_CNT;
    for (std::size_t i = 0; i < kSeededCount; ++i) {
        const Seed& seed = kSeeds[i];
        fill(seeds_[i], seed);
        table_->instmts[seed.slot] = expected_[i] = seeds_[i];
        calc_->priceTick[seed.slot] = seed.tick;
        calc_->codecPrice[seed.slot] = seed.codec;
        calc_->volumeMulti[seed.slot] = seed.multiple;
    }
    cached_.pCacheBuf = map_cache();
    core_->InitUdp(registers_.get(), FuzzCard::rx());
}

uint32_t IncrementalRig::slot(std::size_t index) {
    return kSeeds[index].slot;
}

uint32_t IncrementalRig::number(std::size_t index) {
    return is_ine(index) ? LAST_SLOT - slot(index) : slot(index);
}

void IncrementalRig::begin(uint8_t control) {
    config_.options = (control & 1) != 0 ? 0 : 1;
    config_.recovery = (control & 64) != 0;
    const int mask = kLogMasks[(control >> 4) & 3];
    CCommonLog::m_logLevel.store(mask != 0 && logging_is_due() ? mask : 0,
                                 std::memory_order_relaxed);
    core_->shfelogflag = core_->inelogflag = true;
}

void IncrementalRig::arrive(std::span<const uint8_t> bytes) {
    FuzzCard::put(bytes);
}

void IncrementalRig::arrive_status(int status) {
    FuzzCard::put_status(status);
}

void IncrementalRig::before_decoding() {
    slot_ = INSTRUMENT_SLOT_CNT; // that many: no instrument was addressed
}

void IncrementalRig::after_decoding(int32_t result, std::span<const uint8_t> buffer) {
    REQUIRE(result == RET_OK || result == RET_FAILED || result == RET_TO_CALLBACK);
    REQUIRE(slot_ <= INSTRUMENT_SLOT_CNT);
    REQUIRE(slot_ < INSTRUMENT_SLOT_CNT || result != RET_TO_CALLBACK);
    std::size_t index = 0;
    while (index < kSeededCount && slot(index) != slot_) {
        ++index;
    }
    if (index == kSeededCount) {
        REQUIRE(result != RET_TO_CALLBACK);
        return;
    }
    const instrument& now = record(index);
    instrument& before = expected_[index];
    const bool incremental = buffer.size() > 13 && buffer[12] == 3 && buffer[13] == 0;
    if (result == RET_TO_CALLBACK) {
        REQUIRE(now.inst_id[0] != '\0');
        REQUIRE(now.type == (is_ine(index) ? EXCHANGE_TYPE_INE : EXCHANGE_TYPE_SHFE));
        REQUIRE(std::memcmp(now.inst_id, before.inst_id, sizeof now.inst_id) == 0);
    }
    if (result == RET_TO_CALLBACK && incremental) {
        REQUIRE(now.change_no == before.change_no + 1);
        REQUIRE(is_in_order(now));
        touched_ |= 1u << index;
        before = now;
    } else {
        REQUIRE(is_same_but_type(now, before));
        touched_ |= now.type != before.type ? 1u << index : 0;
        before.type = now.type;
    }
}

void IncrementalRig::live(std::span<const uint8_t> buffer) {
    before_decoding();
    arrive(buffer);
    after_decoding(core_->UdpRecv(), buffer);
}

void IncrementalRig::cache() {
    before_decoding();
    core_->CachePacket();
    after_decoding(RET_OK, {});
    REQUIRE(slot_ == INSTRUMENT_SLOT_CNT); // nothing is decoded while it is cached
}

void IncrementalRig::replay(std::span<const uint8_t> buffer) {
    before_decoding();
    after_decoding(core_->ProcessCached(), buffer);
}

void IncrementalRig::end() {
    for (std::size_t i = 0; i < kSeededCount; ++i) {
        REQUIRE(is_same(record(i), expected_[i]));
        if ((touched_ & 1u << i) != 0) {
            table_->instmts[slot(i)] = expected_[i] = seeds_[i];
        }
    }
    touched_ = 0;
    REQUIRE(FuzzCard::is_empty());
    registers_[12] = 0; // the time of the update being handled
    if (deep_check_is_due()) {
        for (std::size_t i = 0; i < kSeededCount; ++i) {
            table_->instmts[slot(i)] = {};
        }
        table_->shfe_pktno = table_->ine_pktno = 0;
        const auto* bytes = reinterpret_cast<const char*>(table_->instmts);
        REQUIRE(bytes[0] == 0 && std::memcmp(bytes, bytes + 1, sizeof table_->instmts - 1) == 0);
        bytes = reinterpret_cast<const char*>(registers_.get());
        REQUIRE(bytes[0] == 0 && std::memcmp(bytes, bytes + 1, kRegisterWords * 4 - 1) == 0);
        for (std::size_t i = 0; i < kSeededCount; ++i) {
            table_->instmts[slot(i)] = seeds_[i];
        }
    }
}

} // namespace fuzz
