// What the card of this build says about device names.

#include "check_support.h"

#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <string_view>

using vorn_cli::device_trouble_of_card;

namespace {

constexpr bool kSoftcard = std::string_view(VORN_CARD_IN_USE) == "softcard";

TEST(DeviceTrouble, NamesWhatIsNoCard) {
    EXPECT_NE(device_trouble_of_card("rtp:x"), "");
    EXPECT_NE(device_trouble_of_card("my card"), "");
    // Each kind of name belongs to one of the two cards.
    EXPECT_EQ(device_trouble_of_card("exanic0").empty(), !kSoftcard);
    EXPECT_EQ(device_trouble_of_card("sim:seed=7&changes=1000&eof=stop").empty(), kSoftcard);
}

TEST(DeviceTrouble, KnowsTheOptionsOfTheSoftwareCard) {
    if (!kSoftcard) {
        EXPECT_NE(device_trouble_of_card("sim:"), "");
        return;
    }
    EXPECT_EQ(device_trouble_of_card("sim:"), "");
    EXPECT_NE(device_trouble_of_card("sim:sed=7").find("sed"), std::string::npos);
    EXPECT_NE(device_trouble_of_card("sim:seed=seven"), "");
    EXPECT_NE(device_trouble_of_card("sim:eof=never"), "");
    EXPECT_NE(device_trouble_of_card("sim:speed=0"), "");
}

TEST(DeviceTrouble, LooksAtTheCaptureOfTheSoftwareCard) {
    const support::TempDir directory;
    const std::string text = directory.write("text.pcap", "no capture");
    EXPECT_NE(device_trouble_of_card("pcap:" + text), "");
    EXPECT_NE(device_trouble_of_card("pcap:" + text + ".absent?eof=stop"), "");
    EXPECT_NE(device_trouble_of_card("pcap:"), "");
}

TEST(DeviceTrouble, LooksAtTheInterfaceOfTheSoftwareCard) {
    const std::string loopback = device_trouble_of_card("if:lo");
    const std::string missing = device_trouble_of_card("if:absent0?idle=3&eof=stop");
    if (!kSoftcard) {
        EXPECT_NE(loopback.find("software card"), std::string::npos) << loopback;
        EXPECT_NE(missing, "");
        return;
    }
    EXPECT_NE(loopback.find("loopback (lo) cannot work"), std::string::npos) << loopback;
    EXPECT_NE(missing.find("there is no interface absent0"), std::string::npos) << missing;
    EXPECT_NE(device_trouble_of_card("if:absent0?loop=1").find("loop"), std::string::npos);
}

} // namespace
