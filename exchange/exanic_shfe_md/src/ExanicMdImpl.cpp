// The feed's entry: owns everything that one run needs and drives its cycles.
//
//   bring-up -> snapshot (caching) -> replay -> live -> gap: next cycle
//
// The caller's thread does all of it but the snapshot, which the decoder thread and its worker load
// into the instrument table. The join of that thread is the hand-over of the table: nothing else
// guards it. The run flag is tested before and inside every loop.

#include "ExanicMdImpl.h"

#include "CommonLog.h"
#include "MdMonitor.h"
#include "config/ConfigParse.h"
#include "dev/ExanicDevFunc.h"
#include "tcp/ExanicTcpFunc.h"
#include "udp/ExanicUdpFunc.h"

#include <sched.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <thread>

namespace {

constexpr char LOG_FILE_TAG[] = "ExanicMdImpl";
constexpr char BUILD_STAMP[] = "Aug 18 2026 15:02:36 Shfe V2.1.1.12";
constexpr int ALL_LOG_LEVELS = 31;

// The flag is a plain int of the consumer, stored by a signal handler or another thread. An atomic
// load is one the compiler cannot move out of a loop.
bool KeepRunning(const int* flag) {
    return __atomic_load_n(flag, __ATOMIC_RELAXED) != 0;
}

// Everything that one call of vorn_recv owns, on the heap: the sessions alone are 3.7 MB. The
// channels hold references to the records above them.
struct FeedContext {
    ExanicMdConfigData configData{};
    UEnableMask enabledMask{};
    UEnableMask finishedMask{};
    PriceCalcInfo calcInfo{};
    uint32_t curInstNo = 0;
    share* pShareMem;
    CacheBufInfo cachedDecode{};
    CConfigParse configParse{configData};
    CExanicDevFunc exanicDev{configData, enabledMask};
    CExanicTcpFunc exanicTcp{configData, pShareMem, enabledMask, finishedMask, calcInfo};
    CExanicUdpFunc exanicUdp{configData, pShareMem, cachedDecode, calcInfo, curInstNo};

    explicit FeedContext(share* table) : pShareMem(table) {}
    FeedContext(const FeedContext&) = delete;
    FeedContext& operator=(const FeedContext&) = delete;
};

// Zero table, configuration, card, channels. False with the reason logged; what was acquired by
// then stays acquired.
bool Initialise(FeedContext& feed, const char* configfile) {
    g_mdMonitor.BeginCycle();
    memset(feed.pShareMem, 0, sizeof(share));
    g_mdMonitor.SetTable(feed.pShareMem);
    if (feed.configParse.InitConfig(configfile != nullptr ? configfile : "") != 0) {
        MD_LOG_AS("vorn_recv", LOG_ERROR, "failed to initialize config data");
        return false;
    }
    if (feed.exanicDev.InitDev() != 0) {
        MD_LOG_AS("vorn_recv", LOG_ERROR, "failed to initialize network device");
        return false;
    }
    if (feed.enabledMask.mask == 0) {
        MD_LOG_AS("vorn_recv", LOG_ERROR, "all SHFE and INE are disabled");
        return false;
    }
    volatile uint32_t* registers = feed.exanicDev.GetRegisters();
    if (feed.exanicTcp.InitTcp(registers, feed.exanicDev.GetTcpRxBuffer()) != 0) {
        MD_LOG_AS("vorn_recv", LOG_ERROR, "failed to initialize TCP function");
        return false;
    }
    if (feed.exanicUdp.InitUdp(registers, feed.exanicDev.GetUdpRxBuffer()) != 0) {
        MD_LOG_AS("vorn_recv", LOG_ERROR, "failed to initialize UDP function");
        return false;
    }
    return true;
}

// Opens the data paths, lets the decoder thread load the snapshot and caches what the incremental
// channel delivers meanwhile. Returns the outcome of the snapshot, MD_INIT_DOING when the run flag
// dropped.
int LoadSnapshot(FeedContext& feed, const int* keepRunning) {
    g_mdMonitor.EnterPhase(VORN_MD_PHASE_SNAPSHOT);
    feed.exanicUdp.ForgetCached();
    // Every instrument passes for now: which ones are subscribed is known after the snapshot.
    feed.exanicDev.StartDecodeData();
    feed.exanicDev.StartOrigData();
    feed.exanicDev.StartAllIne();
    feed.exanicDev.StartAllShfe();

    feed.exanicTcp.StartRunning();
    std::atomic<bool> threadFailed{false};
    std::thread tcpThread;
    try {
        tcpThread = std::thread([&feed, &threadFailed] {
            try {
                feed.exanicTcp.RunTcpDecoder();
            } catch (const std::exception& error) {
                MD_LOG_AS("vorn_recv", LOG_ERROR, "snapshot decoder thread ended: %s",
                          error.what());
                threadFailed.store(true);
            }
        });
    } catch (const std::exception& error) {
        MD_LOG_AS("vorn_recv", LOG_ERROR, "failed to start snapshot decoder thread: %s",
                  error.what());
        return MD_INIT_FAILED;
    }
    while (KeepRunning(keepRunning) && feed.exanicTcp.GetInitialized() == MD_INIT_DOING &&
           !threadFailed.load(std::memory_order_relaxed)) {
        const int32_t before = feed.cachedDecode.piOffset;
        feed.exanicUdp.CachePacket();
        g_mdMonitor.TellRounds();
        if (feed.cachedDecode.piOffset == before) {
            sched_yield(); // the snapshot's threads share this CPU
        }
    }
    feed.exanicTcp.StopRunning();
    tcpThread.join();
    g_mdMonitor.TellRounds();
    return threadFailed.load() ? MD_INIT_FAILED : feed.exanicTcp.GetInitialized();
}

void ReportTooManyInstruments(const share& table) {
    if (table.ine_inst_cnt > INE_MAX_INST_CNT) {
        MD_LOG_AS("vorn_recv", LOG_ERROR, "too many instruments, ine: %d, limit: %d",
                  table.ine_inst_cnt, INE_MAX_INST_CNT);
    }
    if (table.shfe_inst_cnt > SHFE_MAX_INST_CNT) {
        MD_LOG_AS("vorn_recv", LOG_ERROR, "too many instruments, shfe: %d, limit: %d",
                  table.shfe_inst_cnt, SHFE_MAX_INST_CNT);
    }
}

// Applies what was cached. The first `overdueCount` updates stay silent: they predate the snapshot
// that the consumer has not seen either. Returns the last result; -1 ends the cycle.
int ReplayCache(FeedContext& feed, const int* keepRunning) {
    g_mdMonitor.EnterPhase(VORN_MD_PHASE_REPLAY);
    const int overdueCount = feed.cachedDecode.cachedCount;
    feed.cachedDecode.ciOffset = 0;
    MD_LOG_AS("vorn_recv", LOG_INFO, "process decode buffer %d frames", overdueCount);

    int skipCount = 0;
    int decodeFlag = RET_OK;
    while (KeepRunning(keepRunning) && feed.cachedDecode.cachedCount > 0 &&
           decodeFlag != RET_FAILED) {
        feed.exanicUdp.CachePacket(); // behind the backlog, so that the order stays
        decodeFlag = feed.exanicUdp.ProcessCached();
        if (decodeFlag == RET_TO_CALLBACK) {
            ++skipCount;
            if (skipCount > overdueCount) {
                update_md(&feed.pShareMem->instmts[feed.curInstNo]);
            } else {
                g_mdMonitor.caller.silentUpdates.Add();
            }
        } else if (decodeFlag == RET_FAILED) {
            feed.exanicUdp.ClearCache();
        }
    }
    return decodeFlag;
}

void RunLive(FeedContext& feed, const int* keepRunning, int decodeFlag) {
    if (decodeFlag != RET_FAILED) {
        g_mdMonitor.EnterPhase(VORN_MD_PHASE_LIVE);
    }
    while (KeepRunning(keepRunning) && decodeFlag != RET_FAILED) {
        decodeFlag = feed.exanicUdp.UdpRecv();
        if (decodeFlag == RET_TO_CALLBACK) {
            update_md(&feed.pShareMem->instmts[feed.curInstNo]);
        }
    }
}

// The monitor knows of the run, and of its table, as long as this lives.
struct MonitoredRun {
    MonitoredRun() { g_mdMonitor.BeginRun(); }
    ~MonitoredRun() { g_mdMonitor.EndRun(); }
    MonitoredRun(const MonitoredRun&) = delete;
    MonitoredRun& operator=(const MonitoredRun&) = delete;
};

// False when the feed cannot go on.
bool RunCycle(FeedContext& feed, const char* configfile, const int* keepRunning) {
    if (!Initialise(feed, configfile)) {
        return false;
    }
    if (LoadSnapshot(feed, keepRunning) == MD_INIT_FAILED) {
        return false; // the snapshot channel has said why
    }
    // From here on the card passes the subscribed instruments only.
    feed.exanicDev.StopAllIne();
    feed.exanicDev.StopAllShfe();
    feed.exanicDev.StopOrigData();
    ReportTooManyInstruments(*feed.pShareMem);

    feed.exanicUdp.PrefetchCalcInfo();
    const int decodeFlag = ReplayCache(feed, keepRunning);
    feed.exanicUdp.PrefetchCalcInfo();
    RunLive(feed, keepRunning, decodeFlag);
    feed.exanicDev.StopDecodeData();
    return true;
}

} // namespace

extern "C" {

void (*update_md)(instrument*) = nullptr;

void set_update_md_callback(void (*callback)(instrument*)) {
    update_md = callback;
}

int vorn_recv(char* configfile, int* keep_running) {
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(ALL_LOG_LEVELS));

    void* table = nullptr;
    if (posix_memalign(&table, 8, sizeof(share)) != 0) {
        MD_LOG(LOG_ERROR, "failed to allocate share memor");
        return RET_FAILED;
    }
    // Kept by plain pointers: a run that fails to start leaves both allocated.
    char* cache = new (std::nothrow) char[CACHE_BUF_SIZE];
    if (cache == nullptr) {
        MD_LOG(LOG_ERROR, "failed to allocate cache buffer");
        return RET_FAILED;
    }
    memset(cache, 0, CACHE_BUF_SIZE); // touches every page before the first frame comes

    // Only running out of memory throws below. No exception may reach a consumer written in C.
    try {
        const MonitoredRun run;
        const auto feed = std::make_unique<FeedContext>(static_cast<share*>(table));
        feed->cachedDecode.pCacheBuf = cache;
        MD_LOG(LOG_INFO, "software version: %s", BUILD_STAMP);

        while (KeepRunning(keep_running)) {
            if (!RunCycle(*feed, configfile, keep_running)) {
                return RET_FAILED;
            }
        }
        feed->exanicDev.ReleaseDev();
    } catch (const std::exception& error) {
        MD_LOG(LOG_ERROR, "the feed ended: %s", error.what());
        return RET_FAILED;
    }
    delete[] cache;
    free(table);
    return RET_OK;
}

} // extern "C"
