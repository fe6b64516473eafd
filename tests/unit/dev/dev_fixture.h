#pragma once

// A device on the scripted card, with a configuration of distinct addresses.

#include "dev/ExanicDevFunc.h"
#include "system_calls.h"
#include "tests/support/bring_up.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_card.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

using support::bring_up_stores;
using support::expect_stores;
using support::RegisterStore;
using support::ScriptedCard;

class DevFixture {
public:
    DevFixture();
    ~DevFixture();

    ScriptedCard& card = ScriptedCard::instance();
    ExanicMdConfigData config;
    UEnableMask mask{};
    CExanicDevFunc dev{config, mask};

private:
    cpu_set_t affinity_; // of the test's thread before the test
};

// Which feeds are enabled, as bits of UEnableMask.
void enable(ExanicMdConfigData& config, unsigned feeds);
