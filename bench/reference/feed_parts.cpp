#include "bench/reference/feed_parts.h"

#include "bench/harness/contest.h"
#include "bench/harness/stand_in_card.h"

#include <cstring>

namespace bench {

ExanicMdConfigData feed_config() {
    ExanicMdConfigData config;
    config.shfe2ps_topic_id = static_cast<int16_t>(kShfeTopic);
    config.shfe4ps_topic_id = 1101;
    config.ine2ps_topic_id = static_cast<int16_t>(kIneTopic);
    config.ine4ps_topic_id = 5101;
    config.options = 1;
    return config;
}

IncrementalFeed::IncrementalFeed(uint32_t instruments)
    : market(std::make_unique<Market>()), fresh_(make_market(instruments)), config_(feed_config()),
      cache_bytes_(new char[CACHE_BUF_SIZE]()) {
    cache.pCacheBuf = cache_bytes_.get();
    channel = std::make_unique<CExanicUdpFunc>(config_, &market->table, cache, market->scale, slot);
    channel->InitUdp(registers(), exanic_acquire_rx_buffer(nullptr, 0, 0));
    reset();
}

void IncrementalFeed::reset() {
    std::memcpy(static_cast<void*>(market.get()), fresh_.get(), sizeof(Market));
    cache.piOffset = 0;
    cache.ciOffset = 0;
    cache.cachedCount = 0;
    update_md_count = 0;
}

uint64_t IncrementalFeed::hash() const {
    return hash_bytes(&market->table, sizeof(share), update_md_count);
}

} // namespace bench
