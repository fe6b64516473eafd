#pragma once

// `vorn` in a directory of its own.

#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vorn_session {

class SessionProgram : public testing::Test {
protected:
    support::ChildRun vorn(std::vector<std::string> arguments) const;
    // A session of 30 instruments and about 3000 changes as NAME.pcap, quietly.
    void sim(const std::string& name, const std::vector<std::string>& more = {}) const;
    // What `vorn replay --json` says.
    nlohmann::json replay(const std::string& capture, int exit_status = 0) const;

    std::string name(const std::string& file) const { return (directory_.path() / file).string(); }
    std::string content(const std::string& file) const { return support::read_file(name(file)); }

    support::TempDir directory_;
};

std::size_t lines(const std::string& text);
bool contains(const std::string& text, const std::string& part);

} // namespace vorn_session
