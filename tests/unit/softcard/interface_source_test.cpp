// What can be told of an interface without the privilege to capture on it. How frames get through
// is for the lab (tests/system/lab), which makes interfaces of its own.

#include "softcard/sources/interface_source.h"

#include "softcard/sources/device_text.h"
#include "softcard/sources/network_interface.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace softcard {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string refusal(const std::string& device) {
    std::string error;
    EXPECT_EQ(open_card(device, error), nullptr) << device;
    EXPECT_THAT(error, Not(HasSubstr("\n")));
    return error;
}

TEST(InterfaceSource, RefusesLoopbackAtOnceAndSaysWhy) {
    const std::string error = refusal("if:lo");
    EXPECT_THAT(error, HasSubstr("loopback (lo) cannot work"));
    EXPECT_THAT(error, HasSubstr("no checksums"));
    EXPECT_THAT(error, HasSubstr("veth"));
}

TEST(InterfaceSource, NamesTheInterfacesThatThereAreWhenOneIsMissing) {
    const std::string error = refusal("if:absent0?idle=1&eof=stop");
    EXPECT_THAT(error, HasSubstr("there is no interface absent0; "));
    EXPECT_THAT(error, testing::AnyOf(HasSubstr("there are: "), HasSubstr("none but loopback")));
    EXPECT_THAT(error, Not(HasSubstr("lo,"))); // it would not do
}

TEST(InterfaceSource, AnOverlongNameIsNoInterface) {
    EXPECT_THAT(refusal("if:" + std::string(300, 'x')), HasSubstr("there is no interface xxx"));
    // Cut to what the system takes for a name it would be one.
    EXPECT_THAT(interface_trouble("lo" + std::string(14, '\0') + "x"), HasSubstr("no interface"));
}

TEST(NetworkInterface, KnowsTheMtuOfLoopbackAndNothingOfAMissingOne) {
    EXPECT_GT(interface_mtu("lo"), 1500u);
    EXPECT_EQ(interface_mtu("absent0"), 0u);
    EXPECT_TRUE(harmful_offloads("absent0").empty());
}

TEST(NetworkInterface, NamesTheCommandThatTurnsTheOffloadsOff) {
    EXPECT_EQ(offloads_off_command("eth1"),
              "ethtool -K eth1 rx off tx off sg off tso off gso off gro off lro off");
}

TEST(Memberships, TakesGroupsAndPassesOverWhatIsNone) {
    Memberships memberships;
    const uint32_t groups[] = {0xEF042A48, 0xEF042A48, 0, 0xFFFFFFFF, 0x0A000001};
    EXPECT_EQ(memberships.set("lo", groups), "");
    EXPECT_EQ(memberships.set("lo", {}), "");
}

} // namespace
} // namespace softcard
