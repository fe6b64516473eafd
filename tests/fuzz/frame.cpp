// One raw Ethernet frame into the snapshot channel.
//
// Byte 0: the rig's control. Byte 1: bit 0 the IP length is made to fit, 1 the source port is made
// the exchange's, 2 the TCP checksum is made right, 3 the session of the local port has begun, with
// the frame's sequence number as the next one, 4 the frame comes twice. Then the frame.

#include "support/fuzz_input.h"
#include "support/snapshot_rig.h"
#include "support/tcp_repair.h"
#include "wirekit/bytes.h"

#include <cstdlib>
#include <vector>

namespace {

void begin_session(fuzz::SnapshotRig& rig, std::span<const uint8_t> frame) {
    const fuzz::TcpPlace place = fuzz::find_tcp(frame);
    if (!place.whole) {
        return;
    }
    const uint8_t* tcp = frame.data() + place.tcp;
    TcpSession& session = rig.session(wirekit::get_be16(tcp + 2));
    session.init = 1;
    session.em_dqp_data_type = SHFE_2PS;
    std::memcpy(&session.src_host, frame.data() + place.ip + 12, 4);
    std::memcpy(&session.dst_host, frame.data() + place.ip + 16, 4);
    session.next_expt_seq = wirekit::get_be32(tcp + 4);
    if (session.frag_buf == nullptr) {
        session.frag_buf = static_cast<uint8_t*>(std::calloc(1, FRAG_BUF_SIZE));
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::SnapshotRig& rig = fuzz::SnapshotRig::instance();
    fuzz::Input input(data, size);
    rig.begin(input.u8());
    const uint8_t repairs = input.u8();
    const auto bytes = input.take(RECV_BUF_SIZE + 1);
    static std::vector<uint8_t> frame;
    frame.assign(bytes.begin(), bytes.end());
    fuzz::repair_tcp(frame, (repairs & 1) != 0, (repairs & 2) != 0, (repairs & 4) != 0);
    if ((repairs & 8) != 0) {
        begin_session(rig, frame);
    }
    rig.frame(frame);
    if ((repairs & 16) != 0) {
        rig.frame(frame);
    }
    rig.end();
    return 0;
}

int LLVMFuzzerInitialize(int*, char***) {
    fuzz::SnapshotRig::instance();
    return 0;
}
