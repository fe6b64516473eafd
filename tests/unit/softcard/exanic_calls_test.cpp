#include <exanic/fifo_rx.h>
#include <exanic/util.h>

#include "softcard/inspect.h"

#include "support.h"

#include <gtest/gtest.h>
#include <thread>

namespace softcard {
namespace {

using test::Bytes;
using namespace test;

class ExanicCalls : public testing::Test {
protected:
    ~ExanicCalls() override { close_all_devices(); }

    std::string device(const std::vector<Bytes>& frames, const std::string& name = "a.pcap") {
        return "pcap:" + directory_.file(name, pcap_of(frames));
    }

    static exanic_t* open(const std::string& name) {
        exanic_t* const handle = exanic_acquire_handle(name.c_str());
        EXPECT_NE(handle, nullptr) << exanic_get_last_error();
        return handle;
    }

    static Bytes receive(exanic_rx_t* rx) {
        char buffer[2048];
        const ssize_t size = exanic_receive_frame(rx, buffer, sizeof(buffer), nullptr);
        return size <= 0 ? Bytes() : Bytes(buffer, buffer + size);
    }

    static void start(exanic_t* handle) {
        program_lines(exanic_get_devkit_registers(handle));
        switch_on(exanic_get_devkit_registers(handle));
    }

    const TempDir directory_;
};

TEST_F(ExanicCalls, GiveOneHandleForOneName) {
    const std::string name = device({});
    exanic_t* const first = open(name);
    EXPECT_EQ(open(name), first);
    EXPECT_EQ(open_devices(), 1u);
    EXPECT_NE(open(device({}, "b.pcap")), first);
    EXPECT_EQ(open_devices(), 2u);
}

TEST_F(ExanicCalls, CloseTheDeviceWithItsLastReference) {
    const std::string name = device({shfe_change(1, 1)});
    exanic_t* const handle = open(name);
    EXPECT_EQ(open(name), handle);
    exanic_rx_t* const rx = exanic_acquire_rx_buffer(handle, 0, 0);
    ASSERT_NE(rx, nullptr);
    exanic_release_handle(handle);
    exanic_release_handle(handle);
    EXPECT_EQ(open_devices(), 1u); // the buffer holds it
    start(handle);
    EXPECT_EQ(receive(rx), decode_payload(1, 1));
    exanic_release_rx_buffer(rx);
    EXPECT_EQ(open_devices(), 0u);
    // Opened anew: registers and source begin again.
    exanic_t* const again = open(name);
    EXPECT_EQ(exanic_get_devkit_registers(again)[kDecodeSwitchWord], 0u);
    start(again);
    EXPECT_EQ(receive(exanic_acquire_rx_buffer(again, 0, 0)), decode_payload(1, 1));
}

TEST_F(ExanicCalls, TakeEveryReleaseOfNothing) {
    exanic_release_handle(nullptr);
    exanic_release_rx_buffer(nullptr);
}

TEST_F(ExanicCalls, RefusePortsAndBuffersThatDoNotExist) {
    exanic_t* const handle = open(device({}));
    EXPECT_EQ(exanic_acquire_rx_buffer(handle, 2, 0), nullptr);
    EXPECT_STREQ(exanic_get_last_error(), "no port 2; the card has ports 0 and 1");
    EXPECT_EQ(exanic_acquire_rx_buffer(handle, -1, 0), nullptr);
    EXPECT_STREQ(exanic_get_last_error(), "no port -1; the card has ports 0 and 1");
    EXPECT_EQ(exanic_acquire_rx_buffer(handle, 0, 1), nullptr);
    EXPECT_STREQ(exanic_get_last_error(), "no receive buffer 1; each port has buffer 0 only");
    EXPECT_EQ(exanic_acquire_rx_buffer(nullptr, 0, 0), nullptr);
    EXPECT_STREQ(exanic_get_last_error(), "no handle to take a receive buffer of");
    EXPECT_EQ(exanic_get_devkit_registers(nullptr), nullptr);
    EXPECT_STREQ(exanic_get_last_error(), "no handle to take the registers of");
}

TEST_F(ExanicCalls, SayWhyADeviceCannotBeOpened) {
    EXPECT_EQ(exanic_acquire_handle(nullptr), nullptr);
    EXPECT_STREQ(exanic_get_last_error(),
                 "no device name; use sim:key=value&..., pcap:PATH?key=value&... or "
                 "if:INTERFACE?key=value&...");
    EXPECT_EQ(exanic_acquire_handle(""), nullptr);
    EXPECT_EQ(exanic_acquire_handle("exanic0"), nullptr);
    EXPECT_STREQ(exanic_get_last_error(), "no source in device \"exanic0\"; use sim:key=value&..., "
                                          "pcap:PATH?key=value&... or if:INTERFACE?key=value&...");
    const std::string missing = "pcap:" + directory_.path("missing");
    EXPECT_EQ(exanic_acquire_handle(missing.c_str()), nullptr);
    EXPECT_NE(std::string(exanic_get_last_error()).find("No such file"), std::string::npos);
    const std::string cooked = "pcap:" + directory_.file("cooked", pcap_header(kPcapNano, 113));
    EXPECT_EQ(exanic_acquire_handle(cooked.c_str()), nullptr);
    EXPECT_NE(std::string(exanic_get_last_error()).find("must be Ethernet"), std::string::npos);
    EXPECT_EQ(open_devices(), 0u);
}

TEST_F(ExanicCalls, KeepTheErrorTextsOfThreadsApart) {
    EXPECT_EQ(exanic_acquire_handle("nonsense"), nullptr);
    const char* const text = exanic_get_last_error();
    const std::string before = text;
    std::thread([] {
        EXPECT_STREQ(exanic_get_last_error(), "");
        EXPECT_EQ(exanic_acquire_handle(""), nullptr);
        EXPECT_EQ(std::string(exanic_get_last_error()).find("no device name"), 0u);
    }).join();
    EXPECT_EQ(exanic_get_last_error(), text);
    EXPECT_EQ(text, before);
}

TEST_F(ExanicCalls, CutAnErrorTextThatIsTooLong) {
    const std::string name = "pcap:" + std::string(5000, 'x');
    EXPECT_EQ(exanic_acquire_handle(name.c_str()), nullptr);
    EXPECT_EQ(std::string(exanic_get_last_error()).size(), 1023u);
}

TEST_F(ExanicCalls, ShowTheFirmwaresRegisters) {
    exanic_t* const handle = open(device({}));
    volatile uint32_t* const registers = exanic_get_devkit_registers(handle);
    EXPECT_EQ(exanic_get_devkit_registers(handle), registers);
    EXPECT_EQ(registers[kVersionWord], kVersionValue);
    registers[kShfeAddressWord] = 12;
    registers[kShfeDataWord] = 1;
    EXPECT_TRUE(filter_entry(handle, Exchange::kShfe, 12));
    EXPECT_FALSE(filter_entry(handle, Exchange::kIne, 12));
    EXPECT_EQ(stores_seen(handle, kShfeDataWord), 1u);
    EXPECT_EQ(stores_seen(handle, kIneDataWord), 0u);
}

TEST_F(ExanicCalls, ReceiveFramesWithTheirTimes) {
    exanic_t* const handle = open(device({shfe_change(1, 1), shfe_change(1, 2)}));
    exanic_rx_t* const rx = exanic_acquire_rx_buffer(handle, 0, 0);
    start(handle);
    char buffer[64];
    exanic_cycles32_t first = 0, second = 0;
    EXPECT_EQ(exanic_receive_frame(rx, buffer, sizeof(buffer), &first), 24);
    EXPECT_EQ(exanic_receive_frame(rx, buffer, sizeof(buffer), &second), 24);
    EXPECT_EQ(second - first, 1u); // nanoseconds, as the capture has it
    EXPECT_EQ(exanic_receive_frame(rx, buffer, sizeof(buffer), nullptr), 0);
}

TEST_F(ExanicCalls, KeepDevicesApart) {
    exanic_t* const one = open(device({shfe_change(1, 1)}, "one"));
    exanic_t* const two = open(device({shfe_change(2, 2)}, "two"));
    exanic_rx_t* const rx_one = exanic_acquire_rx_buffer(one, 0, 0);
    exanic_rx_t* const rx_two = exanic_acquire_rx_buffer(two, 0, 0);
    start(two);
    EXPECT_TRUE(receive(rx_one).empty());
    EXPECT_EQ(receive(rx_two), decode_payload(2, 2));
    start(one);
    EXPECT_EQ(receive(rx_one), decode_payload(1, 1));
}

// What a feed leaves behind that restarted: references that nobody has any more.
TEST_F(ExanicCalls, LiveWithBuffersThatNobodyReleases) {
    const std::string name = device({shfe_change(1, 1), shfe_change(1, 2)});
    exanic_t* const handle = open(name);
    exanic_rx_t* rx = exanic_acquire_rx_buffer(handle, 0, 0);
    start(handle);
    EXPECT_EQ(receive(rx), decode_payload(1, 1));
    for (int restart = 0; restart < 100; ++restart) {
        EXPECT_EQ(open(name), handle);
        rx = exanic_acquire_rx_buffer(handle, 0, 0);
    }
    EXPECT_EQ(receive(rx), decode_payload(1, 2));
    exanic_release_rx_buffer(rx);
    exanic_release_handle(handle);
    EXPECT_EQ(open_devices(), 1u);
    close_all_devices();
    EXPECT_EQ(open_devices(), 0u);
}

} // namespace
} // namespace softcard
