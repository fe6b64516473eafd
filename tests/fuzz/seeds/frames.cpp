// Frames: good ones, and one for each reason to refuse one.

#include "seeds.h"
#include "wirekit/ethernet.h"

#include <string>

namespace seeds {

void put_frames() {
    const Bytes start = round(1000);
    const auto good = [&] { return wirekit::tcp_segment().payload(start); };
    const auto save = [](const std::string& name, const Bytes& frame, uint8_t repairs = 0,
                         uint8_t control = 0) {
        put("frame", name, Bytes{control, repairs} + frame);
        put("frame", name + "-logged",
            Bytes{static_cast<uint8_t>(control | 0x30), repairs} + frame);
    };
    save("good", good().bytes());
    save("good-repaired", good().bytes(), 7);
    save("good-real-clean", good().bytes(), 7, 0x80);
    save("good-ps4", good().from(0x0A010101, 22000).bytes(), 5, 0x40);
    save("options", good().ip_options(8).tcp_options(12).padding(6).bytes());
    save("rst", good().flags(wirekit::kTcpRst | wirekit::kTcpAck).bytes());
    save("rst-real", good().flags(wirekit::kTcpRst | wirekit::kTcpAck).bytes(), 0, 0x80);
    save("bad-checksum", good().bad_checksum().bytes());
    save("no-payload", wirekit::tcp_segment().bytes());
    save("other-port", good().from(1, 80).bytes());
    save("continued", good().bytes(), 8);
    save("continued-twice", good().bytes(), 24);
    save("twice", good().bytes(), 16);
    save("finishes", wirekit::tcp_segment().payload(round(1000) + round(5000)).bytes(), 0);
    save("udp", wirekit::udp_datagram().payload(start).bytes());
    const auto damaged = [&](std::size_t at, uint8_t value) {
        Bytes frame = good().bytes();
        frame[at] = value;
        return frame;
    };
    save("icmp", damaged(23, 1));
    save("igmp", damaged(23, 2));
    save("protocol", damaged(23, 99));
    save("ip-header-small", damaged(14, 0x44));
    save("tcp-header-small", damaged(46, 0x40));
    save("tcp-header-long", damaged(46, 0xF0));
    save("ip-length-long", damaged(16, 0x07));
    save("ip-length-short", damaged(16, 0));
    const Bytes whole = good().bytes();
    for (const std::size_t size : {14, 15, 33, 34, 53, 54, 55, 60}) {
        save("cut-" + std::to_string(size),
             Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    }
    Bytes long_ip = damaged(14, 0x4F);
    long_ip.resize(60);
    save("ip-header-cut", long_ip);
    Bytes long_tcp = damaged(46, 0xF0);
    long_tcp.resize(80);
    save("tcp-header-cut", long_tcp);
    save("largest", wirekit::tcp_segment().payload(Bytes(1994, 0x11)).bytes());
    for (const std::size_t size : {1, 2, 7, 44, 45}) {
        save("payload-" + std::to_string(size),
             wirekit::tcp_segment().payload(std::span(start).first(size)).bytes());
        save("continued-" + std::to_string(size),
             wirekit::tcp_segment().payload(std::span(start).first(size)).bytes(), 8);
    }
}

} // namespace seeds
