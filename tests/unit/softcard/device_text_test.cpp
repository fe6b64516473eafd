#include "softcard/sources/device_text.h"

#include "support.h"

#include <gtest/gtest.h>

namespace softcard {
namespace {

using namespace test;

DeviceText parse_good(const std::string& text) {
    DeviceText device;
    std::string error;
    EXPECT_TRUE(parse_device_text(text, device, error)) << error;
    return device;
}

TEST(DeviceText, NamesACaptureAndHowToPlayIt) {
    const DeviceText plain = parse_good("pcap:/data/a.pcap");
    EXPECT_EQ(plain.scheme, "pcap");
    EXPECT_EQ(plain.path, "/data/a.pcap");
    EXPECT_EQ(plain.at_end, AtEnd::kIdle);
    EXPECT_EQ(plain.speed, 0);
    const DeviceText full = parse_good("pcap:a.pcap?eof=stop&speed=2.5");
    EXPECT_EQ(full.path, "a.pcap");
    EXPECT_EQ(full.at_end, AtEnd::kStop);
    EXPECT_EQ(full.speed, 2.5);
    EXPECT_EQ(parse_good("pcap:what?.pcap?eof=idle").path, "what?.pcap");
    EXPECT_EQ(parse_good("pcap:C:/a.pcap").path, "C:/a.pcap");
    EXPECT_EQ(parse_good("pcap:a.pcap?").path, "a.pcap");
}

TEST(DeviceText, HandsTheSimulatorItsOwnOptions) {
    EXPECT_TRUE(parse_good("sim:").source_options.empty());
    const DeviceText device = parse_good("sim:seed=7&eof=stop&instruments=40&speed=1e3");
    EXPECT_EQ(device.scheme, "sim");
    EXPECT_EQ(device.at_end, AtEnd::kStop);
    EXPECT_EQ(device.speed, 1000);
    EXPECT_EQ(device.source_options,
              (std::map<std::string, std::string>{{"seed", "7"}, {"instruments", "40"}}));
}

TEST(DeviceText, FaultsBelongToTheCardWhateverTheSource) {
    const std::vector<faults::FaultSpec> expected = {{faults::Kind::kGap, 2'000'000'000, 3},
                                                     {faults::Kind::kOverflow, std::nullopt, 1}};
    for (const char* text : {"pcap:a.pcap?fault=gap@2:3+overflow&eof=stop&fault_seed=9",
                             "sim:seed=7&fault=gap@2:3+overflow&eof=stop&fault_seed=9"}) {
        const DeviceText device = parse_good(text);
        EXPECT_EQ(device.faults, expected);
        EXPECT_EQ(device.fault_seed, 9u);
        EXPECT_EQ(device.at_end, AtEnd::kStop);
    }
    EXPECT_TRUE(parse_good("sim:seed=7").faults.empty());
}

TEST(DeviceText, NamesAnInterfaceAndItsBuffer) {
    const DeviceText plain = parse_good("if:eth1");
    EXPECT_EQ(plain.scheme, "if");
    EXPECT_EQ(plain.live.interface, "eth1");
    EXPECT_EQ(plain.live.buffer_bytes, 64u << 20);
    EXPECT_EQ(plain.live.idle_seconds, 0);
    EXPECT_EQ(plain.at_end, AtEnd::kIdle);
    const DeviceText full = parse_good("if:eth1?buffer=128M&idle=2.5&eof=stop");
    EXPECT_EQ(full.live.interface, "eth1");
    EXPECT_EQ(full.live.buffer_bytes, 128u << 20);
    EXPECT_EQ(full.live.idle_seconds, 2.5);
    EXPECT_EQ(full.at_end, AtEnd::kStop);
    EXPECT_EQ(parse_good("if:eth1?buffer=1048576").live.buffer_bytes, 1u << 20);
    EXPECT_EQ(parse_good("if:eth1?buffer=2048K").live.buffer_bytes, 2u << 20);
    EXPECT_EQ(parse_good("if:eth1?buffer=1G").live.buffer_bytes, 1u << 30);
}

struct ErrorCase {
    const char* name;
    const char* text;
    const char* error;
};

const ErrorCase kErrors[] = {
    {"NoScheme", "exanic0",
     "no source in device \"exanic0\"; use sim:key=value&..., pcap:PATH?key=value&... or "
     "if:INTERFACE?key=value&..."},
    {"UnknownScheme", "tap:eth0",
     "unknown source \"tap\" in device \"tap:eth0\"; use sim:key=value&..., "
     "pcap:PATH?key=value&... "
     "or if:INTERFACE?key=value&..."},
    {"NoPath", "pcap:", "pcap: needs the path of a capture file, as in pcap:PATH?eof=stop"},
    {"NoPathButOptions", "pcap:?eof=stop",
     "pcap: needs the path of a capture file, as in pcap:PATH?eof=stop"},
    {"UnknownOption", "pcap:a?loop=1",
     "unknown option \"loop\"; pcap: knows eof=stop|idle, speed=F, fault=KIND[@TIME][:COUNT] and "
     "fault_seed=N"},
    {"BadEnd", "pcap:a?eof=repeat", "eof=repeat: must be stop or idle"},
    {"EmptyEnd", "sim:eof=", "eof=: must be stop or idle"},
    {"ZeroSpeed", "sim:speed=0",
     "speed=0: must be a number greater than 0, or left out for step mode"},
    {"NegativeSpeed", "sim:speed=-1",
     "speed=-1: must be a number greater than 0, or left out for step mode"},
    {"WordSpeed", "sim:speed=fast",
     "speed=fast: must be a number greater than 0, or left out for step mode"},
    {"SpeedAndMore", "sim:speed=2x",
     "speed=2x: must be a number greater than 0, or left out for step mode"},
    {"EndlessSpeed", "sim:speed=inf",
     "speed=inf: must be a number greater than 0, or left out for step mode"},
    {"NoEquals", "sim:seed", "\"seed\" is not key=value"},
    {"NoKey", "sim:=7", "\"=7\" is not key=value"},
    {"EmptyOption", "sim:seed=1&&eof=stop", "\"\" is not key=value"},
    {"Twice", "sim:seed=1&seed=2", "option \"seed\" is given twice"},
    {"BadFault", "pcap:a?fault=gap@soon",
     "fault \"gap@soon\": behind @ stand seconds from the first frame, as in gap@2.5"},
    {"BadFaultSeed", "sim:fault=gap&fault_seed=x", "fault_seed=x: must be a whole number from 0"},
    {"FaultTwice", "sim:fault=gap&fault=gap", "option \"fault\" is given twice"},
    {"NoInterface", "if:", "if: needs the name of a network interface, as in if:eth1"},
    {"InterfaceWithSpeed", "if:eth1?speed=1", "if: plays in real time and takes no speed="},
    {"InterfaceWithFault", "if:eth1?fault=gap",
     "if: shows what the network brings and takes no fault=; record it and put the faults into the "
     "recording, as in pcap:PATH?fault=gap"},
    {"InterfaceUnknownOption", "if:eth1?loop=1",
     "unknown option \"loop\"; if: knows buffer=SIZE and idle=SECONDS with eof=stop"},
    {"BufferTooSmall", "if:eth1?buffer=1023K",
     "buffer=1023K: must be a size from 1M to 1G, as in buffer=64M"},
    {"BufferTooLarge", "if:eth1?buffer=2G",
     "buffer=2G: must be a size from 1M to 1G, as in buffer=64M"},
    {"BufferBeyondAllNumbers", "if:eth1?buffer=18446744073709551615G",
     "buffer=18446744073709551615G: must be a size from 1M to 1G, as in buffer=64M"},
    {"BufferUnit", "if:eth1?buffer=64MB",
     "buffer=64MB: must be a size from 1M to 1G, as in buffer=64M"},
    {"IdleZero", "if:eth1?idle=0&eof=stop", "idle=0: must be a number of seconds greater than 0"},
    {"IdleWord", "if:eth1?idle=x&eof=stop", "idle=x: must be a number of seconds greater than 0"},
    {"StopWithoutIdle", "if:eth1?eof=stop",
     "an interface has no end: eof=stop and idle=SECONDS go together, to stop once nothing has "
     "come for so long"},
    {"IdleWithoutStop", "if:eth1?idle=3",
     "an interface has no end: eof=stop and idle=SECONDS go together, to stop once nothing has "
     "come for so long"},
    {"EndTwice", "sim:eof=stop&eof=idle", "option \"eof\" is given twice"},
};

TEST(DeviceText, SaysWhatIsWrongAndWhatWouldWork) {
    for (const ErrorCase& row : kErrors) {
        DeviceText device;
        std::string error;
        EXPECT_FALSE(parse_device_text(row.text, device, error)) << row.name;
        EXPECT_EQ(error, row.error) << row.name;
    }
}

TEST(DeviceText, OpensTheKindOfCardThatIsAskedFor) {
    const TempDir directory;
    const std::string path = directory.file("a.pcap", pcap_of({shfe_change(1, 1)}));
    std::string error;
    for (const char* const options : {"", "?speed=1"}) {
        const auto card = open_card("pcap:" + path + options, error);
        ASSERT_NE(card, nullptr) << error;
        program_lines(card->registers().program_view());
        switch_on(card->registers().program_view());
        Reader reader = card->new_reader(0);
        EXPECT_EQ(poll(*card, reader), decode_payload(1, 1));
    }
    EXPECT_EQ(open_card("pcap:" + directory.path("none"), error), nullptr);
    EXPECT_NE(error.find("No such file"), std::string::npos);
}

// The victims begin among the first sixteen candidates; with this seed at the first.
constexpr char kSeedFromTheFirst[] = "13";

TEST(DeviceText, FaultsAreInWhatTheCardDelivers) {
    const TempDir directory;
    const std::string path =
        directory.file("a.pcap", pcap_of({shfe_change(1, 1), shfe_change(1, 2)}));
    std::string error;
    const auto card =
        open_card("pcap:" + path + "?fault=duplicate@0:9&fault_seed=" + kSeedFromTheFirst, error);
    ASSERT_NE(card, nullptr) << error;
    program_lines(card->registers().program_view());
    switch_on(card->registers().program_view());
    Reader reader = card->new_reader(0);
    for (const uint32_t change_no : {1u, 1u, 2u, 2u}) {
        EXPECT_EQ(poll(*card, reader), decode_payload(1, change_no));
    }
    EXPECT_TRUE(poll(*card, reader).empty());
}

} // namespace
} // namespace softcard
