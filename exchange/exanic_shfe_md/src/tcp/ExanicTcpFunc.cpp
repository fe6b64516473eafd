// The snapshot channel's two threads. The decoder thread (RunTcpDecoder) polls the card and hands
// every frame to the worker, which owns sessions, decoding and the price check, so that none of
// that needs a lock. What crosses: the frame copies, the mask of finished feeds, m_handlerCount.
//
// Frames are checked in ExanicTcpFunc_frame.cpp, put in order in ExanicTcpFunc_session.cpp, decoded
// in ExanicTcpFunc_mdqp.cpp; finished books are judged in ExanicTcpFunc_price_check.cpp.

#include "tcp/ExanicTcpFunc.h"

#include "CommonLog.h"
#include "MdMonitor.h"
#include "tcp/FrameLayout.h"
#include "tcp/TaskWorker.h"

#include <sched.h>
#include <time.h>

#include <cstring>
#include <utility>

namespace {

constexpr char LOG_FILE_TAG[] = "ExanicTcpFunc";
constexpr time_t INIT_PERIOD = 120; // seconds

// Wall clock: an operator's budget is meant in the time that he sees.
time_t WallClockSeconds() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

} // namespace

CExanicTcpFunc::CExanicTcpFunc(const ExanicMdConfigData& configData, share* pShareMem,
                               const UEnableMask& enabledMask, UEnableMask& finishedMask,
                               PriceCalcInfo& calcInfo)
    : m_refConfigData(configData), m_pShareMem(pShareMem), m_refEnabledMask(enabledMask),
      m_refFinishedMask(finishedMask), m_refCalcInfo(calcInfo), m_recvBuf(), m_sessions(),
      inter_infos(), m_heldPayload() {
    for (TcpSession& session : m_sessions) {
        ResetSession(session);
    }
}

CExanicTcpFunc::~CExanicTcpFunc() {
    for (TcpSession& session : m_sessions) {
        ResetSession(session);
    }
}

int32_t CExanicTcpFunc::InitTcp(volatile uint32_t* pRegisters, exanic_rx_t* pRxBuffer) {
    m_pRegisters = pRegisters;
    m_pRxBuffer = pRxBuffer;
    return RET_OK;
}

void CExanicTcpFunc::RunTcpDecoder() {
    int32_t periodsLeft = m_refConfigData.timeout_cnt;
    const time_t start = WallClockSeconds();
    time_t offset = 0;
    __atomic_store_n(&m_refFinishedMask.mask, uint8_t{0}, __ATOMIC_RELEASE);
    _Cleandata();
    MD_LOG(LOG_INFO, "start initialization, enabled mask 0x%x", m_refEnabledMask.mask);

    CThread worker;
    bool completed = false;
    for (;;) {
        if (!m_runningFlag.load()) {
            completed = _SnapshotIsCompleteAtLast();
            break;
        }
        if (_SnapshotIsComplete()) {
            completed = true;
            break;
        }
        if (!TcpRecv(worker)) {
            // The caller, this thread and the worker share one CPU: without this, an idle poller
            // of a real-time class would keep the worker from ever running.
            sched_yield();
        }
        if (WallClockSeconds() - (start + offset) <= INIT_PERIOD) {
            continue;
        }
        --periodsLeft;
        if (periodsLeft <= 0) {
            MD_LOG(LOG_ERROR, "too many initialization failures");
            m_initialized.store(MD_INIT_FAILED);
            completed = _SnapshotIsCompleteAtLast(); // one that is there at the last moment counts
            break;
        }
        MD_LOG(LOG_WARNING, "initialization still not completed");
        offset += INIT_PERIOD;
    }
    if (completed) {
        m_initialized.store(MD_INIT_DONE);
        MD_LOG(LOG_INFO, "initialization completed");
    }
    worker.Join();
    m_framePool.Release(); // the backlog of one phase is not kept for the next
}

bool CExanicTcpFunc::TcpRecv(CThread& worker) {
    // A negative status becomes a huge length and so an abnormal one.
    const uint32_t size =
        static_cast<uint32_t>(exanic_receive_frame(m_pRxBuffer, m_recvBuf, RECV_BUF_SIZE, nullptr));
    if (size == 0) {
        return false;
    }
    if (size <= ETHERNET_SIZE || size > RECV_BUF_SIZE) {
        MD_LOG(LOG_WARNING, "receive abnormal decode length: %u", size);
        g_mdMonitor.CountAbnormalRaw(size);
        return true;
    }
    g_mdMonitor.decoder.frames.Add();
    FramePool::Handle frame = m_framePool.Take();
    memcpy(frame->bytes, m_recvBuf, size);
    memset(frame->bytes + size, 0, DECODE_SLACK);
    worker.Post([this, frame = std::move(frame), size] { _HandleTask(frame->bytes, size); });
    return true;
}

void CExanicTcpFunc::_HandleTask(char* frame, uint32_t frameLen) {
    struct HandlerScope {
        std::atomic<uint32_t>& count;
        explicit HandlerScope(std::atomic<uint32_t>& handlerCount) : count(handlerCount) {
            ++count;
        }
        ~HandlerScope() { ++count; }
        HandlerScope(const HandlerScope&) = delete;
        HandlerScope& operator=(const HandlerScope&) = delete;
    };
    const HandlerScope scope(m_handlerCount);
    if (_MasksAreEqual()) {
        g_mdMonitor.CountFate(VORN_MD_FATE_LATE);
        return;
    }
    try {
        _PacketHandler(frame, frameLen);
    } catch (...) {
        // Out of memory: a part of a message is lost, or the check of the snapshot that the frame
        // completed. Nothing may be built on either, so the snapshot is taken again.
        _Cleandata();
        throw;
    }
}

void CExanicTcpFunc::_PacketHandler(char* packet, unsigned int packetLen) {
    Segment segment{};
    if (!_CheckFrame(packet, packetLen, segment)) {
        return;
    }
    constexpr uint8_t RST_ACK = 0x14;
    if ((segment.flags & RST_ACK) == RST_ACK) {
        g_mdMonitor.CountFate(VORN_MD_FATE_RESET);
        g_mdMonitor.worker.wipes.Add();
        _Cleandata();
        return;
    }
    const bool wasFinished = _MasksAreEqual();
    TcpSession& session = m_sessions[segment.dstPort];
    const FrameEnd end =
        session.init == 0 ? _StartSession(session, segment) : _ContinueSession(session, segment);
    // A frame that an error ended is checked only when it completed the snapshot before the error:
    // no snapshot counts without its check.
    if (end == FrameEnd::Finish || !wasFinished) {
        _CheckFinishedSnapshot();
    }
}

void CExanicTcpFunc::_CheckFinishedSnapshot() {
    if (!_MasksAreEqual()) {
        return;
    }
    if (ShfePriceCheck() != 0) {
        MD_LOG_AS("_PacketHandler", LOG_WARNING, "price check is error");
        g_mdMonitor.worker.wipes.Add();
        _Cleandata();
    }
}

uint8_t CExanicTcpFunc::_Finished() const {
    return __atomic_load_n(&m_refFinishedMask.mask, __ATOMIC_ACQUIRE);
}

void CExanicTcpFunc::_SetFinished(uint8_t mask) {
    __atomic_fetch_or(&m_refFinishedMask.mask, mask, __ATOMIC_RELEASE);
}

// The finished bit is set while a message is decoded, the price check that may clear it again runs
// at the end of the same frame. Equal masks count only when no handler ran while they were read.
bool CExanicTcpFunc::_SnapshotIsComplete() const {
    const uint32_t before = m_handlerCount.load();
    return before % 2 == 0 && _MasksAreEqual() && m_handlerCount.load() == before;
}

bool CExanicTcpFunc::_SnapshotIsCompleteAtLast() const {
    while (_MasksAreEqual()) {
        if (_SnapshotIsComplete()) {
            return true;
        }
        sched_yield();
    }
    return false;
}
