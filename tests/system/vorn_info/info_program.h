#pragma once

// `vorn info` in a directory with a small session.

#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"
#include "tests/system/vorn_session/session_capture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vorn_info {

class InfoProgram : public testing::Test {
protected:
    support::ChildRun vorn(std::vector<std::string> arguments) const;
    // A session of 30 instruments and about 2000 changes in memory.
    vorn_session::SessionCapture session(const std::vector<std::string>& more = {}) const;
    void write(const vorn_session::SessionCapture& capture, const std::string& name = "c.pcap") {
        directory_.write(name, capture.bytes());
    }
    // The objects that `vorn info --json` writes, the summary first.
    std::vector<nlohmann::json> info(std::vector<std::string> more = {},
                                     const std::string& capture = "c.pcap") const;
    nlohmann::json summary(const std::string& capture = "c.pcap") const {
        return info({}, capture).at(0);
    }

    support::TempDir directory_;
};

} // namespace vorn_info
