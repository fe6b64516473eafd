#pragma once

// `vorn convert` in a directory of its own.

#include "research_file.h"

#include "tests/system/vorn_session/session_program.h"

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vorn_convert {

class ConvertProgram : public vorn_session::SessionProgram {
protected:
    // A session of 30 instruments with so many changes as NAME.pcap.
    void session(const std::string& name, const std::string& changes,
                 const std::vector<std::string>& more = {}) const {
        std::vector<std::string> arguments = {
            "sim", "-q", "-f", "-o", name + ".pcap", "--changes", changes, "--instruments", "30"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const auto run = vorn(arguments);
        EXPECT_EQ(run.exit_status, 0) << run.err;
    }
    // A session of a second as NAME.pcap that lacks a change in the middle.
    void session_with_gap(const std::string& name) const {
        session(name, "20000", {"--fault", "gap@0.5"});
    }
    // Converts and expects this status and nothing on standard error.
    support::ChildRun convert(std::vector<std::string> arguments, int exit_status = 0) const {
        arguments.insert(arguments.begin(), {"convert", "-q"});
        auto run = vorn(arguments);
        EXPECT_EQ(run.exit_status, exit_status) << run.err;
        EXPECT_EQ(exit_status == 0, run.err.empty()) << run.err;
        return run;
    }
    // Converts `arguments` to FILE.npy and reads that.
    ResearchFile rows(const std::string& file, std::vector<std::string> arguments) const {
        arguments.insert(arguments.end(), {"-f", "-o", file + ".npy"});
        convert(arguments);
        return read(file + ".npy");
    }
    ResearchFile read(const std::string& file) const {
        ResearchFile result = read_research_file(name(file));
        EXPECT_EQ(result.problem, "") << file;
        return result;
    }
};

} // namespace vorn_convert
