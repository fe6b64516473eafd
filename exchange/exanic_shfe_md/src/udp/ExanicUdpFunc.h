#ifndef EXANIC_UDP_FUNC_H
#define EXANIC_UDP_FUNC_H

#include "ExanicMdTypes.h"
#include "config/ConfigParse.h"
#include "udp/BookChanges.h"
#include "udp/MirpRecords.h"

#include <exanic/fifo_rx.h>

#include <cstdint>

// The incremental channel. Takes decode buffers from the card, keeps them in the cache while the
// snapshot is being loaded, replays them, and then applies each one to its instrument's record.
// Caller thread only; nothing here allocates, locks or calls the system per message.
class CExanicUdpFunc {
public:
    // All arguments must outlive the object. The slot of the last instrument addressed is written
    // to `curInstNo`.
    CExanicUdpFunc(const ExanicMdConfigData& configData, share* pShareMem,
                   CacheBufInfo& cachedDecode, PriceCalcInfo& calcInfo, uint32_t& curInstNo);

    // Takes the register window and the receive buffer of the decode port. Returns 0.
    int32_t InitUdp(volatile uint32_t* pRegisters, exanic_rx_t* pRxBuffer);

    // Polls once and appends what arrived to the cache.
    void CachePacket();

    // Replays one cached entry: the result of its decoding, 0 when the cache is empty, -1 when it
    // is corrupt (it is then cleared).
    int32_t ProcessCached();

    // Starts the cache over, if the configuration asks for recovery: called before a cycle's first
    // frame. Otherwise what the cache held stays, and the next replay reads it again.
    void ForgetCached();

    // Empties the cache and zeroes all of it. For error paths: it touches 200 MiB.
    void ClearCache();

    // Hints the processor to load the price tables of the known instruments.
    void PrefetchCalcInfo();

    // Polls once and applies what arrived: 1 when the record of slot `curInstNo` is to be reported,
    // 0 when there is nothing to report, -1 when the stream cannot be trusted any more.
    int32_t UdpRecv();

private:
    // Makes the cache empty, whatever its memory holds; what was in it counts as dropped.
    void _DropCached();

    // Hints the processor to load the record of the entry at `offset`, the next one to replay.
    void _PrefetchNext(int64_t offset) const;

    // Scaling of one instrument, in locals so that stores to its record cannot force reloads.
    struct PriceScale {
        double priceTick;
        double codecPrice;
        double volumeMulti;

        double Price(int32_t ticks) const { return ticks * priceTick + codecPrice; }
        double Amount(int32_t volumeChange, int64_t amountOffset) const {
            return (volumeChange * codecPrice + static_cast<double>(amountOffset) * priceTick) *
                   volumeMulti;
        }
    };

    // Applies one decode buffer of `len` bytes; results as UdpRecv.
    int32_t _ParseMirp(char* packet, uint32_t len);

    // What one message has changed of a record, and what it takes to take it back.
    struct Changes;
    struct Undo;

    // Slot of the instrument, or -1 when the message goes no further, with its result in `result`.
    int32_t _SelectSlot(const MirpHeader& header, uint16_t& exchangeType, int32_t& result);
    bool _IsHandled(const instrument& record) const;
    static void _ApplyFields(Changes& changes, const PriceScale& scale, const char* cursor,
                             uint32_t remaining);
    static void _ApplyPriceChange(Changes& changes, const PriceChangeField& change, double price);
    static bool _BookIsSane(const instrument& record);
    static bool _LevelsAreSane(const instrument& record);

    const ExanicMdConfigData& m_refConfigData;
    volatile uint32_t* m_pRegisters = nullptr;
    exanic_rx_t* m_pRxBuffer = nullptr;
    share* m_pShareMem;
    CacheBufInfo& m_cachedDecode;
    PriceCalcInfo& m_refCalcInfo;
    char m_recvBuf[RECV_BUF_SIZE];
    uint32_t& m_refInstNo;
    bool shfelogflag = true; // one out-of-range warning per exchange and object
    bool inelogflag = true;
};

#endif
