#include "dev_fixture.h"

DevFixture::DevFixture() {
    card.reset();
    system_calls::reset();
    ::sched_getaffinity(0, sizeof affinity_, &affinity_);
    system_calls::set_affinity_result(0);
    system_calls::on_sleep([](useconds_t) {});
    config = ExanicMdConfigData{};
    config.device = "exanic0";
    config.shfe2ps_ip_a = "239.1.2.3:2001";
    config.shfe2ps_ip_b = "239.1.2.4:2002";
    config.shfe4ps_ip_a = "239.2.2.3:4001";
    config.shfe4ps_ip_b = "239.2.2.4:4002";
    config.ine2ps_ip_a = "239.3.2.3:2003";
    config.ine2ps_ip_b = "239.3.2.4:2004";
    config.ine4ps_ip_a = "239.4.2.3:4003";
    config.ine4ps_ip_b = "239.4.2.4:4004";
    config.split_all_field = 1;
}

DevFixture::~DevFixture() {
    system_calls::reset();
    ::sched_setaffinity(0, sizeof affinity_, &affinity_);
    system_calls::reset();
}

void enable(ExanicMdConfigData& config, unsigned feeds) {
    config.shfe2ps = (feeds & 0x01) != 0;
    config.shfe4ps = (feeds & 0x02) != 0;
    config.ine2ps = (feeds & 0x04) != 0;
    config.ine4ps = (feeds & 0x08) != 0;
}
