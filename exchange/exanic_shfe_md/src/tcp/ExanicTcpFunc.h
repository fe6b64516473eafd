#ifndef EXANIC_TCP_FUNC_H
#define EXANIC_TCP_FUNC_H

#include "ExanicMdTypes.h"
#include "config/ConfigParse.h"
#include "tcp/FramePool.h"
#include "tcp/MdqpRecords.h"
#include "tcp/TcpSession.h"

#include <exanic/fifo_rx.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

class CThread;

// Daily limits of an instrument, by slot.
struct inter_info {
    double upper_limit_price;
    double lower_limit_price;
};

// The snapshot channel: takes raw frames from the card, follows the exchange's TCP streams,
// decodes their MDQP messages into the instrument table and checks the finished books.
//
// Two threads: RunTcpDecoder polls the card and queues every frame; its worker ("PktHdr") runs
// everything from _PacketHandler down, one frame at a time. The work is spread over the files of
// this folder: intake and frame checks, reassembly, sessions, MDQP decoding, price check, thread.
class CExanicTcpFunc {
public:
    // All arguments must outlive the object. `finishedMask` is accessed atomically.
    CExanicTcpFunc(const ExanicMdConfigData& configData, share* pShareMem,
                   const UEnableMask& enabledMask, UEnableMask& finishedMask,
                   PriceCalcInfo& calcInfo);
    ~CExanicTcpFunc();
    CExanicTcpFunc(const CExanicTcpFunc&) = delete;
    CExanicTcpFunc& operator=(const CExanicTcpFunc&) = delete;

    // Takes the register window and the receive buffer of the raw port. Returns 0.
    int32_t InitTcp(volatile uint32_t* pRegisters, exanic_rx_t* pRxBuffer);

    // Body of the snapshot decoder thread: loads the snapshot of every enabled feed within the
    // configured time, leaves the outcome in GetInitialized and ends. StopRunning ends it early
    // with the outcome unchanged.
    void RunTcpDecoder();

    // Caller thread. StartRunning resets the outcome before it sets the running flag.
    void StartRunning() {
        m_initialized.store(MD_INIT_DOING);
        m_runningFlag.store(true);
    }
    void StopRunning() { m_runningFlag.store(false); }
    int GetInitialized() const { return m_initialized.load(); }

    // One receive attempt; an accepted frame becomes a task of the worker. False when nothing was
    // waiting. Throws what CThread::Post throws, and std::bad_alloc.
    bool TcpRecv(CThread& worker);

    // Checks the books of every slot in use: 0, or the first failing check's code.
    int32_t ShfePriceCheck();
    int32_t ShfeInstPriceCheck(instrument instmts, inter_info limits);

    // Ten prices that must fall strictly and lie within the limits, each with a volume: 0, -1 out
    // of limits, -2 not falling, -3 price and volume disagree. A spread may have volume at price
    // zero.
    int32_t CheckPrice(const std::vector<double>& _price, const std::vector<int32_t>& _vol,
                       double upper, double lower, bool isSpread);

    // Returns a session to its empty state and frees what it holds.
    void ResetSession(TcpSession& session);

private:
    // One TCP segment inside a checked frame. Host order but for the addresses.
    struct Segment {
        char* frame;
        uint32_t frameLen;
        uint32_t srcHost; // as found in the frame
        uint32_t dstHost;
        uint16_t srcPort;
        uint16_t dstPort;
        uint32_t seq;
        uint8_t flags;
        char* payload;
        uint32_t payloadSize;
    };
    // How far a frame got: Finish goes on to the check of a finished snapshot, Stop does not.
    enum class FrameEnd { Finish, Stop };
    // What became of a segment appended to an unfinished message.
    enum class AppendResult { Decoded, Incomplete, BadHeader, Cleared };

    // Worker thread. Frames are followed by DECODE_SLACK zero bytes.
    void _HandleTask(char* frame, uint32_t frameLen);
    void _PacketHandler(char* packet, unsigned int packetLen);
    bool _CheckFrame(char* packet, uint32_t packetLen, Segment& segment) const;
    void _CheckFinishedSnapshot();

    static void _DropLeftovers(TcpSession& session);
    // Whether sequence number `seq` comes before `other`.
    bool _IsBefore(uint32_t seq, uint32_t other) const;
    FrameEnd _StartSession(TcpSession& session, const Segment& segment);
    bool _WalkFirstFields(TcpSession& session, const Segment& segment);
    bool _SelectFeed(TcpSession& session, const SnapField& snap) const;
    FrameEnd _ContinueSession(TcpSession& session, const Segment& segment);
    FrameEnd _HoldEarlySegment(TcpSession& session, const Segment& segment);
    FrameEnd _DrainHeldSegments(TcpSession& session, uint16_t dstPort);
    // `limit` is how many bytes may stand in the joining buffer afterwards.
    AppendResult _AppendToMessage(TcpSession& session, const char* payload, uint32_t payloadSize,
                                  uint16_t dstPort, size_t limit);
    // False when the payload is shorter than its first message.
    bool _SplitMessages(TcpSession& session, char* payload, uint32_t payloadSize, uint16_t dstPort);
    uint32_t _DecodeWholeMessages(char* data, uint32_t size, uint16_t dstPort);
    static void _KeepRest(TcpSession& session, const char* rest, uint32_t size);

    // Decodes one whole message, which it may write to. Returns 0.
    int _ParseMdqp(MdqpHeader* message, uint16_t sessionIndex);
    void _DispatchField(EMdqpDataType type, uint16_t fieldId, char* data, uint16_t previousField);
    void _OnInstInfo(EMdqpDataType type, const char* data);
    void _OnDealInfo(EMdqpDataType type, const char* data);
    void _OnPriceDetail(EMdqpDataType type, char* data, uint16_t previousField);
    void _OnOrderStatis(EMdqpDataType type, const char* data);
    void _OnPacketNo(EMdqpDataType type, const char* data);
    void _FinishFeed(TcpSession& session, EMdqpDataType type);
    bool _WantsInstrument(const std::string& instId) const;
    void _CountInstrument(EMdqpDataType type, int32_t instNo);
    bool _ProtectInstNo(const EMdqpDataType& type, const int& inst_no);
    bool _IsSubscribed(int slot) const;
    // Slot of an instrument number that the guard accepts, or -1. The guard lets negative numbers
    // pass; their slot lies outside the table and is -1 too.
    int _SlotOf(EMdqpDataType type, int instNo);
    // Takes back everything that a snapshot has written.
    void _Cleandata();

    uint8_t _Finished() const;
    void _SetFinished(uint8_t mask);
    // True when every enabled feed has finished and the price check has had its say.
    bool _SnapshotIsComplete() const;
    // The same at the end of the phase: waits for a handler that may be about to decide it.
    bool _SnapshotIsCompleteAtLast() const;
    bool _MasksAreEqual() const { return m_refEnabledMask.mask == _Finished(); }

    const ExanicMdConfigData& m_refConfigData;
    volatile uint32_t* m_pRegisters = nullptr;
    exanic_rx_t* m_pRxBuffer = nullptr;
    share* m_pShareMem;
    const UEnableMask& m_refEnabledMask;
    UEnableMask& m_refFinishedMask;
    PriceCalcInfo& m_refCalcInfo;
    char m_recvBuf[RECV_BUF_SIZE];
    FramePool m_framePool;
    TcpSession m_sessions[MAX_SESSION_CNT]; // by local TCP port
    inter_info inter_infos[INSTRUMENT_SLOT_CNT];
    char m_heldPayload[RECV_BUF_SIZE + DECODE_SLACK]; // a held segment while it is decoded
    std::atomic<int> m_initialized{MD_INIT_DOING};
    std::atomic<bool> m_runningFlag{false};
    // Counts the beginnings and ends of frame handlers: odd while the worker handles a frame. The
    // decoder thread trusts equal masks only across which it stayed even and the same, because the
    // finished bit is set before the price check that may take it back.
    std::atomic<uint32_t> m_handlerCount{0};
    // One-shot warnings. A clean sets them false and nothing sets them true again.
    bool shfe_cnt_80_flag = true;
    bool ine_cnt_80_flag = true;
    bool shfe_cnt_flag = true;
    bool ine_cnt_flag = true;
};

#endif
