// What the simulated exchange sends in a small session.

#include "exchange_sim/session.h"
#include "exchange_sim/session_options.h"
#include "seeds.h"
#include "wirekit/ethernet.h"

#include <string>

namespace seeds {

void put_session() {
    const auto parsed = exchange_sim::parse_session_options(
        "seed=3 instruments=6 changes=60 rate=1000 round_ms=5 rounds=1");
    exchange_sim::Session session(parsed.options);
    Script stream(0);
    Bytes incremental{0};
    int frames = 0;
    int buffers = 0;
    for (exchange_sim::WireFrame frame; session.next(frame);) {
        const auto packet = wirekit::parse_frame(frame.bytes);
        const Bytes payload(packet.payload.begin(), packet.payload.end());
        if (packet.kind == wirekit::ParsedFrame::Kind::kUdp) {
            if (buffers++ < 20) {
                wirekit::append(incremental, raw_entry(15, payload));
            }
        } else if (packet.kind == wirekit::ParsedFrame::Kind::kTcp && packet.from.port == 33022 &&
                   !payload.empty()) {
            stream.add(kNext, payload, packet.to.port == 50001 ? 0 : 1);
            put("mdqp", "session-" + std::to_string(frames), Bytes{0, 0x08} + payload);
            put("frame", "session-" + std::to_string(frames++),
                Bytes{0, 0} + Bytes(frame.bytes.begin(), frame.bytes.end()));
        }
    }
    put("session", "simulated", stream.bytes());
    put("decode", "simulated", incremental);
}

} // namespace seeds
