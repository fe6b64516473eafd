#include "snapshot_rig.h"

#include "CommonLog.h"
#include "dev/FpgaRegisters.h"
#include "fuzz_input.h"
#include "tcp/FrameLayout.h"

#include <algorithm>
#include <cstring>

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

template <typename Value>
bool all_zero(const Value* values, std::size_t count) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(values);
    const std::size_t size = count * sizeof(Value);
    return size == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0);
}

bool is_named(const instrument& record) {
    return !all_zero(record.inst_id, sizeof record.inst_id);
}

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
}

void SnapshotRig::begin(uint8_t control) {
    config_.recovery = (control & 1) != 0;
    config_.options = (control & 2) != 0 ? 0 : 1;
    config_.recvall = (control & 4) != 0 ? 0 : 1;
    config_.shield_price_check = (control & 8) != 0;
    CCommonLog::m_logLevel.store(kLogMasks[(control >> 4) & 3], std::memory_order_relaxed);
    enabled_.mask = (control & 64) != 0 ? 0x0F : MASK_SHFE_2PS | MASK_INE_2PS;
    real_left_ = (control & 128) != 0 && real_call_is_due() ? kRealCalls : 0;
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
    // Exactly the frame and its slack, so that a sanitizer sees every access beyond.
    const auto copy = std::make_unique<char[]>(bytes.size() + DECODE_SLACK);
    std::memcpy(copy.get(), bytes.data(), bytes.size());
    const std::size_t tcp = ETHERNET_SIZE + IpHeaderLen(copy.get() + ETHERNET_SIZE);
    delivered_ += bytes.size();
    use_port(TcpDestinationPort(copy.get() + tcp)); // the slack is long enough for any frame
    core_->_HandleTask(copy.get(), static_cast<uint32_t>(bytes.size()));
}

void SnapshotRig::messages(std::span<const uint8_t> bytes, EMdqpDataType type, uint16_t port) {
    use_port(port);
    session(port).em_dqp_data_type = type;
    const auto copy = std::make_unique<char[]>(bytes.size() + DECODE_SLACK);
    if (!bytes.empty()) {
        std::memcpy(copy.get(), bytes.data(), bytes.size());
    }
    const uint32_t size = static_cast<uint32_t>(bytes.size());
    const uint32_t used = core_->_DecodeWholeMessages(copy.get(), size, port);
    REQUIRE(used <= size);
}

void SnapshotRig::clean() {
    if (real_left_ > 0) {
        --real_left_;
        real_clean(core_.get());
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
    if (real_left_ > 0) {
        --real_left_;
        result = real_check(core_.get());
    } else {
        const auto check = [&](uint32_t slot) {
            const instrument& record = table_->instmts[slot];
            if (result == 0 && is_named(record)) { // the others are all zeros, which pass
                result = core_->ShfeInstPriceCheck(record, core_->inter_infos[slot]);
            }
        };
        for (int32_t i = 0; i < table_->shfe_inst_cnt; ++i) {
            check(static_cast<uint32_t>(i));
        }
        for (int32_t i = 0; i < table_->ine_inst_cnt; ++i) {
            check(static_cast<uint32_t>(LAST_SLOT - i));
        }
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

void SnapshotRig::clear_records(uint32_t first, uint32_t count) {
    for (uint32_t slot = first; slot < first + count; ++slot) {
        if (is_named(table_->instmts[slot])) {
            table_->instmts[slot] = {};
            core_->inter_infos[slot] = {};
        }
    }
    std::fill_n(calc_->priceTick + first, count, 0.0);
    std::fill_n(calc_->codecPrice + first, count, 0.0);
    std::fill_n(calc_->volumeMulti + first, count, 0);
}

void SnapshotRig::clear_table() {
    const auto ine = static_cast<uint32_t>(table_->ine_inst_cnt);
    clear_records(0, static_cast<uint32_t>(table_->shfe_inst_cnt));
    clear_records(INSTRUMENT_SLOT_CNT - ine, ine);
    table_->shfe_inst_cnt = table_->ine_inst_cnt = 0;
    table_->shfe_pktno = table_->ine_pktno = 0;
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
    REQUIRE(all_zero(calc_.get(), 1));
    REQUIRE(all_zero(core_->inter_infos, INSTRUMENT_SLOT_CNT));
    REQUIRE(all_zero(registers_.data(), registers_.size()));
    for (const TcpSession& session : core_->m_sessions) {
        REQUIRE(session.init == 0 && session.lost_buf_head == nullptr);
    }
}

} // namespace fuzz
