// MDQP messages into the snapshot decoder, and the price check behind them.
//
// The messages come as reassembly hands them over.
//
// Byte 0: the rig's control. Byte 1: bits 0 to 2 the session's feed (0 to 3; above, unknown), 3 the
// first message is made as long as the input, 4 some instruments are known already, 5 books are
// checked even if no feed finished. Then the messages.

#include "wirekit/mdqp.h"
#include "support/fuzz_input.h"
#include "support/snapshot_rig.h"

#include <vector>

namespace {

constexpr uint16_t kPort = 50001;
constexpr std::size_t kMaxSize = 8192;

wirekit::Bytes dictionary() {
    return wirekit::mdqp_message()
        .inst({.inst_id = "cu2603", .price_tick = 10, .codec_price = 50000, .inst_no = 1})
        .inst({.inst_id = "au2606", .price_tick = 0.02, .codec_price = 600, .inst_no = 2})
        .inst({.inst_id = "sc2604TAS", .price_tick = 0.1, .inst_no = 3})
        .inst({.inst_id = "SPD cu2603-cu2604", .price_tick = 10, .inst_no = 4})
        .packet_no(1)
        .bytes();
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const wirekit::Bytes known = dictionary();
    fuzz::SnapshotRig& rig = fuzz::SnapshotRig::instance();
    fuzz::Input input(data, size);
    rig.begin(input.u8());
    const uint8_t shape = input.u8();
    const auto type = static_cast<EMdqpDataType>((shape & 4) != 0 ? -1 : shape & 3);
    if ((shape & 16) != 0) {
        rig.messages(known, type, kPort);
    }
    const auto bytes = input.take(kMaxSize);
    static std::vector<uint8_t> messages;
    messages.assign(bytes.begin(), bytes.end());
    if ((shape & 8) != 0 && messages.size() >= sizeof(MdqpHeader)) {
        wirekit::put_le16(&messages[2],
                          static_cast<uint16_t>(messages.size() - sizeof(MdqpHeader)));
    }
    rig.messages(messages, type, kPort);
    rig.core()._CheckFinishedSnapshot();
    if ((shape & 32) != 0) {
        rig.core().ShfePriceCheck();
    }
    rig.end();
    return 0;
}

int LLVMFuzzerInitialize(int*, char***) {
    fuzz::SnapshotRig::instance();
    return 0;
}
