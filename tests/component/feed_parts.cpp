#include "tests/component/feed_parts.h"

#include "CommonLog.h"

#include <sched.h>
#include <thread>

namespace component_test {

FeedParts::FeedParts()
    : table(std::make_unique<share>()), calc(std::make_unique<PriceCalcInfo>()),
      cache_memory(new char[CACHE_BUF_SIZE]()), card(support::ScriptedCard::instance()) {
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(0));
    card.reset();
    card.record_stores(false);
    config.md2ps_snap_port = kMd2psPort;
    config.md4ps_snap_port = kMd4psPort;
    config.shfe2ps_topic_id = kShfe2psTopic;
    config.shfe4ps_topic_id = 5000;
    config.ine2ps_topic_id = kIne2psTopic;
    config.ine4ps_topic_id = 5100;
    config.recvall = 1;
    config.options = 1;
    config.timeout_cnt = 10;
    enabled.mask = MASK_SHFE_2PS | MASK_INE_2PS;
    cache.pCacheBuf = cache_memory.get();
    tcp = std::make_unique<CExanicTcpFunc>(config, table.get(), enabled, finished, *calc);
    udp = std::make_unique<CExanicUdpFunc>(config, table.get(), cache, *calc, cur_inst_no);
    tcp->InitTcp(card.registers(), card.rx(kRawPort));
    udp->InitUdp(card.registers(), card.rx(kDecodePort));
}

FeedParts::~FeedParts() {
    card.reset();
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(15));
}

int FeedParts::snapshot_phase() {
    tcp->StartRunning();
    std::thread decoder([this] { tcp->RunTcpDecoder(); });
    while (tcp->GetInitialized() == MD_INIT_DOING) {
        udp->CachePacket();
        sched_yield();
    }
    tcp->StopRunning();
    decoder.join();
    return tcp->GetInitialized();
}

} // namespace component_test
