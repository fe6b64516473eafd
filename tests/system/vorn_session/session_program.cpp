#include "session_program.h"

#include "tests/system/vorn_check/run_program.h"

#include <algorithm>

namespace vorn_session {

support::ChildRun SessionProgram::vorn(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), VORN_PROGRAM);
    return vorn_check::run_program(arguments, directory_.path());
}

void SessionProgram::sim(const std::string& name, const std::vector<std::string>& more) const {
    std::vector<std::string> arguments = {
        "sim", "-q", "-o", name + ".pcap", "--changes", "3000", "--instruments", "30"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const auto run = vorn(arguments);
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out, "");
}

nlohmann::json SessionProgram::replay(const std::string& capture, int exit_status) const {
    const auto run = vorn({"replay", capture, "--json"});
    EXPECT_EQ(run.exit_status, exit_status) << run.err;
    EXPECT_EQ(lines(run.out), 1u) << run.out;
    nlohmann::json object = nlohmann::json::parse(run.out, nullptr, false);
    EXPECT_TRUE(object.is_object()) << run.out;
    return object;
}

std::size_t lines(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

} // namespace vorn_session
