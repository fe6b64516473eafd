#include "feed_fixture.h"

#include "CommonLog.h"
#include "wirekit/mirp.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>

// Present in ThreadSanitizer builds, whose shadow of the feed's 200 MiB outlives the memory itself.
extern "C" void __tsan_flush_memory() __attribute__((weak));

FeedFixture* FeedFixture::current_ = nullptr;

FeedFixture::FeedFixture() {
    card.reset();
    system_calls::reset();
    ::sched_getaffinity(0, sizeof affinity_, &affinity_);
    while (!CPU_ISSET(cpu_, &affinity_)) {
        ++cpu_;
    }
    config_path = (dir.path() / "feed.ini").string();
    config = config_text(cpu_);
    current_ = this;
    set_update_md_callback(&FeedFixture::on_update);
}

FeedFixture::~FeedFixture() {
    card.on_poll(nullptr);
    current_ = nullptr;
    system_calls::reset();
    // The feed binds the thread that runs it for good.
    ::sched_setaffinity(0, sizeof affinity_, &affinity_);
    if (__tsan_flush_memory != nullptr) {
        __tsan_flush_memory();
    }
}

int FeedFixture::run() {
    if (!config.empty()) {
        (void)dir.write("feed.ini", config);
    }
    card.on_poll([this](int port, uint64_t poll) {
        if (port == 0) {
            on_decode_poll();
        } else if (at_raw_poll) {
            at_raw_poll(poll);
        }
    });
    capture_ = std::make_unique<support::LogCapture>(log_mask_before);
    const int result = ::vorn_recv(config_path.data(), &keep_running);
    log = capture_->summary();
    log_mask_after = CCommonLog::GetInstance()->GetLogLevel();
    capture_.reset();
    card.on_poll(nullptr);
    if (result == -1) {
        std::free(system_calls::take_block(sizeof(share)));
        ::operator delete[](system_calls::take_block(CACHE_BUF_SIZE));
    }
    return result;
}

void FeedFixture::stop() {
    __atomic_store_n(&keep_running, 0, __ATOMIC_RELAXED);
}

void FeedFixture::on_update(instrument* record) {
    current_->updates.push_back({static_cast<uint32_t>(record - current_->table()->instmts),
                                 *record, std::this_thread::get_id()});
    if (current_->at_update) {
        current_->at_update(record);
    }
}

// Word 512 tells the phases apart: the raw path is open exactly while the snapshot is loaded.
void FeedFixture::on_decode_poll() {
    const bool loading = card.reg(512) == 1;
    if (phases.empty() || phases.back().loading != loading) {
        const std::size_t cycle = phases.empty() ? 0 : phases.back().cycle + (loading ? 1U : 0U);
        phases.push_back({cycle, loading, 0});
        step_ = 0;
    }
    Phase& phase = phases.back();
    ++phase.polls;
    if (at_poll) {
        at_poll(phase.cycle, loading, phase.polls);
    }
    if (phase.cycle >= cycles.size()) {
        stop();
        return;
    }
    const Cycle& cycle = cycles[phase.cycle];
    if (loading) {
        if (step_ == 0) {
            for (const Bytes& buffer : cycle.cached) {
                card.push(0, buffer);
            }
            step_ = 1;
        }
        if (step_ == 1 && card.left(0) == 0) {
            for (const Bytes& frame : cycle.snapshot) {
                card.push(1, frame);
            }
            step_ = 2;
        }
        return;
    }
    if (step_ == 0) {
        for (const Bytes& buffer : cycle.after) {
            if (buffer.empty()) {
                card.push_nothing(0);
            } else {
                card.push(0, buffer);
            }
        }
        step_ = 1;
    }
    // A pass of the replay handles one cached entry and a pass of the live loop one buffer, so by
    // this poll everything has been handled.
    if (!endless && phase.polls > cycle.cached.size() + cycle.after.size()) {
        stop();
    }
}

share* FeedFixture::table() const {
    return static_cast<share*>(system_calls::allocation_of(sizeof(share)).block);
}

std::vector<std::string> FeedFixture::log_at(const std::string& levels) const {
    std::vector<std::string> result;
    std::copy_if(log.begin(), log.end(), std::back_inserter(result), [&](const std::string& line) {
        return levels.find(line.front()) != std::string::npos;
    });
    return result;
}

std::vector<std::string> FeedFixture::cycle_log(const std::string& mask,
                                                const std::vector<std::string>& finished) const {
    std::vector<std::string> lines = {
        "I ConfigParse _LoadConfig read configure file: " + config_path,
        "I ExanicDevFunc _BindCpu set CPU[" + std::to_string(cpu_) + "] affinity successful",
        "I ExanicDevFunc _InitReg FPGA version: 0, update data: 0",
        "I ExanicTcpFunc RunTcpDecoder start initialization, enabled mask " + mask};
    for (const std::string& line : finished) {
        lines.push_back("I ExanicTcpFunc _ParseMdqp " + line);
    }
    lines.push_back("I ExanicTcpFunc RunTcpDecoder initialization completed");
    return lines;
}

std::string config_text(int cpu, const std::string& more) {
    return "[config]\ndevice = exanic0\ninsts = rb2601,sc2601\nshfe2ps = enabled\n"
           "ine2ps = enabled\ncpucore = " +
           std::to_string(cpu) + "\n" + more;
}

std::string shfe_config(int cpu, const std::string& more) {
    return config_text(cpu, "ine2ps = off\n" + more);
}

Bytes shfe_stamp(uint32_t change_no, uint32_t time) {
    return wirekit::decode_buffer()
        .topic(1000)
        .instrument(3)
        .change_no(change_no)
        .time(time)
        .bytes();
}

Bytes ine_stamp(uint32_t change_no, uint32_t time) {
    return wirekit::decode_buffer()
        .topic(5000)
        .instrument(0)
        .change_no(change_no)
        .time(time)
        .bytes();
}

const std::vector<RegisterStore> kShfeLines = {
    {16, 0xEF042A48}, {18, 21000}, {20, 0xEF032A47}, {22, 21000}};
const std::vector<RegisterStore> kIneLines = {
    {17, 0xEF033447}, {19, 25000}, {21, 0xEF043448}, {23, 25000}};

std::string describe(const instrument& record) {
    std::ostringstream out;
    out.precision(17);
    out << "inst_id=" << std::string(reinterpret_cast<const char*>(record.inst_id), 16).c_str()
        << "\nlast_px=" << record.last_px << "\nvolume=" << record.volume
        << "\nupdate_time=" << record.update_time
        << "\nupdate_milli_sec=" << record.update_milli_sec << "\ntype=" << record.type
        << "\nchange_no=" << record.change_no << "\nturnover=" << record.turnover
        << "\nopen_interest=" << record.open_interest << "\nbid_totvol=" << record.bid_totvol
        << "\nask_totvol=" << record.ask_totvol << "\nbid_totamount=" << record.bid_totamount
        << "\nask_totamount=" << record.ask_totamount << "\nhighest_price=" << record.highest_price
        << "\nlowest_price=" << record.lowest_price;
    for (int i = 0; i < 10; ++i) {
        out << "\nlevel " << i + 1 << ": bid " << record.bid_px[i] << " x " << record.bid_vol[i]
            << ", ask " << record.ask_px[i] << " x " << record.ask_vol[i];
    }
    return out.str();
}

void expect_record(const instrument& actual, const instrument& expected) {
    EXPECT_EQ(describe(actual), describe(expected));
    EXPECT_EQ(std::memcmp(&actual, &expected, sizeof actual), 0);
}
