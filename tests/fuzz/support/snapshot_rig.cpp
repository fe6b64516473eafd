#include "snapshot_rig.h"

#include "CommonLog.h"
#include "dev/FpgaRegisters.h"
#include "fuzz_input.h"
#include "tcp/FrameLayout.h"

#include <algorithm>
#include <cstring>
#include <sanitizer/asan_interface.h>
#include <utility>

// The two members whose cost grows with the table, as the linker knows them.
void real_clean(CExanicTcpFunc* core) __asm__("__real__ZN14CExanicTcpFunc10_CleandataEv");
void stand_in_clean(CExanicTcpFunc* core) __asm__("__wrap__ZN14CExanicTcpFunc10_CleandataEv");
int32_t real_check(CExanicTcpFunc* core) __asm__("__real__ZN14CExanicTcpFunc14ShfePriceCheckEv");
int32_t
stand_in_check(CExanicTcpFunc* core) __asm__("__wrap__ZN14CExanicTcpFunc14ShfePriceCheckEv");

void stand_in_clean(CExanicTcpFunc*) {
    fuzz::SnapshotRig::instance().clean();
}
int32_t stand_in_check(CExanicTcpFunc*) {
    return fuzz::SnapshotRig::instance().check_books();
}

namespace fuzz {
namespace {

constexpr std::size_t kRegisterWords = 32768;
constexpr int kRealCalls = 3;
constexpr int kLogMasks[] = {0, 0, 0, 31};

// The price step of a slot that no dictionary entry was about since the last clean. The channel
// never reads a step, and an entry that had just this one would be found by the check of all.
constexpr uint64_t kNoStep = 0x7FFC56524E465A5A;

// The first slot from `slot` on, and below `end`, that an entry was about.
__attribute__((no_sanitize("address"), no_sanitize("undefined"))) uint32_t
next_known(const double* steps, uint32_t slot, uint32_t end) {
    constexpr uint32_t kBlock = 32;
    const auto* words = reinterpret_cast<const uint64_t*>(steps);
    while (slot < end) {
        uint64_t differs = 0;
        const uint32_t last = std::min(end, slot + kBlock);
        for (uint32_t i = slot; i < last; ++i) {
            differs |= words[i] ^ kNoStep;
        }
        if (differs == 0) {
            slot = last;
            continue;
        }
        while (words[slot] == kNoStep) {
            ++slot;
        }
        return slot;
    }
    return end;
}

template <typename Value>
bool all_zero(const Value* values, std::size_t count) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(values);
    const std::size_t size = count * sizeof(Value);
    return size == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0);
}

bool is_named(const instrument& record) {
    return !all_zero(record.inst_id, sizeof record.inst_id);
}

// What the feed is handed to decode: exactly the bytes and their slack. The rest of the block is
// poisoned, and afterwards all of it, so that a sanitizer sees every access beyond and every one
// that comes late, as it would on the heap, without what an allocation costs.
class HandedOver {
public:
    explicit HandedOver(std::span<const uint8_t> bytes) : size_(bytes.size() + DECODE_SLACK) {
        REQUIRE(size_ <= kRoom);
        ASAN_UNPOISON_MEMORY_REGION(data(), size_);
        if (!bytes.empty()) {
            std::memcpy(data(), bytes.data(), bytes.size());
        }
        std::memset(data() + bytes.size(), 0, DECODE_SLACK);
    }
    ~HandedOver() { ASAN_POISON_MEMORY_REGION(data(), size_); }
    HandedOver(const HandedOver&) = delete;
    HandedOver& operator=(const HandedOver&) = delete;

    char* data() { return block() + kGuard; }

private:
    static constexpr std::size_t kRoom = 8192 + DECODE_SLACK;
    static constexpr std::size_t kGuard = 2048;

    static char* block() {
        alignas(16) static char bytes[kGuard + kRoom + kGuard];
        [[maybe_unused]] static const bool is_poisoned = [] {
            ASAN_POISON_MEMORY_REGION(bytes, sizeof bytes);
            return true;
        }();
        return bytes;
    }

    std::size_t size_;
};

bool is_check_result(int32_t result) {
    return result <= 0 && result >= -3;
}

} // namespace

SnapshotRig& SnapshotRig::instance() {
    static SnapshotRig& rig = *new SnapshotRig;
    return rig;
}

SnapshotRig::SnapshotRig()
    : table_(std::make_unique<share>()), calc_(std::make_unique<PriceCalcInfo>()),
      registers_(kRegisterWords),
      core_(std::make_unique<CExanicTcpFunc>(config_, table_.get(), enabled_, finished_, *calc_)) {
    config_.listen_insts = {"cu", "au2606", "sc"};
    config_.md2ps_snap_port = kMd2psPort;
    config_.md4ps_snap_port = kMd4psPort;
    config_.shfe2ps_topic_id = kTopics[SHFE_2PS];
    config_.ine2ps_topic_id = kTopics[INE_2PS];
    config_.shfe4ps_topic_id = kTopics[SHFE_4PS];
    config_.ine4ps_topic_id = kTopics[INE_4PS];
    config_.total_listen_cnt = static_cast<uint32_t>(config_.listen_insts.size());
    core_->InitTcp(registers_.data(), nullptr);
    forget_steps();
}

void SnapshotRig::begin(uint8_t control) {
    config_.recovery = (control & 1) != 0;
    config_.options = (control & 2) != 0 ? 0 : 1;
    config_.recvall = (control & 4) != 0 ? 0 : 1;
    config_.shield_price_check = (control & 8) != 0;
    const int mask = kLogMasks[(control >> 4) & 3];
    CCommonLog::m_logLevel.store(mask != 0 && logging_is_due() ? mask : 0,
                                 std::memory_order_relaxed);
    enabled_.mask = (control & 64) != 0 ? 0x0F : MASK_SHFE_2PS | MASK_INE_2PS;
    real_wanted_ = (control & 128) != 0;
    real_left_ = 0;
    core_->shfe_cnt_80_flag = core_->ine_cnt_80_flag = true;
    core_->shfe_cnt_flag = core_->ine_cnt_flag = true;
}

void SnapshotRig::use_port(uint16_t port) {
    if (std::find(ports_.begin(), ports_.end(), port) == ports_.end()) {
        ports_.push_back(port);
    }
}

void SnapshotRig::frame(std::span<const uint8_t> bytes) {
    if (bytes.size() <= ETHERNET_SIZE || bytes.size() > RECV_BUF_SIZE) {
        return;
    }
    HandedOver copy(bytes);
    const std::size_t tcp = ETHERNET_SIZE + IpHeaderLen(copy.data() + ETHERNET_SIZE);
    delivered_ += bytes.size();
    use_port(TcpDestinationPort(copy.data() + tcp)); // the slack is long enough for any frame
    core_->_HandleTask(copy.data(), static_cast<uint32_t>(bytes.size()));
}

void SnapshotRig::messages(std::span<const uint8_t> bytes, EMdqpDataType type, uint16_t port) {
    use_port(port);
    session(port).em_dqp_data_type = type;
    HandedOver copy(bytes);
    const uint32_t size = static_cast<uint32_t>(bytes.size());
    const uint32_t used = core_->_DecodeWholeMessages(copy.data(), size, port);
    REQUIRE(used <= size);
}

bool SnapshotRig::is_real_call() {
    if (std::exchange(real_wanted_, false) && real_call_is_due()) {
        real_left_ = kRealCalls;
    }
    return real_left_-- > 0;
}

void SnapshotRig::clean() {
    if (is_real_call()) {
        real_clean(core_.get());
        REQUIRE(all_zero(calc_.get(), 1));
        forget_steps();
        return;
    }
    clear_table();
    for (const uint16_t port : ports_) {
        core_->ResetSession(session(port));
    }
    finished_.mask = 0;
    core_->shfe_cnt_80_flag = core_->ine_cnt_80_flag = false;
    core_->shfe_cnt_flag = core_->ine_cnt_flag = false;
}

int32_t SnapshotRig::check_books() {
    int32_t result = 0;
    if (is_real_call()) {
        result = real_check(core_.get());
    } else {
        for_each_known([&](uint32_t slot) {
            if (result == 0) { // the records of the others are all zeros, which pass
                result = core_->ShfeInstPriceCheck(table_->instmts[slot], core_->inter_infos[slot]);
            }
        });
    }
    REQUIRE(is_check_result(result));
    REQUIRE(result == 0 || !config_.shield_price_check);
    return result;
}

void SnapshotRig::end() {
    check_table();
    clear_table();
    for (const uint16_t port : ports_) {
        TcpSession& used = session(port);
        check_session(used);
        // The joining buffer is kept, empty as a new one would be.
        uint8_t* const buffer = used.frag_buf;
        if (buffer != nullptr) {
            std::memset(buffer, 0, std::min(delivered_ + DECODE_SLACK, FRAG_BUF_SIZE));
        }
        used.frag_buf = nullptr;
        core_->ResetSession(used);
        used = {};
        used.frag_buf = buffer;
        used.em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
    }
    ports_.clear();
    delivered_ = 0;
    finished_.mask = 0;
    REQUIRE((registers_[EXANIC_FPGA_SHFE_DATA_WR] | registers_[EXANIC_FPGA_INE_DATA_WR]) <= 1);
    REQUIRE(registers_[EXANIC_FPGA_SHFE_ADDR_WR] < SHFE_MAX_INST_CNT);
    REQUIRE(registers_[EXANIC_FPGA_INE_ADDR_WR] < INE_MAX_INST_CNT);
    for (const uint32_t word : {EXANIC_FPGA_SHFE_ADDR_WR, EXANIC_FPGA_SHFE_DATA_WR,
                                EXANIC_FPGA_INE_ADDR_WR, EXANIC_FPGA_INE_DATA_WR}) {
        registers_[word] = 0;
    }
    if (deep_check_is_due()) {
        check_all_clear();
    }
}

// In both ranges below the counts.
template <typename Action>
void SnapshotRig::for_each_known(Action action) {
    const auto shfe = static_cast<uint32_t>(table_->shfe_inst_cnt);
    const auto ine = static_cast<uint32_t>(table_->ine_inst_cnt);
    const double* steps = calc_->priceTick;
    for (uint32_t at = 0; (at = next_known(steps, at, shfe)) < shfe; ++at) {
        action(at);
    }
    for (uint32_t at = INSTRUMENT_SLOT_CNT - ine;
         (at = next_known(steps, at, INSTRUMENT_SLOT_CNT)) < INSTRUMENT_SLOT_CNT; ++at) {
        action(at);
    }
}

void SnapshotRig::clear_table() {
    for_each_known([this](uint32_t slot) {
        // Where all are subscribed, a later entry may have taken the identifier away.
        REQUIRE(is_named(table_->instmts[slot]) || config_.recvall != 0 ||
                all_zero(&table_->instmts[slot], 1));
        table_->instmts[slot] = {};
        core_->inter_infos[slot] = {};
        std::memcpy(&calc_->priceTick[slot], &kNoStep, sizeof kNoStep);
        calc_->codecPrice[slot] = 0.0;
        calc_->volumeMulti[slot] = 0;
    });
    table_->shfe_inst_cnt = table_->ine_inst_cnt = 0;
    table_->shfe_pktno = table_->ine_pktno = 0;
}

void SnapshotRig::forget_steps() {
    for (double& step : calc_->priceTick) {
        std::memcpy(&step, &kNoStep, sizeof kNoStep);
    }
}

void SnapshotRig::check_table() const {
    REQUIRE(table_->shfe_inst_cnt >= 0 && table_->shfe_inst_cnt <= SHFE_MAX_INST_CNT);
    REQUIRE(table_->ine_inst_cnt >= 0 && table_->ine_inst_cnt <= INE_MAX_INST_CNT);
    REQUIRE(finished_.mask <= 0x0F);
}

void SnapshotRig::check_session(const TcpSession& session) const {
    REQUIRE(session.frag_buf_offset >= 0);
    REQUIRE(static_cast<std::size_t>(session.frag_buf_offset) + DECODE_SLACK <= FRAG_BUF_SIZE);
    REQUIRE(session.frag_flag == 0 || session.frag_buf != nullptr);
    REQUIRE(session.init <= 1 && session.frag_flag <= 1);
    REQUIRE(session.lost_flag == (session.lost_buf_head != nullptr ? 1 : 0));
    REQUIRE(session.init == 0 || session.em_dqp_data_type != MDQP_DATA_TYPE_UNKNOW);
    uint32_t held = 0;
    const TcpLostBuf* before = nullptr;
    for (const TcpLostBuf* node = session.lost_buf_head; node != nullptr; node = node->next) {
        REQUIRE(node->before == before);
        REQUIRE(node->len > ETHERNET_SIZE && node->len <= RECV_BUF_SIZE);
        ++held;
        before = node;
    }
    // Without recovery a session's start forgets the number held but keeps the list.
    REQUIRE(!config_.recovery || held == session.lost_buf_size);
}

// What the counts did not announce was written where it does not belong.
void SnapshotRig::check_all_clear() const {
    REQUIRE(all_zero(table_.get(), 1));
    REQUIRE(next_known(calc_->priceTick, 0, INSTRUMENT_SLOT_CNT) == INSTRUMENT_SLOT_CNT);
    REQUIRE(all_zero(calc_->codecPrice, INSTRUMENT_SLOT_CNT));
    REQUIRE(all_zero(calc_->volumeMulti, INSTRUMENT_SLOT_CNT));
    REQUIRE(all_zero(core_->inter_infos, INSTRUMENT_SLOT_CNT));
    REQUIRE(all_zero(registers_.data(), registers_.size()));
    for (const TcpSession& session : core_->m_sessions) {
        REQUIRE(session.init == 0 && session.lost_buf_head == nullptr);
    }
}

} // namespace fuzz
