// Decode buffers against a table: the decoder by itself, the polls of the decode port, the cache.

#include "stage.h"

#include "udp/ExanicUdpFunc.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace differential {
namespace {

ExanicMdConfigData read_config(Reader& scenario) {
    ExanicMdConfigData config;
    config.shfe2ps_topic_id = scenario.get<int16_t>();
    config.shfe4ps_topic_id = scenario.get<int16_t>();
    config.ine2ps_topic_id = scenario.get<int16_t>();
    config.ine4ps_topic_id = scenario.get<int16_t>();
    config.options = scenario.get<int8_t>();
    return config;
}

void read_slots(Stage& stage, Reader& scenario) {
    const auto count = scenario.get<uint32_t>();
    for (uint32_t i = 0; i < count; ++i) {
        const auto slot = scenario.get<uint32_t>();
        stage.table()->instmts[slot] = scenario.get<instrument>();
        stage.calc()->priceTick[slot] = scenario.get<double>();
        stage.calc()->codecPrice[slot] = scenario.get<double>();
        stage.calc()->volumeMulti[slot] = scenario.get<int32_t>();
    }
}

class Channel {
public:
    Channel(Stage& stage, Reader& scenario) : stage_(stage), config_(read_config(scenario)) {
        read_slots(stage, scenario);
        cache_.pCacheBuf = stage.cache();
        udp_.InitUdp(stage.card.registers(), stage.card.rx(0));
    }

    // Operations: M decode; U, C a frame is polled, u, c a status is polled (upper case: frames),
    // by the live and by the caching poll; P replay an entry; K clear; O offsets; W cache bytes.
    int32_t apply(char operation, const Bytes& data) {
        Reader in(data.data(), data.size());
        switch (operation) {
        case 'M': {
            const std::unique_ptr<char[]> exact(new char[data.size()]);
            std::copy(data.begin(), data.end(), exact.get());
            return udp_._ParseMirp(exact.get(), static_cast<uint32_t>(data.size()));
        }
        case 'U':
        case 'C':
            stage_.card.push(0, data);
            return poll(operation);
        case 'u':
        case 'c':
            stage_.card.push_result(0, in.get<int64_t>());
            return poll(operation);
        case 'P':
            return udp_.ProcessCached();
        case 'K':
            udp_.ClearCache();
            return 0;
        case 'O':
            cache_.piOffset = in.get<int32_t>();
            cache_.ciOffset = in.get<int32_t>();
            cache_.cachedCount = in.get<int32_t>();
            return 0;
        case 'W': {
            const auto offset = in.get<uint32_t>();
            std::memcpy(cache_.pCacheBuf + offset, data.data() + 4, data.size() - 4);
            return 0;
        }
        default:
            throw std::runtime_error("unknown operation");
        }
    }

    // Item 'o': result, slot last addressed, cache offsets, stores, the addressed record.
    void trace(Trace& trace, int32_t result) {
        trace.begin('o');
        trace.put(result);
        trace.put(slot_);
        trace.put(cache_.piOffset);
        trace.put(cache_.ciOffset);
        trace.put(cache_.cachedCount);
        stage_.put_stores(trace);
        trace.put(stage_.table()->instmts[slot_]);
        trace.end();
    }

private:
    int32_t poll(char operation) {
        if (operation == 'U' || operation == 'u') {
            return udp_.UdpRecv();
        }
        udp_.CachePacket();
        return 0;
    }

    Stage& stage_;
    ExanicMdConfigData config_;
    CacheBufInfo cache_{};
    uint32_t slot_ = 0;
    CExanicUdpFunc udp_{config_, stage_.table(), cache_, *stage_.calc(), slot_};
};

} // namespace

void run_incremental(Stage& stage, Reader& scenario, int log_mask, Trace& trace) {
    const support::LogCapture capture(log_mask);
    Channel channel(stage, scenario);
    const auto count = scenario.get<uint32_t>();
    for (uint32_t i = 0; i < count; ++i) {
        const char operation = scenario.get<char>();
        const Bytes data = scenario.bytes();
        channel.trace(trace, channel.apply(operation, data));
    }
    stage.trace_table(trace);
    trace_log(trace, capture.lines());
}

} // namespace differential
