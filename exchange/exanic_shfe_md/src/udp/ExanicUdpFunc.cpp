// Intake of decode buffers and the cache that keeps them while the snapshot is being loaded. The
// decoder is in ExanicUdpFunc_mirp.cpp.
//
// A cache entry is an 8-byte CachedDecodeHdr followed by the decode buffer as received; entries lie
// back to back. Nothing is filtered when caching: a message that the snapshot already contains is
// recognised by its change number when it is replayed.

#include "udp/ExanicUdpFunc.h"

#include "CommonLog.h"
#include "MdMonitor.h"
#include "WireRead.h"

#include <xmmintrin.h>

#include <cstddef>
#include <cstring>

namespace {

constexpr char LOG_FILE_TAG[] = "ExanicUdpFunc";

struct CachedDecodeHdr {
    uint32_t size;     // 0: bytes of the decode buffer that follows
    uint32_t packetNo; // 4: reserved, neither written nor read
};
static_assert(sizeof(CachedDecodeHdr) == 8);

constexpr uint32_t MIN_DECODE_SIZE = sizeof(MirpHeader);
constexpr int64_t MAX_ENTRY_SIZE = sizeof(CachedDecodeHdr) + RECV_BUF_SIZE;
constexpr int64_t PREFETCH_LINE = 64;

bool IsAbnormal(uint32_t size) {
    return size < MIN_DECODE_SIZE || size > RECV_BUF_SIZE;
}

} // namespace

CExanicUdpFunc::CExanicUdpFunc(const ExanicMdConfigData& configData, share* pShareMem,
                               CacheBufInfo& cachedDecode, PriceCalcInfo& calcInfo,
                               uint32_t& curInstNo)
    : m_refConfigData(configData), m_pShareMem(pShareMem), m_cachedDecode(cachedDecode),
      m_refCalcInfo(calcInfo), m_recvBuf(), m_refInstNo(curInstNo) {}

int32_t CExanicUdpFunc::InitUdp(volatile uint32_t* pRegisters, exanic_rx_t* pRxBuffer) {
    m_pRegisters = pRegisters;
    m_pRxBuffer = pRxBuffer;
    return RET_OK;
}

int32_t CExanicUdpFunc::UdpRecv() {
    // A negative status becomes a huge length and so an abnormal one.
    const uint32_t size =
        static_cast<uint32_t>(exanic_receive_frame(m_pRxBuffer, m_recvBuf, RECV_BUF_SIZE, nullptr));
    if (size == 0) {
        g_mdMonitor.NoteIdle();
        return RET_OK;
    }
    if (IsAbnormal(size)) {
        MD_LOG(LOG_DEBUG, "receive abnormal decode length: %u", size);
        g_mdMonitor.CountAbnormal(size);
        return RET_OK;
    }
    MD_LOG(LOG_DEBUG_EX, "receive decode length: %u", size);
    return _ParseMirp(m_recvBuf, size);
}

void CExanicUdpFunc::CachePacket() {
    const uint32_t size =
        static_cast<uint32_t>(exanic_receive_frame(m_pRxBuffer, m_recvBuf, RECV_BUF_SIZE, nullptr));
    if (size == 0) {
        return;
    }
    if (IsAbnormal(size)) {
        MD_LOG(LOG_DEBUG, "receive abnormal decode length: %u", size);
        g_mdMonitor.CountAbnormal(size);
        return;
    }
    MD_LOG(LOG_DEBUG_EX, "receive decode length: %u", size);

    CacheBufInfo& cache = m_cachedDecode;
    // Tested with the largest entry, not with this one.
    if (cache.piOffset + MAX_ENTRY_SIZE > CACHE_BUF_SIZE) {
        MD_LOG(LOG_WARNING, "too many packet to cache, clear %d", cache.cachedCount);
        _DropCached();
    }
    MD_LOG(LOG_DEBUG_EX, "cache decode buffer offset: %d, count: %d", cache.piOffset,
           cache.cachedCount);
    char* entry = cache.pCacheBuf + cache.piOffset;
    memcpy(entry, &size, sizeof(size));
    memcpy(entry + sizeof(CachedDecodeHdr), m_recvBuf, size);
    cache.piOffset += static_cast<int32_t>(sizeof(CachedDecodeHdr) + size);
    ++cache.cachedCount;
    g_mdMonitor.caller.cached.Add();
}

int32_t CExanicUdpFunc::ProcessCached() {
    CacheBufInfo& cache = m_cachedDecode;
    if (cache.cachedCount < 1) {
        MD_LOG(LOG_WARNING, "no cached packet to process");
        return RET_OK;
    }
    // In 64 bits, so that no size of an entry can wrap the sum.
    const int64_t dataOffset =
        static_cast<int64_t>(cache.ciOffset) + int64_t{sizeof(CachedDecodeHdr)};
    if (dataOffset > CACHE_BUF_SIZE) {
        MD_LOG(LOG_ERROR, "ciOffset out of range: %d", cache.ciOffset);
        ClearCache();
        return RET_FAILED;
    }
    const uint32_t size = ReadRecord<CachedDecodeHdr>(cache.pCacheBuf + cache.ciOffset).size;
    MD_LOG(LOG_DEBUG_EX, "process decode buffer offset: %d, size: %u", cache.ciOffset, size);
    if (dataOffset + size > CACHE_BUF_SIZE) {
        MD_LOG(LOG_ERROR, "cached packet size out of range, offset: %d, size: %u", cache.ciOffset,
               size);
        ClearCache();
        return RET_FAILED;
    }
    _PrefetchNext(dataOffset + size);
    const int32_t result = _ParseMirp(cache.pCacheBuf + dataOffset, size);
    // Consumed whatever came of it.
    --cache.cachedCount;
    g_mdMonitor.caller.replayed.Add();
    cache.ciOffset = static_cast<int32_t>(dataOffset + size);
    return result;
}

// Unlike the card's, the next message of the cache is already there: its record is fetched while
// this one is applied. A number beyond its table fetches nothing.
inline void CExanicUdpFunc::_PrefetchNext(int64_t offset) const {
    const int64_t end = offset + int64_t{sizeof(CachedDecodeHdr) + sizeof(MirpHeader)};
    if (m_cachedDecode.cachedCount < 2 || end > CACHE_BUF_SIZE) {
        return;
    }
    const char* packet = m_cachedDecode.pCacheBuf + offset + sizeof(CachedDecodeHdr);
    const int32_t topic = ReadRecord<uint16_t>(packet + offsetof(MirpHeader, decode.topicID));
    const uint32_t number = ReadRecord<uint32_t>(packet + offsetof(MirpHeader, incre.instrumentNo));
    const bool shfe =
        topic == m_refConfigData.shfe2ps_topic_id || topic == m_refConfigData.shfe4ps_topic_id;
    if (number >= static_cast<uint32_t>(shfe ? SHFE_MAX_INST_CNT : INE_MAX_INST_CNT)) {
        return;
    }
    const char* record =
        reinterpret_cast<const char*>(&m_pShareMem->instmts[shfe ? number : LAST_SLOT - number]);
    for (size_t at = 0; at < sizeof(instrument); at += PREFETCH_LINE) {
        _mm_prefetch(record + at, _MM_HINT_T0);
    }
}

void CExanicUdpFunc::ForgetCached() {
    if (m_refConfigData.recovery) {
        _DropCached();
    }
}

void CExanicUdpFunc::_DropCached() {
    if (m_cachedDecode.cachedCount > 0) {
        g_mdMonitor.caller.cacheDropped.Add(static_cast<uint64_t>(m_cachedDecode.cachedCount));
    }
    m_cachedDecode.piOffset = 0;
    m_cachedDecode.ciOffset = 0;
    m_cachedDecode.cachedCount = 0;
}

void CExanicUdpFunc::ClearCache() {
    _DropCached();
    memset(m_cachedDecode.pCacheBuf, 0, CACHE_BUF_SIZE);
    MD_LOG(LOG_INFO, "decode buffer cleared");
}

// Only a hint: it may point behind a table, which is harmless. It counts lines of eight doubles
// rounded down, and steps through the table of ints by the same lines.
void CExanicUdpFunc::PrefetchCalcInfo() {
    const auto prefetchFrom = [this](int32_t slot, int32_t lines) {
        const auto addressOf = [slot](const auto* table) {
            return reinterpret_cast<const char*>(table) + slot * int64_t{sizeof(*table)};
        };
        const char* const tables[] = {addressOf(m_refCalcInfo.priceTick),
                                      addressOf(m_refCalcInfo.codecPrice),
                                      addressOf(m_refCalcInfo.volumeMulti)};
        for (int32_t i = 0; i < lines; ++i) {
            for (const char* table : tables) {
                _mm_prefetch(table + PREFETCH_LINE * i, _MM_HINT_T2);
            }
        }
    };
    prefetchFrom(0, (m_pShareMem->shfe_inst_cnt - 1) / 8);
    const int32_t ineCount = m_pShareMem->ine_inst_cnt;
    if (ineCount > 0) {
        prefetchFrom(INSTRUMENT_SLOT_CNT - ineCount, (ineCount - 1) / 8);
    }
}
